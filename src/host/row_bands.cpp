// Row bands for fills of layered pictures, and the test of whether the rows
// around a hole are layered.
#include "hole_policy.hpp"

#include <weftmap/frame/debug_output.hpp>
#include <weftmap/host/errors.hpp>
#include <weftmap/host/hole_mask.hpp>
#include <weftmap/host/row_bands.hpp>

#include <algorithm>
#include <cstdlib>
#include <vector>

namespace WM::host {
namespace {

using detail::patch_reach;

// The library labels a patch at its top-left pixel; its centre is this far in.
constexpr std::ptrdiff_t patch_centre = 3;
// The surroundings measured, and the distance between neighbours compared.
constexpr int rim_width = 24;
constexpr std::ptrdiff_t step = 4;
// Rows must differ along themselves at most this share of down a column.
constexpr double layered_share = 0.9;
// Labels of bands away from the hole repeat with this period: 0 is unused.
constexpr std::ptrdiff_t label_count = 250;

// Band of row y, counted from the hole's top; negative above it.
std::ptrdiff_t band_of(std::ptrdiff_t y, std::ptrdiff_t top, std::ptrdiff_t height) {
    std::ptrdiff_t const d = y - top;
    return d >= 0 ? d / height : -((-d + height - 1) / height);
}

unsigned char label_of(std::ptrdiff_t band) {
    std::ptrdiff_t const wrapped = ((band % label_count) + label_count) % label_count;
    return static_cast<unsigned char>(wrapped + 1);
}

// rows_are_layered for a checked, non-empty hole.
bool layered(ConstImageView const& image, ConstImageView const& hole) {
    Image const bytes_image = converted(image, PixelFormat{Depth::u8, image.format.colour});
    ConstImageView const bytes = bytes_image.view();
    Image const grown_image = grow_hole(hole, rim_width);
    ConstImageView const grown = grown_image.view();
    int const channels = bytes.format.channels();
    auto difference = [&](std::ptrdiff_t x, std::ptrdiff_t y, std::ptrdiff_t u, std::ptrdiff_t v) {
        unsigned char const* a = bytes.pixel(x, y);
        unsigned char const* b = bytes.pixel(u, v);
        int sum = 0;
        for (int c = 0; c < channels; ++c) sum += std::abs(int(a[c]) - int(b[c]));
        return sum;
    };
    double along = 0.0, down = 0.0;
    std::size_t along_pairs = 0, down_pairs = 0;
    for (std::ptrdiff_t y = 0; y < bytes.height; ++y)
        for (std::ptrdiff_t x = 0; x < bytes.width; ++x) {
            if (grown.pixel(x, y)[0] == 0 || hole.pixel(x, y)[0] != 0) continue;
            if (x + step < bytes.width && hole.pixel(x + step, y)[0] == 0) {
                along += difference(x, y, x + step, y);
                ++along_pairs;
            }
            if (y + step < bytes.height && hole.pixel(x, y + step)[0] == 0) {
                down += difference(x, y, x, y + step);
                ++down_pairs;
            }
        }
    if (along_pairs == 0 || down_pairs == 0) return false;
    along /= double(along_pairs);
    down /= double(down_pairs);
    debug_log("row_bands: neighbours differ %.2f along a row, %.2f down a column\n", along, down);
    return along <= layered_share * down;
}

}  // namespace

bool rows_are_layered(ConstImageView const& image, ConstImageView const& hole) {
    detail::check_hole_of(image, hole);
    return !mask_bounds(hole).empty() && layered(image, hole);
}

Image row_bands(ConstImageView const& image, ConstImageView const& hole,
                ConstImageView const* sample) {
    detail::check_hole_of(image, hole);
    if (sample != nullptr && (sample->size() != image.size() || sample->format != mask_format))
        throw Error(ErrorCode::invalid_input,
                    "a sampling mask must be an 8-bit gray mask of the picture's size " +
                        size_text(image.size()));
    MaskBounds const r = mask_bounds(hole);
    if (r.empty() || r.left < patch_reach || r.right >= hole.width - patch_reach) return Image();
    if (!layered(image, hole)) return Image();
    std::ptrdiff_t const rows = r.bottom - r.top + 1;
    std::ptrdiff_t const height =
        std::max(least_band_height, (rows + bands_per_hole - 1) / bands_per_hole);

    // Every band the hole reaches needs at least as many places to sample
    // as it has hole pixels.
    std::ptrdiff_t const first = band_of(r.top, r.top, height);
    std::ptrdiff_t const last = band_of(r.bottom, r.top, height);
    std::vector<std::size_t> holes(std::size_t(last - first + 1)), places(holes.size());
    for (std::ptrdiff_t y = 0; y < hole.height; ++y) {
        std::ptrdiff_t const band = band_of(y, r.top, height);
        if (band < first || band > last) continue;
        auto const i = std::size_t(band - first);
        for (std::ptrdiff_t x = 0; x < hole.width; ++x) {
            if (hole.pixel(x, y)[0] != 0)
                ++holes[i];
            else if (sample == nullptr || sample->pixel(x, y)[0] != 0)
                ++places[i];
        }
    }
    for (std::size_t i = 0; i < holes.size(); ++i)
        if (places[i] < holes[i]) return Image();

    Image labels(mask_format, image.size());
    ImageView const out = labels.view();
    for (std::ptrdiff_t y = 0; y < out.height; ++y) {
        unsigned char const label = label_of(band_of(y + patch_centre, r.top, height));
        std::fill(out.pixel(0, y), out.pixel(0, y) + out.width, label);
    }
    return labels;
}

}  // namespace WM::host
