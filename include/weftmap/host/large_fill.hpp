// Hole filling of pictures of any size in bounded memory. The picture and
// its mask stream in from files and become pyramids of working files; the
// library solves the hole at the finest scale that fits the memory limit and,
// when that is not the full size, again at full size tile by tile; the
// result streams out into the output file. Only a few tiles' worth of pixels
// is ever in memory.
#pragma once

#include <weftmap/host/export.hpp>
#include <weftmap/host/image.hpp>
#include <weftmap/host/options.hpp>
#include <weftmap/host/raster_file.hpp>

#include <string>

namespace WM::host {

// Whether a fill of a picture of `format` and `size` in one pass fits the
// memory limit (options.memory_limit, or the limit in force), counting the
// picture and its hole mask as read into memory, the kit's copies of both
// and every buffer the library reserves, with the hole as large as the
// picture. Reserves nothing that outlives the call. Throws Error.
WEFTMAP_HOST_API bool fill_fits_in_memory(PixelFormat format, Size size,
                                          Options const& options = {});

// Half of the machine's physical memory: the limit a host sets when its
// user gives none.
WEFTMAP_HOST_API unsigned long long default_memory_limit();

// Where working files go unless a host says otherwise: $TMPDIR, or /tmp.
WEFTMAP_HOST_API std::string default_temporary_folder();

struct LargeFillReport {
    // The mask marks no hole: the picture was copied.
    bool hole_empty = false;
    // The scale of the first pass (0: the picture was solved whole at full
    // size) and the picture's size there.
    int coarse_scale = 0;
    Size coarse_size;
    // Tiles of the second pass, and how many of them held hole pixels and
    // were solved; both 0 without a second pass.
    int tiles = 0;
    int tiles_filled = 0;
};

// Fills the hole of the picture that `image` reads (non-zero pixels of what
// `hole` reads, a mask of the same size in any format) and writes the result
// through `output` (made for the picture's size and format), finishing it.
// The readers must be at their first row. Working files go to
// `temporary_folder`; they have no names there, so nothing is left behind
// however the run ends. options.sample is not supported and the gain/bias
// comparator is refused (both Error invalid_input). Progress covers the
// whole job: reading, both passes and writing. Throws Error.
WEFTMAP_HOST_API LargeFillReport fill_large(RasterReader& image, RasterReader& hole,
                                            RasterWriter& output, Options const& options,
                                            std::string const& temporary_folder);

}  // namespace WM::host
