// weftmap: the Python module of the Weftmap library, on the host kit.
#include "arrays.hpp"
#include "errors.hpp"
#include "runs.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/image_file.hpp>
#include <weftmap/host/output_file.hpp>
#include <weftmap/host/runtime.hpp>
#include <weftmap/host/synthesis.hpp>

#include <pybind11/stl.h>
#include <pybind11/stl/filesystem.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <utility>

namespace weftmap_python {
namespace {

[[noreturn]] void refuse(std::string const& text) {
    throw host::Error(host::ErrorCode::invalid_input, text);
}

// The kit's warnings as Python warnings, which the caller may silence or
// turn into errors.
void warn(host::Warnings const& warnings) {
    for (auto const& text : warnings)
        if (PyErr_WarnEx(PyExc_UserWarning, text.c_str(), 1) != 0) throw py::error_already_set();
}

py::array fill(py::array const& image, py::array const& mask, RunKeywords const& keywords,
               std::optional<py::array> const& sample, int grow, bool texture, bool mirror,
               bool rows, bool cmyk) {
    Picture const picture = picture_of(image, cmyk);
    Mask const hole = mask_of(mask, "hole mask");
    std::optional<Mask> sampling;
    if (sample) sampling = mask_of(*sample, "sampling mask");
    host::Options options = kit_options(keywords);
    if (sampling) options.sample = sampling->view;
    options.grow = grow;
    options.texture_like_rim = texture;
    options.mirrored_patches = mirror;
    options.row_bands = rows;
    host::Image result = without_gil([&] { return host::fill(picture.view, hole.view, options); });
    return array_like(std::move(result), picture);
}

host::Size new_size(host::Size size, std::optional<long long> width,
                    std::optional<long long> height, std::optional<double> scale) {
    if (!scale) return {width.value_or(size.width), height.value_or(size.height)};
    if (width || height) refuse("give a scale or a width and height, not both");
    if (!(*scale > 0.0) || !std::isfinite(*scale))
        refuse("the scale must be a positive number, not " + std::to_string(*scale));
    double const w = std::round(double(size.width) * *scale);
    double const h = std::round(double(size.height) * *scale);
    // Far outside the kit's range stays outside it rather than overflowing.
    constexpr double far = 1e12;
    return {static_cast<std::ptrdiff_t>(std::min(w, far)),
            static_cast<std::ptrdiff_t>(std::min(h, far))};
}

py::array retarget(py::array const& image, std::optional<long long> width,
                   std::optional<long long> height, std::optional<double> scale,
                   RunKeywords const& keywords, std::optional<py::array> const& sample,
                   std::optional<py::array> const& remove, bool cmyk) {
    Picture const picture = picture_of(image, cmyk);
    host::Size const size = new_size(picture.view.size(), width, height, scale);
    std::optional<Mask> sampling, removed;
    if (sample) sampling = mask_of(*sample, "sampling mask");
    if (remove) removed = mask_of(*remove, "remove mask");
    host::Options options = kit_options(keywords);
    if (sampling) options.sample = sampling->view;
    if (removed) options.remove = removed->view;
    host::Image result = without_gil([&] { return host::retarget(picture.view, size, options); });
    return array_like(std::move(result), picture);
}

struct ImageFile {
    py::array pixels;
    bool cmyk = false;
    std::string format;
};

ImageFile read_image(std::filesystem::path const& path) {
    host::Warnings warnings;
    host::ImageFile file =
        without_gil([&] { return host::read_image_file(path.string(), &warnings); });
    warn(warnings);
    bool const cmyk = file.image.format().colour == host::Colour::cmyk;
    return {array_of(std::move(file.image), 2), cmyk, host::format_name(file.format)};
}

std::string write_image(std::filesystem::path const& path, py::array const& pixels, bool cmyk) {
    Picture const picture = picture_of(pixels, cmyk);
    std::string const name = path.string();
    auto const format = host::format_for_name(name, host::FileFormat::png);
    if (!format)
        refuse("'" + name + "': unknown file type '" + path.extension().string() +
               "'; use .png, .jpg or .tif (no extension writes PNG)");
    host::Warnings warnings;
    std::string const written = without_gil([&] {
        // Written under a temporary name, so that a failure leaves no file.
        host::OutputFile output(name);
        std::string description =
            host::write_image_file(output.temporary_path(), name, *format, picture.view, &warnings);
        output.commit();
        return description;
    });
    warn(warnings);
    return written;
}

constexpr unsigned long long no_limit = std::numeric_limits<unsigned long long>::max();

char const* const module_doc = R"(Weftmap image synthesis on numpy arrays.

fill() fills a hole in a picture with material from the rest of it;
retarget() gives a picture a new size while keeping its texture and
objects at their scale. Pictures are numpy arrays of uint8, uint16 or
float32 shaped HxW (gray), HxWx3 (RGB) or HxWx4 (CMYK, with cmyk=True);
masks are HxW arrays of bool or uint8. read_image() and write_image() read
and write PNG, JPEG and TIFF files.

    import numpy as np, weftmap
    picture = weftmap.read_image("photo.png").pixels
    hole = np.zeros(picture.shape[:2], bool)
    hole[100:140, 200:260] = True
    weftmap.write_image("filled.png", weftmap.fill(picture, hole))

Failures raise weftmap.Error or one of its subclasses.)";

char const* const keywords_doc = R"(
mode: the parameter preset, 'hole-fill', 'default' or 'tapestry'.
comparator: how patches are compared, 'translate' (plain differences) or
    'gain-bias' (up to a per-patch gain and bias; only for fills that vote
    one way: mode 'hole-fill' or the option bidir=0, never for retarget).
options: recomposer option strings, {'em_iters': 8} or {'-em_iters': '8'}:
    a leading dash is added where missing, values are passed as str(),
    None or True is a bare flag and False leaves the option out. Values
    outside what the option takes raise InvalidInputError naming it; unknown
    options are ignored with a UserWarning.
seed: the random seed; None keeps the library's fixed seed, 0 seeds from
    the clock.
bands: horizontal bands of the correspondence search, for the whole
    process; None gives one per core, 1 makes a run reproducible.
scalar: use the scalar patch kernels instead of the vector ones (the
    results are the same).
memory_limit: bytes of image memory for the whole process, set before the
    run and left in force (see set_memory_limit).
sample: where patches may be taken from, an HxW mask of bool or uint8,
    True or non-zero where sampling is allowed. None: in a fill, where the
    picture has the colours of the hole's rim (so that a face near the hole
    is not pasted into it), or everywhere outside the hole when that would
    leave too little; in a retarget, everywhere. An all-True mask allows
    everywhere outside the hole.
progress: called with fractions from 0 to 1 on the calling thread. An
    exception raised in it cancels the run and comes out as itself.
cmyk: take an HxWx4 picture as CMYK (Weftmap has no alpha channel).
)";

char const* const run_doc = R"(
The GIL is released while the library works, and Ctrl-C cancels the run
within about a second. Bad input raises InvalidInputError (a ValueError),
a hole that leaves too little to sample from HoleTooLargeError, a run that
does not fit the memory limit MemoryLimitError (a MemoryError); all
failures are weftmap.Error.)";

std::string const fill_doc = R"(Fills the hole in a picture with material from the rest of it.

image: the picture, a numpy array of uint8, uint16 or float32 (float16 and
    float64 are worked on as float32) shaped HxW, HxWx3, or HxWx4 with
    cmyk=True. Any strides: a slice of a bigger array works. It is never
    written.
mask: the hole, an HxW array of bool (True = hole) or uint8 (non-zero =
    hole, 255 = a full hole).
grow: pixels the hole grows by first (0 to 1000), for masks painted
    tightly that leave an object's edge, halo or shadow behind.
texture: where the hole borders on one even texture (grass, gravel) and
    the synthesis came out much smoother than it, rebuild the hole from
    blocks of that texture. False keeps the synthesis's result.
mirror: where the hole's surroundings are mirror symmetric (a cup whose
    one wall the hole covers), also take patches mirrored left to right,
    so the hidden side comes back from the side shown. False takes patches
    only as the picture has them.
rows: where the hole's surroundings are layered in rows (planks, a shore)
    and no mirror is taken, each half of the hole takes patches only from
    its own rows, so the layers run on across it. False takes them from
    any rows.
A hole that a side of the picture cuts takes its patches from within its
own size; options={"-hole_search_window": 0} searches the whole picture.
)" + std::string(keywords_doc) +
                             R"(
Returns a new array of the picture's dtype and shape, equal to it outside
the hole. An empty hole gives a copy.
)" + run_doc;

std::string const retarget_doc =
    R"(Gives a picture a new size, keeping its texture and objects at their scale.

image: the picture, as for fill().
width, height: the new size in pixels; either left out keeps the
    picture's.
scale: instead of width and height, a factor for both sides.
remove: what should go first, an HxW mask of bool or uint8, True or
    non-zero where the picture may be dropped: no patch is taken from it,
    so it leaves the picture instead of being pasted elsewhere (a flag
    beside a person, say). None prefers nothing.
)" + std::string(keywords_doc) +
    R"(
Returns a new array of the picture's dtype and shape kind.
)" + run_doc;

}  // namespace
}  // namespace weftmap_python

PYBIND11_MODULE(weftmap, m) {
    using namespace weftmap_python;
    m.doc() = module_doc;
    m.attr("__version__") = host::library_version();
    register_errors(m);

    m.def(
        "fill",
        [](py::array const& image, py::array const& mask, std::string mode, std::string comparator,
           std::optional<py::dict> options, std::optional<long long> seed, std::optional<int> bands,
           bool scalar, std::optional<long long> memory_limit,
           std::optional<py::array> const& sample, int grow, bool texture, bool mirror, bool rows,
           std::optional<py::function> progress, bool cmyk) {
            RunKeywords const keywords{std::move(mode),
                                       std::move(comparator),
                                       std::move(options),
                                       seed,
                                       memory_limit,
                                       bands,
                                       scalar,
                                       std::move(progress)};
            return fill(image, mask, keywords, sample, grow, texture, mirror, rows, cmyk);
        },
        fill_doc.c_str(), py::arg("image"), py::arg("mask"), py::kw_only(),
        py::arg("mode") = "hole-fill", py::arg("comparator") = "translate",
        py::arg("options") = py::none(), py::arg("seed") = py::none(),
        py::arg("bands") = py::none(), py::arg("scalar") = false,
        py::arg("memory_limit") = py::none(), py::arg("sample") = py::none(), py::arg("grow") = 0,
        py::arg("texture") = true, py::arg("mirror") = true, py::arg("rows") = true,
        py::arg("progress") = py::none(), py::arg("cmyk") = false);

    m.def(
        "retarget",
        [](py::array const& image, std::optional<long long> width, std::optional<long long> height,
           std::optional<double> scale, std::string mode, std::string comparator,
           std::optional<py::dict> options, std::optional<long long> seed, std::optional<int> bands,
           bool scalar, std::optional<long long> memory_limit,
           std::optional<py::array> const& sample, std::optional<py::array> const& remove,
           std::optional<py::function> progress, bool cmyk) {
            RunKeywords const keywords{std::move(mode),
                                       std::move(comparator),
                                       std::move(options),
                                       seed,
                                       memory_limit,
                                       bands,
                                       scalar,
                                       std::move(progress)};
            return retarget(image, width, height, scale, keywords, sample, remove, cmyk);
        },
        retarget_doc.c_str(), py::arg("image"), py::arg("width") = py::none(),
        py::arg("height") = py::none(), py::arg("scale") = py::none(), py::kw_only(),
        py::arg("mode") = "tapestry", py::arg("comparator") = "translate",
        py::arg("options") = py::none(), py::arg("seed") = py::none(),
        py::arg("bands") = py::none(), py::arg("scalar") = false,
        py::arg("memory_limit") = py::none(), py::arg("sample") = py::none(),
        py::arg("remove") = py::none(), py::arg("progress") = py::none(), py::arg("cmyk") = false);

    py::class_<ImageFile>(m, "ImageFile", "A picture read from a file.")
        .def_readonly("pixels", &ImageFile::pixels,
                      "The pixels: HxW, HxWx3 or HxWx4 (CMYK), of uint8, uint16 or float32.")
        .def_readonly("cmyk", &ImageFile::cmyk, "True when the pixels are CMYK.")
        .def_readonly("format", &ImageFile::format, "The file's format: 'PNG', 'JPEG' or 'TIFF'.")
        .def("__repr__", [](ImageFile const& file) {
            return "<weftmap.ImageFile " + std::string(py::str(file.pixels.dtype())) + " " +
                   std::string(py::str(py::object(file.pixels.attr("shape")))) +
                   (file.cmyk ? " CMYK " : " ") + file.format + ">";
        });

    m.def("read_image", &read_image, py::arg("path"),
          R"(Reads a PNG, JPEG or TIFF file into the pixel format that fits it.

Returns an ImageFile: .pixels (a numpy array), .cmyk and .format. An alpha
channel is dropped with a UserWarning. Raises InvalidInputError for a
missing, unreadable, damaged or unsupported file.)");

    m.def("write_image", &write_image, py::arg("path"), py::arg("pixels"), py::arg("cmyk") = false,
          R"(Writes a picture to a file whose type the extension names (.png, .jpg,
.jpeg, .tif, .tiff; none writes PNG).

pixels: a picture as for fill(); cmyk: take an HxWx4 array as CMYK.
The pixels are converted to the nearest format the file holds (CMYK to RGB
and float to 16 bits for PNG, 8 bits for JPEG). A failed write leaves no
file. Returns what was written, e.g. '8-bit RGB PNG'. Raises OutputError
(an OSError) when the file cannot be written.)");

    m.def(
        "set_memory_limit",
        [](std::optional<long long> bytes) {
            if (bytes && *bytes < 0)
                refuse("the memory limit is a number of bytes, not " + std::to_string(*bytes));
            without_gil([&] { host::set_memory_limit(bytes ? *bytes : no_limit); });
        },
        py::arg("bytes"),
        R"(Limits the image memory of the whole process to `bytes`; None removes the
limit. Runs that do not fit raise MemoryLimitError; result arrays count
until they are freed.)");

    m.def(
        "memory_limit",
        []() -> std::optional<unsigned long long> {
            unsigned long long const limit = without_gil([] { return host::memory_limit(); });
            if (limit == no_limit) return std::nullopt;
            return limit;
        },
        "The process-wide limit of image memory in bytes, None when there is none.");

    m.def(
        "memory_in_use", [] { return without_gil([] { return host::memory_in_use(); }); },
        "Bytes of image memory held now, result arrays included.");
}
