// The sampling area of a fill that the caller leaves open: colours of the
// hole's rim. A histogram of the rim's colours, coarsely quantised and
// widened, decides which pixels look like what the hole borders on.
#include <weftmap/host/hole_mask.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace WM::host {
namespace {

// Levels per channel of the palette, and how many levels either way a colour
// may differ from one of the rim's.
constexpr int levels = 16;
constexpr int tolerance = 3;
// The rim: pixels within this distance of the hole.
constexpr int rim_width = 6;
// Colours of fewer rim pixels than this share are stray (a few pixels of a
// neighbouring object touching the hole) and do not count.
constexpr double stray_share = 0.002;
// Specks of allowed pixels narrower than this are dropped: no patch fits.
constexpr int speck_radius = 2;
// Shares of the known pixels between which the area limits sampling.
constexpr double least_share = 0.6;
constexpr double most_share = 0.995;

// The palette index of every pixel, from its 8-bit copy.
std::vector<std::uint32_t> palette_indices(ConstImageView const& image) {
    Image const bytes = converted(image, PixelFormat{Depth::u8, image.format.colour});
    ConstImageView const v = bytes.view();
    int const channels = v.format.channels();
    std::vector<std::uint32_t> index(static_cast<std::size_t>(v.width * v.height));
    for (std::ptrdiff_t y = 0; y < v.height; ++y)
        for (std::ptrdiff_t x = 0; x < v.width; ++x) {
            unsigned char const* p = v.pixel(x, y);
            std::uint32_t i = 0;
            for (int c = 0; c < channels; ++c) i = i * levels + p[c] * levels / 256;
            index[static_cast<std::size_t>(y * v.width + x)] = i;
        }
    return index;
}

// Widens every non-zero bin of a histogram over `channels` axes of `levels`
// bins by `tolerance` bins along each axis.
std::vector<std::uint8_t> widen(std::vector<std::uint8_t> bins, int channels) {
    std::size_t stride = 1;
    for (int axis = 0; axis < channels; ++axis, stride *= levels) {
        std::vector<std::uint8_t> wider(bins.size());
        for (std::size_t i = 0; i < bins.size(); ++i) {
            if (bins[i] == 0) continue;
            auto const level = static_cast<int>(i / stride % levels);
            for (int d = -tolerance; d <= tolerance; ++d)
                if (level + d >= 0 && level + d < levels)
                    wider[i + static_cast<std::size_t>(d) * stride] = 1;
        }
        bins = std::move(wider);
    }
    return bins;
}

}  // namespace

Image sampling_like_rim(ConstImageView const& image, ConstImageView const& hole) {
    Image const near = grow_hole(hole, rim_width);
    std::vector<std::uint32_t> const index = palette_indices(image);
    int const channels = image.format.channels();
    std::size_t bin_count = 1;
    for (int c = 0; c < channels; ++c) bin_count *= levels;

    std::vector<std::uint32_t> counts(bin_count);
    std::size_t rim = 0, known = 0;
    for (std::ptrdiff_t y = 0; y < image.height; ++y)
        for (std::ptrdiff_t x = 0; x < image.width; ++x) {
            if (hole.pixel(x, y)[0] != 0) continue;
            ++known;
            if (near.view().pixel(x, y)[0] == 0) continue;
            ++counts[index[static_cast<std::size_t>(y * image.width + x)]];
            ++rim;
        }
    if (rim == 0) return {};
    std::vector<std::uint8_t> bins(bin_count);
    for (std::size_t i = 0; i < bin_count; ++i)
        bins[i] = static_cast<double>(counts[i]) >= stray_share * static_cast<double>(rim);
    bins = widen(std::move(bins), channels);

    // Pixels of other colours and the hole are left out; so are specks of
    // the palette too small to hold a patch (the palette's pixels shrunk,
    // then grown back).
    Image left_out(mask_format, image.size());
    for (std::ptrdiff_t y = 0; y < image.height; ++y)
        for (std::ptrdiff_t x = 0; x < image.width; ++x)
            *left_out.view().pixel(x, y) =
                bins[index[static_cast<std::size_t>(y * image.width + x)]] != 0 ? 0 : 255;
    Image const shrunk = sampling_outside(grow_hole(left_out.view(), speck_radius).view());
    Image const opened = grow_hole(shrunk.view(), speck_radius);
    Image area(mask_format, image.size());
    std::size_t allowed = 0;
    for (std::ptrdiff_t y = 0; y < image.height; ++y)
        for (std::ptrdiff_t x = 0; x < image.width; ++x) {
            bool const ok = opened.view().pixel(x, y)[0] != 0 && hole.pixel(x, y)[0] == 0;
            *area.view().pixel(x, y) = ok ? 255 : 0;
            allowed += ok;
        }
    double const share =
        static_cast<double>(allowed) / static_cast<double>(std::max<std::size_t>(known, 1));
    if (share < least_share || share > most_share) return {};
    return area;
}

}  // namespace WM::host
