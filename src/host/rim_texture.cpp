// A fill's hole rebuilt from blocks of the even texture around it, when the
// fill came out much smoother than that texture.
#include <weftmap/frame/debug_output.hpp>
#include <weftmap/host/errors.hpp>
#include <weftmap/host/hole_mask.hpp>
#include <weftmap/host/rim_texture.hpp>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace WM::host {
namespace {

// Blocks of block x block pixels, placed every `step` pixels so that each
// overlaps the ones before it by a third.
constexpr int block = 12;
constexpr int step = 8;
// The rim whose texture is measured, and the radii of the local means that
// separate grain (within 2 pixels) from shading (within 4).
constexpr int rim_width = 16;
constexpr int grain_radius = 2;
constexpr int shading_radius = 4;
// The hole is rebuilt when its grain is below this share of the rim's, and
// the rim is even: its shading varies less than this many times its grain.
constexpr double smoother_than = 0.5;
constexpr double evenness = 2.5;
// Blocks come from at most this far from the hole's box.
constexpr std::ptrdiff_t reach = 80;
// Weight of the fill's colours beside the pixels in place: enough to follow
// the fill's shading, too little to pull the grain towards its smoothness.
constexpr double shading_weight = 0.05;
// Blocks within this share of the best cost are equally good; one is drawn.
constexpr double near_best = 0.1;
// Candidate blocks per placed block, and block pairs compared in all: the
// work stays bounded for large holes, which then get fewer candidates.
constexpr std::size_t most_candidates = 8000;
constexpr std::size_t least_candidates = 200;
constexpr double comparisons = 1.0e6;
constexpr unsigned draw_seed = 1;

struct Box {
    std::ptrdiff_t x0, y0, x1, y1;  // x1, y1 one past
    std::ptrdiff_t width() const { return x1 - x0; }
    std::ptrdiff_t height() const { return y1 - y0; }
};

// A window of a picture as floats from 0 to 1, channels interleaved.
struct Planes {
    std::ptrdiff_t width = 0, height = 0;
    int channels = 0;
    std::vector<float> values;

    float const* at(std::ptrdiff_t x, std::ptrdiff_t y) const {
        return &values[static_cast<std::size_t>((y * width + x) * channels)];
    }
    float* at(std::ptrdiff_t x, std::ptrdiff_t y) {
        return &values[static_cast<std::size_t>((y * width + x) * channels)];
    }
};

Planes planes_of(ConstImageView const& window) {
    Planes p{window.width, window.height, window.format.channels(), {}};
    p.values.resize(static_cast<std::size_t>(p.width * p.height * p.channels));
    convert(window, ImageView(reinterpret_cast<unsigned char*>(p.values.data()),
                              PixelFormat{Depth::f32, window.format.colour}, p.width, p.height));
    return p;
}

// The mean of each channel over the (2r+1)^2 box around (x, y), clipped to
// the window. Measures need it only near the hole, so it is not computed
// for the whole window.
void local_mean(Planes const& p, std::ptrdiff_t x, std::ptrdiff_t y, int r, double* mean) {
    std::ptrdiff_t const x0 = std::max<std::ptrdiff_t>(0, x - r), x1 = std::min(p.width, x + r + 1);
    std::ptrdiff_t const y0 = std::max<std::ptrdiff_t>(0, y - r),
                         y1 = std::min(p.height, y + r + 1);
    std::fill_n(mean, p.channels, 0.0);
    for (std::ptrdiff_t v = y0; v < y1; ++v)
        for (std::ptrdiff_t u = x0; u < x1; ++u)
            for (int c = 0; c < p.channels; ++c) mean[c] += p.at(u, v)[c];
    auto const area = static_cast<double>((x1 - x0) * (y1 - y0));
    for (int c = 0; c < p.channels; ++c) mean[c] /= area;
}

// Mean over channels of a pixel's distance to its local mean.
double grain(Planes const& p, std::ptrdiff_t x, std::ptrdiff_t y) {
    double mean[4];
    local_mean(p, x, y, grain_radius, mean);
    double g = 0.0;
    for (int c = 0; c < p.channels; ++c) g += std::abs(p.at(x, y)[c] - mean[c]);
    return g / p.channels;
}

bool is_set(ConstImageView const& mask, std::ptrdiff_t x, std::ptrdiff_t y) {
    return mask.pixel(x, y)[0] != 0;
}

// Whether the hole's rim is one even texture and the fill much smoother.
bool smoother_than_rim(Planes const& image, Planes const& fill, ConstImageView const& hole) {
    Image const near = grow_hole(hole, rim_width);
    auto in_rim = [&](std::ptrdiff_t x, std::ptrdiff_t y) {
        return !is_set(hole, x, y) && is_set(near.view(), x, y);
    };
    double fill_grain = 0.0, rim_grain = 0.0;
    std::size_t inside = 0, rim = 0;
    for (std::ptrdiff_t y = 0; y < hole.height; ++y)
        for (std::ptrdiff_t x = 0; x < hole.width; ++x) {
            if (is_set(hole, x, y)) {
                fill_grain += grain(fill, x, y);
                ++inside;
            } else if (in_rim(x, y)) {
                rim_grain += grain(image, x, y);
                ++rim;
            }
        }
    if (inside == 0 || rim == 0) return false;
    fill_grain /= static_cast<double>(inside);
    rim_grain /= static_cast<double>(rim);
    debug_log("texture_like_rim: grain %.3f of the rim's\n", fill_grain / rim_grain);
    // A rim without grain (a flat wall) has no texture to give back.
    if (!(rim_grain > 1.0e-3 && fill_grain < smoother_than * rim_grain)) return false;

    std::vector<double> sum(static_cast<std::size_t>(image.channels));
    std::vector<double> squares(sum.size());
    for (std::ptrdiff_t y = 0; y < hole.height; ++y)
        for (std::ptrdiff_t x = 0; x < hole.width; ++x)
            if (in_rim(x, y)) {
                double shading[4];
                local_mean(image, x, y, shading_radius, shading);
                for (std::size_t c = 0; c < sum.size(); ++c) {
                    sum[c] += shading[c];
                    squares[c] += shading[c] * shading[c];
                }
            }
    double variance = 0.0;
    for (std::size_t c = 0; c < sum.size(); ++c) {
        double const mean = sum[c] / static_cast<double>(rim);
        variance += std::max(0.0, squares[c] / static_cast<double>(rim) - mean * mean);
    }
    double const spread = std::sqrt(variance);
    debug_log("texture_like_rim: shading %.3f times the rim's grain\n", spread / rim_grain);
    return spread < evenness * rim_grain;
}

// Top-left corners of the blocks that lie outside the hole and inside the
// sampling area, thinned evenly to at most `most`.
std::vector<std::ptrdiff_t> candidate_blocks(ConstImageView const& hole,
                                             ConstImageView const* sample, std::size_t most) {
    std::ptrdiff_t const w = hole.width, h = hole.height;
    std::vector<std::int64_t> barred(static_cast<std::size_t>((w + 1) * (h + 1)));
    auto at = [&](std::ptrdiff_t x, std::ptrdiff_t y) -> std::int64_t& {
        return barred[static_cast<std::size_t>(y * (w + 1) + x)];
    };
    for (std::ptrdiff_t y = 0; y < h; ++y)
        for (std::ptrdiff_t x = 0; x < w; ++x) {
            bool const out = is_set(hole, x, y) || (sample != nullptr && !is_set(*sample, x, y));
            at(x + 1, y + 1) = out + at(x, y + 1) + at(x + 1, y) - at(x, y);
        }
    std::vector<std::ptrdiff_t> corners;
    for (std::ptrdiff_t y = 0; y + block <= h; ++y)
        for (std::ptrdiff_t x = 0; x + block <= w; ++x)
            if (at(x + block, y + block) - at(x, y + block) - at(x + block, y) + at(x, y) == 0)
                corners.push_back(y * w + x);
    if (corners.size() <= most) return corners;
    std::vector<std::ptrdiff_t> thinned;
    thinned.reserve(most);
    for (std::size_t i = 0; i < most; ++i) thinned.push_back(corners[i * corners.size() / most]);
    return thinned;
}

void check_inputs(ConstImageView const& image, ConstImageView const& hole,
                  ConstImageView const& fill, ConstImageView const* sample) {
    if (fill.format != image.format || fill.size() != image.size())
        throw Error(ErrorCode::invalid_input, "the fill is " + format_name(fill.format) + " " +
                                                  size_text(fill.size()) + " but the picture is " +
                                                  format_name(image.format) + " " +
                                                  size_text(image.size()));
    for (ConstImageView const* mask : {&hole, sample})
        if (mask != nullptr && (mask->format != mask_format || mask->size() != image.size()))
            throw Error(ErrorCode::invalid_input,
                        "a hole or sampling mask must be an 8-bit gray mask of the picture's "
                        "size " +
                            size_text(image.size()));
}

}  // namespace

Image texture_like_rim(ConstImageView const& image, ConstImageView const& hole,
                       ConstImageView const& fill, ConstImageView const* sample) {
    check_inputs(image, hole, fill, sample);
    Box hole_box{image.width, image.height, 0, 0};
    for (std::ptrdiff_t y = 0; y < hole.height; ++y)
        for (std::ptrdiff_t x = 0; x < hole.width; ++x)
            if (is_set(hole, x, y))
                hole_box = {std::min(hole_box.x0, x), std::min(hole_box.y0, y),
                            std::max(hole_box.x1, x + 1), std::max(hole_box.y1, y + 1)};
    if (hole_box.x1 <= hole_box.x0) return {};

    auto window = [&](std::ptrdiff_t margin) {
        return Box{std::max<std::ptrdiff_t>(0, hole_box.x0 - margin),
                   std::max<std::ptrdiff_t>(0, hole_box.y0 - margin),
                   std::min(image.width, hole_box.x1 + margin),
                   std::min(image.height, hole_box.y1 + margin)};
    };
    auto crop = [](ConstImageView const& v, Box const& b) {
        return v.crop(b.x0, b.y0, b.width(), b.height());
    };
    // The measures need the rim and the local means of its pixels.
    Box const near = window(rim_width + shading_radius);
    if (!smoother_than_rim(planes_of(crop(image, near)), planes_of(crop(fill, near)),
                           crop(hole, near)))
        return {};

    // Blocks come from a wider window around the hole.
    std::ptrdiff_t const margin =
        std::min(2 * std::max(hole_box.width(), hole_box.height()), reach) + block;
    Box const win = window(margin);
    ConstImageView const hole_w = crop(hole, win), image_w = crop(image, win);
    Planes const source = planes_of(image_w);
    Planes current = planes_of(crop(fill, win));

    // Blocks to place: a grid over the hole's box, started a step's overlap
    // before it so that the first row and column also meet known pixels.
    std::ptrdiff_t const bx0 = hole_box.x0 - win.x0 - (block - step);
    std::ptrdiff_t const by0 = hole_box.y0 - win.y0 - (block - step);
    std::ptrdiff_t const bx1 = hole_box.x1 - win.x0, by1 = hole_box.y1 - win.y0;
    double const placements = std::ceil(static_cast<double>(bx1 - bx0) / step) *
                              std::ceil(static_cast<double>(by1 - by0) / step);
    auto const allowed = static_cast<std::size_t>(comparisons / std::max(placements, 1.0));
    // A hole too large for the work allowed, or a window with too few
    // blocks to choose from, keeps the synthesis's result.
    if (allowed < least_candidates) return {};
    ConstImageView const sample_w = sample != nullptr ? crop(*sample, win) : ConstImageView();
    std::vector<std::ptrdiff_t> const candidates = candidate_blocks(
        hole_w, sample != nullptr ? &sample_w : nullptr, std::min(most_candidates, allowed));
    if (candidates.size() < least_candidates) return {};

    Image result = Image::copy_of(fill);
    std::ptrdiff_t const w = win.width();
    int const channels = source.channels;
    std::vector<bool> placed(static_cast<std::size_t>(w * win.height()));
    std::vector<double> costs(candidates.size());
    std::mt19937 draw(draw_seed);
    // A block's targets and weights, row by row, one float per channel:
    // each row of a candidate is then one run of floats in the window.
    std::ptrdiff_t const run = block * channels;
    std::vector<float> targets(static_cast<std::size_t>(block * run));
    std::vector<float> weights(targets.size());
    for (std::ptrdiff_t ty = by0; ty < by1; ty += step)
        for (std::ptrdiff_t tx = bx0; tx < bx1; tx += step) {
            std::ptrdiff_t const cx = std::clamp<std::ptrdiff_t>(tx, 0, w - block);
            std::ptrdiff_t const cy = std::clamp<std::ptrdiff_t>(ty, 0, win.height() - block);
            // Pixels in place must be matched; open hole pixels only follow
            // the fill's shading.
            bool open = false;
            for (std::ptrdiff_t j = 0; j < block; ++j)
                for (std::ptrdiff_t i = 0; i < block; ++i) {
                    std::ptrdiff_t const x = cx + i, y = cy + j;
                    bool const known = !is_set(hole_w, x, y);
                    bool const fixed = known || placed[static_cast<std::size_t>(y * w + x)];
                    open |= !fixed;
                    float const* target = known ? source.at(x, y) : current.at(x, y);
                    auto const at = static_cast<std::size_t>(j * run + i * channels);
                    std::copy_n(target, channels, &targets[at]);
                    std::fill_n(&weights[at], channels,
                                fixed ? 1.0f : static_cast<float>(shading_weight));
                }
            if (!open) continue;
            tbb::parallel_for(
                tbb::blocked_range<std::size_t>(0, candidates.size()),
                [&](tbb::blocked_range<std::size_t> const& range) {
                    for (std::size_t k = range.begin(); k != range.end(); ++k) {
                        float const* corner =
                            &source.values[static_cast<std::size_t>(candidates[k] * channels)];
                        double cost = 0.0;
                        for (std::ptrdiff_t j = 0; j < block; ++j) {
                            float const* s = corner + j * w * channels;
                            float const* t = &targets[static_cast<std::size_t>(j * run)];
                            float const* u = &weights[static_cast<std::size_t>(j * run)];
                            float row = 0.0f;
                            for (std::ptrdiff_t i = 0; i < run; ++i) {
                                float const e = s[i] - t[i];
                                row += u[i] * e * e;
                            }
                            cost += row;
                        }
                        costs[k] = cost;
                    }
                });
            double const best = *std::min_element(costs.begin(), costs.end());
            std::vector<std::size_t> good;
            for (std::size_t k = 0; k < costs.size(); ++k)
                if (costs[k] <= best * (1.0 + near_best)) good.push_back(k);
            // None is good only when costs are not numbers; take the first.
            std::ptrdiff_t const chosen = candidates[good.empty() ? 0 : good[draw() % good.size()]];
            std::ptrdiff_t const sx = chosen % w, sy = chosen / w;

            // The block's pixels are copied as they are into the open part.
            auto const bytes = static_cast<std::size_t>(image.format.pixel_bytes());
            for (std::ptrdiff_t j = 0; j < block; ++j)
                for (std::ptrdiff_t i = 0; i < block; ++i) {
                    std::ptrdiff_t const x = cx + i, y = cy + j;
                    auto const at = static_cast<std::size_t>(y * w + x);
                    if (!is_set(hole_w, x, y) || placed[at]) continue;
                    std::memcpy(result.view().pixel(win.x0 + x, win.y0 + y),
                                image_w.pixel(sx + i, sy + j), bytes);
                    std::copy_n(source.at(sx + i, sy + j), channels, current.at(x, y));
                    placed[at] = true;
                }
        }
    return result;
}

}  // namespace WM::host
