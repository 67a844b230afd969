// Patch comparators: how far a 7x7 patch of the target lies from one of the
// source. TranslatePatchCompare is the plain sum of squared differences;
// GainBiasPatchCompare first stretches the source patch around its mean so
// that its contrast approaches the target's. Comparators are resolved at
// compile time; the distance kernels that use them live with the engine.
#pragma once

#include <weftmap/correspondence/region_masks.hpp>
#include <weftmap/frame/client.hpp>
#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <limits>

namespace WM {

// Taken by the two-pass interface, which always compares by translation.
enum PatchCompareMode { PatchCompareTranslate = 0, PatchCompareGainBias = 1 };

namespace detail {

template <class Channel>
struct channel_distance;
template <>
struct channel_distance<unsigned char> {
    using type = int;
    using pixel = int_gray_pixel_t;
    static constexpr type sentinel = 0x7fffffff;
};
template <>
struct channel_distance<unsigned short> {
    using type = long long;
    using pixel = ll_gray_pixel_t;
    static constexpr type sentinel = 0x7fffffffffffffffLL;
};
template <>
struct channel_distance<float> {
    using type = float;
    using pixel = float_gray_pixel_t;
    // Bit pattern 0x7f7fffff.
    static constexpr type sentinel = std::numeric_limits<float>::max();
};

}  // namespace detail

// Distance type of a pixel type, its image pixel, and the value of a pair
// that is not allowed (also what a bounded kernel returns when it gives up).
// Distances are not normalised, and no root is taken.
template <class Pixel>
struct distance_traits : detail::channel_distance<channel_base_t<Pixel>> {};

template <class Pixel>
using distance_t = typename distance_traits<Pixel>::type;
template <class Pixel>
using distance_pixel_t = typename distance_traits<Pixel>::pixel;
// One double per channel of Pixel: the per-patch standard deviations.
template <class Pixel>
using deviation_pixel_t = gil::pixel<double, typename Pixel::layout_t>;

// The stateless interface that every comparator offers.
template <class Pixel>
class BasePatchCompare {
public:
    using pixel_t = Pixel;

    // The vector kernels cut row tails with the tail mask table.
    BasePatchCompare() { ensure_tail_mask_table(); }

    void set_timage(ConstView<Pixel> const&, int, RegionMasks*) {}
    void set_simage(ConstView<Pixel> const&, int) {}
    void unset_timage() {}
    void unset_simage() {}
    bool is_set() const { return true; }
    bool needs_transform() const { return false; }
    bool can_propagate_fast() const { return true; }
    void preallocate_buffers(Point const&, Point const&, Point const&, bool, bool, bool, bool,
                             bool) {}
};

// Plain sum of squared differences.
template <class Pixel>
class TranslatePatchCompare : public BasePatchCompare<Pixel> {
public:
    using pixel_t = Pixel;
};

// Gain g (held times gain_scale) and offset o of one channel of a patch pair:
// an adjusted source value is (float)s * g * (1/256) + o.
struct GainBias {
    float g;
    float o;
};

// Compares after stretching the source patch around its mean: the gain is
// the ratio of the patch deviations, clamped to [min_gain, max_gain]. The
// per-patch means and deviations of both images are kept in maps that
// set_timage and set_simage fill.
template <class Pixel>
class WEFTMAP_API GainBiasPatchCompare : public BasePatchCompare<Pixel> {
public:
    using pixel_t = Pixel;
    using deviation_t = deviation_pixel_t<Pixel>;

    // Requires preallocate_buffers; fills the target maps, skipping masked
    // positions.
    void set_timage(ConstView<Pixel> const& a, int patch_w, RegionMasks* mask);
    // Requires preallocate_buffers; fills the source maps.
    void set_simage(ConstView<Pixel> const& b, int patch_w);
    void unset_timage() { timage_set = false; }
    void unset_simage() { simage_set = false; }
    bool is_set() const { return timage_set && simage_set; }
    bool needs_transform() const { return true; }
    // A pair's gain depends on the pair, so a neighbour's distance says nothing.
    bool can_propagate_fast() const { return false; }

    // Reserves and locks the four maps at the per-axis maximum of `a` and
    // `b`; the third size and the flags are not used.
    void preallocate_buffers(Point const& a, Point const& b, Point const& c, bool, bool, bool, bool,
                             bool);
    // Releases the four maps.
    void deallocate_buffers();

    // Per patch position of `view` (inside get_abox, where `mask` is zero),
    // per channel: the mean (plus 0.5, truncated to the channel) and the
    // standard deviation of the patch_w x patch_w patch.
    void calc_mu_sigma(ConstView<Pixel> const& view, RecycledImage<Pixel>& mean,
                       RecycledImage<deviation_t>& deviation, int patch_w, RegionMasks* mask);

    // Gain and offset of `channel` for target patch (tx, ty) and source
    // patch (sx, sy).
    GainBias gain_bias(int tx, int ty, int sx, int sy, int channel) const {
        double const st = at(target_deviation, tx, ty, channel);
        double const ss = at(source_deviation, sx, sy, channel);
        double gain = ss == 0.0 ? 1.0 : st / ss;
        if (min_gain > gain) {
            gain = min_gain;
        } else if (gain > max_gain) {
            gain = max_gain;
        }
        float const g = static_cast<float>(gain * gain_scale);
        auto const tm = at(target_mean, tx, ty, channel);
        auto const sm = at(source_mean, sx, sy, channel);
        double bias;
        if constexpr (is_float_pixel_v<Pixel>) {
            bias = static_cast<double>(tm - sm);
        } else {
            bias = static_cast<double>(static_cast<int>(tm) - static_cast<int>(sm));
        }
        if (min_bias > bias) {
            bias = min_bias;
        } else if (bias > max_bias) {
            bias = max_bias;
        }
        float const o = static_cast<float>(
            bias + (1.0 - (1.0 / gain_scale) * static_cast<double>(g)) * static_cast<double>(sm));
        return GainBias{g, o};
    }

    // Writes the adjusted source patch (sx, sy), as matched to target patch
    // (tx, ty), into the 7x7 view `out`: computed in double, clamped to
    // [0, 255] and truncated to the channel type.
    void patch_transform(ConstView<Pixel> const& b, int sx, int sy, int tx, int ty,
                         View<Pixel> const& out) const;

    RecycledImage<Pixel> target_mean;
    RecycledImage<Pixel> source_mean;
    RecycledImage<deviation_t> target_deviation;
    RecycledImage<deviation_t> source_deviation;
    bool timage_set = false;
    bool simage_set = false;
    bool is_prealloc = false;
    double min_gain = 0.9;  // bits 0x3feccccccccccccd
    double max_gain = 1.3;  // bits 0x3ff4cccccccccccd
    // Both bias clamps are zero, so the bias term always vanishes; they stay
    // fields so that the formula keeps its shape.
    double min_bias = 256.0 * 0.0;
    double max_bias = 256.0 * 0.0;
    double bias_scale = 256.0;
    double gain_scale = 256.0;

private:
    template <class P>
    static auto at(RecycledImage<P> const& image, int x, int y, int channel) {
        return channel_value(const_view(image)(x, y), channel);
    }
};

}  // namespace WM
