// Tapestries of frame sequences, built tile by tile into a folder: frames
// are read on demand, every finished tile is a file of its own, and a run
// that stopped (Ctrl-C, a crash, a full disk) resumes where it stopped when
// started again on the same folder.
#pragma once

#include <weftmap/host/export.hpp>
#include <weftmap/host/image.hpp>
#include <weftmap/host/options.hpp>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace WM::host {

// Pictures of one size and pixel format, read one at a time on request.
class WEFTMAP_HOST_API FrameSequence {
public:
    virtual ~FrameSequence();
    virtual std::ptrdiff_t frame_count() const = 0;
    virtual Size frame_size() const = 0;
    virtual PixelFormat format() const = 0;
    // Paints frame `index` (0 to frame_count() - 1) into `out`, which has
    // frame_size() and any pixel format (converted as by convert()).
    // Throws Error.
    virtual void read_frame(std::ptrdiff_t index, ImageView const& out) const = 0;
};

// Frames first, first + step, ... below end (-1: to the last frame).
struct FrameSelection {
    std::ptrdiff_t first = 0;
    std::ptrdiff_t end = -1;
    std::ptrdiff_t step = 1;
};

// The PNG, JPEG and TIFF files of `folder`, ordered by the number in their
// names (then by name), as one sequence. All must have the size and pixel
// format of the first; a frame that does not fails when it is read. Throws
// Error (invalid_input) for a folder without pictures.
WEFTMAP_HOST_API std::unique_ptr<FrameSequence> open_frame_folder(std::string const& folder);

// A selection of another sequence's frames. Throws Error (invalid_input)
// when it selects none.
WEFTMAP_HOST_API std::unique_ptr<FrameSequence> select_frames(std::unique_ptr<FrameSequence> frames,
                                                              FrameSelection selection);

// Another sequence's frames resampled (bilinear) to `size`.
WEFTMAP_HOST_API std::unique_ptr<FrameSequence> scale_frames(std::unique_ptr<FrameSequence> frames,
                                                             Size size);

// True when the `ffmpeg` program is on the PATH.
WEFTMAP_HOST_API bool video_decoder_available();

// Decodes the selected frames of a video file with the `ffmpeg` program
// into numbered PNG files in `folder` (made if missing), unless an earlier
// call with the same selection finished there. Throws Error: invalid_input
// when ffmpeg is missing or cannot read the file, cancelled when
// options.cancel is raised (the program is stopped).
WEFTMAP_HOST_API void decode_video(std::string const& video, std::string const& folder,
                                   FrameSelection selection, Options const& options);

// The frame height of a tapestry `tapestry_height` high (two rows of
// frames squeezed to three quarters), and the other way round.
WEFTMAP_HOST_API std::ptrdiff_t tapestry_frame_height(std::ptrdiff_t tapestry_height);
WEFTMAP_HOST_API std::ptrdiff_t tapestry_height_of(std::ptrdiff_t frame_height);

struct TapestryOptions {
    // Height of the tapestry; frames are scaled to tapestry_frame_height()
    // of it. 0: the frames' own height, at most default_frame_height.
    std::ptrdiff_t height = 0;
    // Width of a tile; 0: default_tile_width, at least a frame's quarter.
    std::ptrdiff_t tile_width = 0;
    // Levels, each with about half the frames of the one before.
    int levels = 1;
    // Pictures that lead from one level to the next (with levels > 1).
    int inbetweens = 10;
    // Tiles telling which frame each pixel came from.
    bool index_map = false;
    // Where frame positions lie in the source, for the viewer: position i
    // is source frame first_frame + i * frame_step.
    std::ptrdiff_t first_frame = 0;
    std::ptrdiff_t frame_step = 1;

    static constexpr std::ptrdiff_t default_frame_height = 360;
    static constexpr std::ptrdiff_t default_tile_width = 384;
};

struct TapestryResult {
    Size frame_size;  // as laid into the tapestry
    Size tile_size;
    std::ptrdiff_t frames = 0;
    std::vector<Size> level_sizes;
    std::size_t files_made = 0;  // tile and marker files this run added
    // The whole pictures, one per level, as written: "tapestry.png",
    // "tapestry-level-1.png", ... (TIFF for formats or sizes PNG does not
    // hold well), relative to the folder.
    std::vector<std::string> pictures;
};

// Builds the tapestry of `frames` in `folder` (made if missing): tiles in
// "tiles/", the whole picture of each level, the description
// "tapestry.json" and a viewer "index.html" (with "tapestry.js"). Tiles an
// earlier run left are kept; a folder holding a tapestry made with other
// settings is refused. Progress runs over the whole job, and a raised
// cancel flag stops it within a fraction of a second, keeping the finished
// tiles. Throws Error.
WEFTMAP_HOST_API TapestryResult make_tapestry(FrameSequence const& frames,
                                              std::string const& folder,
                                              TapestryOptions const& tapestry,
                                              Options const& options = {});

}  // namespace WM::host
