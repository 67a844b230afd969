// Fills in two passes through the kit: the pyramids built from streamed rows
// against pyramids built whole in memory, a tiled fill of a generated
// picture, and the working files after success, failure and cancel.
#include "host/kit_helpers.hpp"
#include "host/pyramid_access.hpp"
#include "support/random_image.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/image_file.hpp>
#include <weftmap/host/large_fill.hpp>
#include <weftmap/host/runtime.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

namespace WM::host::test {
namespace {

using detail::DiskPyramid;
using detail::PyramidAccess;
using detail::RasterFile;
using detail::Rect;
using detail::Reduction;

// Puts the process-wide memory limit back when the test ends.
struct LimitGuard {
    unsigned long long const saved = (ensure_library(), memory_limit());
    ~LimitGuard() { set_memory_limit(saved); }
};

// Scale k + 1 of a picture built whole: each pixel from the 2x2 block below
// it (fewer pixels at an odd edge), by the rounded mean or the largest value.
template <class Pixel>
RecycledImage<Pixel> halved(RecycledImage<Pixel> const& in, Reduction reduction) {
    using Channel = channel_base_t<Pixel>;
    Point const s = in.dimensions();
    RecycledImage<Pixel> out(Point((s.x + 1) / 2, (s.y + 1) / 2));
    for (std::ptrdiff_t y = 0; y < out.height(); ++y)
        for (std::ptrdiff_t x = 0; x < out.width(); ++x)
            for (int c = 0; c < num_channels_v<Pixel>; ++c) {
                double sum = 0, top = 0;
                int n = 0;
                for (std::ptrdiff_t v = 2 * y; v < std::min(2 * y + 2, s.y); ++v)
                    for (std::ptrdiff_t u = 2 * x; u < std::min(2 * x + 2, s.x); ++u) {
                        double const value = double(channel_value(const_view(in)(u, v), c));
                        sum += value;
                        top = std::max(top, value);
                        ++n;
                    }
                double const mean = std::is_floating_point_v<Channel>
                                        ? sum / n
                                        : double((static_cast<long long>(sum) + n / 2) / n);
                set_channel(view(out)(x, y), c,
                            static_cast<Channel>(reduction == Reduction::maximum ? top : mean));
            }
    return out;
}

template <class Pixel>
ConstImageView kit_view(RecycledImage<Pixel> const& image) {
    return ConstImageView(reinterpret_cast<unsigned char const*>(image.memory()),
                          detail::format_of<Pixel>(), image.width(), image.height());
}

template <class Pixel>
class StreamedPyramid : public ::testing::Test {};
TYPED_TEST_SUITE(StreamedPyramid, NinePixels);

// Odd sizes, bands of uneven heights, and a hole of a lone pixel and a line
// one pixel thin: the library must see what a pyramid built whole holds.
TYPED_TEST(StreamedPyramid, AgreesWithOneBuiltInMemory) {
    using Pixel = TypeParam;
    TempFolder folder;
    Point const size(75, 41);
    auto const picture = WM::test::random_image<Pixel>(size.x, size.y, 3);
    RecycledImage<gray8_pixel_t> hole(size);
    gil::fill_pixels(view(hole), gray8_pixel_t(0));
    view(hole)(61, 7) = gray8_pixel_t(1);
    for (std::ptrdiff_t y = 20; y < 37; ++y) view(hole)(13, y) = gray8_pixel_t(200);

    int const scales = DiskPyramid::scale_count({size.x, size.y}, 4);
    ASSERT_EQ(scales, 4);  // 75x41, 38x21, 19x11, 10x6
    PixelFormat const format = detail::format_of<Pixel>();
    DiskPyramid pictures(folder.path, format, {size.x, size.y}, Reduction::mean, scales);
    DiskPyramid holes(folder.path, mask_format, {size.x, size.y}, Reduction::maximum, scales);
    std::ptrdiff_t y = 0;
    for (std::ptrdiff_t band = 1; y < size.y; band = band % 5 + 1) {
        std::ptrdiff_t const n = std::min(band, size.y - y);
        pictures.append_rows(kit_view(picture).crop(0, y, size.x, n));
        holes.append_rows(kit_view(hole).crop(0, y, size.x, n));
        y += n;
    }
    ASSERT_TRUE(pictures.complete() && holes.complete());
    EXPECT_TRUE(folder.names().empty()) << "working files have no names";

    // The hole's bounds at scale 0: columns 13 to 61, rows 7 to 36.
    RasterFile result(folder.path, format, {49, 30});
    PyramidAccess<Pixel> access(pictures, holes, result, nullptr);
    ASSERT_EQ(access.getNumScales(), scales);
    auto expected = picture;
    auto expected_hole = hole;
    for (int k = 0; k < scales; ++k) {
        SCOPED_TRACE("scale " + std::to_string(k));
        access.setScale(k);
        Point const s = expected.dimensions();
        EXPECT_EQ(access.getSourceSize(), s);
        EXPECT_EQ(access.getTargetSize(), s);
        // Sizes and points convert by the same powers of two.
        Point const down = access.convertPoint(size, 0, k);
        EXPECT_TRUE(down.x <= s.x && s.x <= down.x + 1 && down.y <= s.y && s.y <= down.y + 1);
        EXPECT_EQ(access.convertPoint(access.convertPoint(Point(13, 20), 0, k), k, 0),
                  Point(13 >> k << k, 20 >> k << k));
        double const d = std::ldexp(1.0, k);
        EXPECT_EQ(access.convertPoint(Point(-3, -1), 0, k),
                  Point(std::ptrdiff_t(std::floor(-3 / d)), std::ptrdiff_t(std::floor(-1 / d))));

        RecycledImage<Pixel> read(s);
        auto read_view = view(read);
        access.getInputPixels(read_view, Point(0, 0));
        EXPECT_TRUE(gil::equal_pixels(const_view(read), const_view(expected)));

        // The hole: bounds from the pixels, contents through the clipping
        // read the library uses, nothing lost at any scale.
        Box bounds{1 << 20, 1 << 20, -1, -1};
        for (std::ptrdiff_t v = 0; v < s.y; ++v)
            for (std::ptrdiff_t u = 0; u < s.x; ++u)
                if (const_view(expected_hole)(u, v)[0] != 0)
                    bounds = {std::min<int>(bounds.xmin, u), std::min<int>(bounds.ymin, v),
                              std::max<int>(bounds.xmax, u + 1), std::max<int>(bounds.ymax, v + 1)};
        EXPECT_EQ(access.getHoleBoundsOrigin(), Point(bounds.xmin, bounds.ymin));
        EXPECT_EQ(access.getHoleBoundsSize(), bounds.size());
        RecycledImage<gray8_pixel_t> mask(s);
        auto mask_view = view(mask);
        access.safeGetHolePixels(mask_view, Point(0, 0));
        EXPECT_TRUE(gil::equal_pixels(const_view(mask), const_view(expected_hole)));
        EXPECT_NE(const_view(mask)(access.convertPoint(Point(61, 7), 0, k).x,
                                   access.convertPoint(Point(61, 7), 0, k).y)[0],
                  0);

        // A window over the picture's corner repeats its edge pixels.
        RecycledImage<Pixel> corner(Point(s.x + 5, 4));
        auto corner_view = view(corner);
        access.getInputPixels(corner_view, Point(-3, -2));
        for (std::ptrdiff_t v = 0; v < 4; ++v)
            for (std::ptrdiff_t u = 0; u < s.x + 5; ++u)
                ASSERT_EQ(const_view(corner)(u, v),
                          const_view(expected)(std::clamp<std::ptrdiff_t>(u - 3, 0, s.x - 1),
                                               std::clamp<std::ptrdiff_t>(v - 2, 0, s.y - 1)));

        expected = halved(expected, Reduction::mean);
        expected_hole = halved(expected_hole, Reduction::maximum);
    }

    // The result lives in the hole's bounds at scale 0, wherever they are.
    access.setScale(0);
    Point const origin = access.getHoleBoundsOrigin();
    ASSERT_EQ(origin, Point(13, 7));
    auto const patch = WM::test::random_image<Pixel>(6, 5, 9);
    auto patch_view = view(const_cast<RecycledImage<Pixel>&>(patch));
    access.setOutputPixels(patch_view, origin + Point(40, 20));
    RecycledImage<Pixel> back(Point(6, 5));
    auto back_view = view(back);
    access.getOutputPixels(back_view, origin + Point(40, 20));
    EXPECT_TRUE(gil::equal_pixels(const_view(back), const_view(patch)));
    EXPECT_THROW(access.setOutputPixels(patch_view, origin + Point(45, 0)), Error);
}

PixelFormat const rgb8{Depth::u8, Colour::rgb};
PixelFormat const rgb16{Depth::u16, Colour::rgb};

struct Files {
    std::string image, mask, output;
};

Files write_inputs(TempFolder const& folder, PixelFormat format, Size size, char const* extension) {
    Files f{folder.at(std::string("in.") + extension), folder.at("mask.png"),
            folder.at(std::string("out.") + extension)};
    Image const image = texture(format, size);
    Image const mask = disc_mask(size, size.width * 0.45, size.height * 0.55, size.height * 0.22);
    auto const file_format = *format_for_name(f.image, FileFormat::png);
    write_image_file(f.image, f.image, file_format, image.view());
    write_image_file(f.mask, f.mask, FileFormat::png, mask.view());
    return f;
}

// Runs a fill in two passes from `files`, its working files in `work`.
LargeFillReport fill_files(Files const& files, Options const& options, std::string const& work) {
    RasterReader image(files.image);
    RasterReader mask(files.mask);
    RasterWriter output(files.output, files.output, *format_for_name(files.output, FileFormat::png),
                        image.format(), image.size());
    return fill_large(image, mask, output, options, work);
}

// Forced to tile by a memory limit that holds about a quarter of the
// picture's run: known pixels come back bit for bit, the texture goes on into the
// hole, progress covers the job, and the working files never had names.
TEST(LargeFill, TiledKeepsKnownPixelsAndLeavesNothing) {
    LimitGuard const guard;
    TempFolder folder, work;
    for (PixelFormat format : {rgb8, rgb16}) {
        SCOPED_TRACE(format_name(format));
        Files const files =
            write_inputs(folder, format, {180, 180}, format == rgb8 ? "png" : "tif");
        Options options;
        options.bands = 1;
        options.seed = 3;
        options.memory_limit = 800 << 10;
        std::vector<float> progress;
        std::size_t named_files = 0;
        options.progress = [&](float f) {
            progress.push_back(f);
            named_files += work.names().size();
        };
        EXPECT_FALSE(fill_fits_in_memory(format, {180, 180}, options));
        LargeFillReport const report = fill_files(files, options, work.path);
        EXPECT_GE(report.coarse_scale, 1);
        EXPECT_GT(report.tiles, report.tiles_filled);
        EXPECT_GE(report.tiles_filled, 2);
        EXPECT_TRUE(std::is_sorted(progress.begin(), progress.end()));
        ASSERT_FALSE(progress.empty());
        EXPECT_FLOAT_EQ(progress.back(), 1.0f);
        EXPECT_EQ(named_files, 0u);
        EXPECT_TRUE(work.names().empty());

        ImageFile const in = read_image_file(files.image);
        ImageFile const out = read_image_file(files.output);
        Image const mask = read_mask_file(files.mask);
        ASSERT_EQ(out.image.format(), format);
        ASSERT_EQ(out.image.size(), in.image.size());
        EXPECT_TRUE(known_pixels_kept(in.image.view(), mask.view(), out.image.view()));
        EXPECT_GT(psnr_in_hole(in.image.view(), mask.view(), out.image.view()), 20.0);
    }
}

// The answer follows the limit, and asking reserves nothing.
TEST(LargeFill, OnePassFitIsAnsweredWithoutKeepingMemory) {
    LimitGuard const guard;
    Options options;
    options.memory_limit = 64ull << 20;
    unsigned long long const held = memory_in_use();
    EXPECT_TRUE(fill_fits_in_memory(rgb8, {300, 200}, options));
    EXPECT_FALSE(fill_fits_in_memory(rgb8, {3000, 2000}, options));
    options.memory_limit = 200 << 10;
    EXPECT_FALSE(fill_fits_in_memory(rgb8, {300, 200}, options));
    EXPECT_EQ(memory_in_use(), held);
    EXPECT_EQ(memory_limit(), 200u << 10);
}

// Failures and a cancel: the right code, and no working file left.
TEST(LargeFill, FailuresAndCancelLeaveNothing) {
    LimitGuard const guard;
    TempFolder folder, work;
    Files const files = write_inputs(folder, rgb8, {180, 180}, "png");
    Options options;
    options.memory_limit = 800 << 10;
    auto const failure = [&](Files const& f, Options const& o, std::string const& where) {
        return code_of([&] { fill_files(f, o, where); });
    };

    // While reading, during the passes and while writing.
    CancelFlag cancel;
    Options cancelling = options;
    cancelling.cancel = &cancel;
    for (float at : {0.02f, 0.3f, 0.95f}) {
        cancel.reset();
        cancelling.progress = [&cancel, at](float f) {
            if (f >= at) cancel.request();
        };
        EXPECT_EQ(failure(files, cancelling, work.path), ErrorCode::cancelled) << "at " << at;
    }

    // A hole over the whole picture leaves nothing to sample from.
    Image const all = disc_mask({180, 180}, 90, 90, 400);
    write_image_file(folder.at("all.png"), "all.png", FileFormat::png, all.view());
    EXPECT_EQ(failure({files.image, folder.at("all.png"), files.output}, options, work.path),
              ErrorCode::hole_too_large);
    EXPECT_EQ(failure(files, options, folder.at("missing")), ErrorCode::output_failed);
    Options gain_bias = options;
    gain_bias.comparator = Comparator::gain_bias;
    EXPECT_EQ(failure(files, gain_bias, work.path), ErrorCode::invalid_input);

    // An empty hole copies the picture.
    Image const none = disc_mask({180, 180}, 0, 0, -1);
    write_image_file(folder.at("none.png"), "none.png", FileFormat::png, none.view());
    Files const copy{files.image, folder.at("none.png"), folder.at("copy.png")};
    EXPECT_TRUE(fill_files(copy, options, work.path).hole_empty);
    EXPECT_TRUE(same_pixels(read_image_file(copy.image).image.view(),
                            read_image_file(copy.output).image.view()));

    Options tiny = options;
    tiny.memory_limit = 20 << 10;
    EXPECT_EQ(failure(files, tiny, work.path), ErrorCode::memory_limit);
    EXPECT_TRUE(work.names().empty());
}

}  // namespace
}  // namespace WM::host::test
