// How a host asks for a run: one options structure shared by every entry
// point of the kit, with progress reporting and a cancel flag.
#pragma once

#include <weftmap/host/export.hpp>
#include <weftmap/host/image.hpp>

#include <atomic>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace WM::host {

// The parameter presets of the recomposer.
enum class Mode { hole_fill, general, tapestry };

// "hole-fill", "default", "tapestry".
WEFTMAP_HOST_API char const* mode_name(Mode mode);
WEFTMAP_HOST_API std::optional<Mode> parse_mode(std::string_view name);

// How patches are compared: plain differences, or with a per-patch gain and
// bias correction.
enum class Comparator { translate, gain_bias };

// "translate", "gain-bias".
WEFTMAP_HOST_API char const* comparator_name(Comparator comparator);
WEFTMAP_HOST_API std::optional<Comparator> parse_comparator(std::string_view name);

// Raised from any thread, or from a signal handler, to stop a run; the run
// then throws Error (cancelled) within about a second.
class CancelFlag {
public:
    void request() noexcept { requested_.store(true, std::memory_order_relaxed); }
    bool requested() const noexcept { return requested_.load(std::memory_order_relaxed); }
    void reset() noexcept { requested_.store(false, std::memory_order_relaxed); }

private:
    std::atomic<bool> requested_{false};
    static_assert(std::atomic<bool>::is_always_lock_free);
};

// Growth of a fill's hole unless a host asks otherwise.
inline constexpr int default_hole_growth = 0;

struct Options {
    // Unset: hole-fill for fills, tapestry for retargeting.
    std::optional<Mode> mode;
    Comparator comparator = Comparator::translate;
    // Recomposer option strings, "-em_iters" -> "8", "-no_minnn" -> "".
    std::map<std::string, std::string> recomposer_options;
    // Unset: the library's fixed seed; 0 seeds from the clock.
    std::optional<long long> seed;
    // Bytes of image memory for the whole process (the library's limit is
    // process-wide); unset leaves the limit as it is.
    std::optional<unsigned long long> memory_limit;
    // Where patches may be taken from: a mask of the picture's size,
    // non-zero where sampling is allowed. Unset: everywhere outside the hole.
    std::optional<ConstImageView> sample;
    // Fills without `sample` take patches only where the picture has the
    // colours of the hole's rim (sampling_like_rim), so that a salient object
    // near the hole is not pasted into it. False: everywhere outside the hole.
    bool sample_like_rim = true;
    // Fills whose hole borders on one even texture (grass, gravel) but came
    // out much smoother get the hole rebuilt from blocks of that texture
    // (texture_like_rim). False: the synthesis's result as it is.
    bool texture_like_rim = true;
    // Fills may also take patches mirrored left to right (mirrored_patches),
    // so that an object cut by the hole gets its hidden side back from the
    // side it shows. False: patches as the picture has them.
    bool mirrored_patches = true;
    // Fills of holes whose surroundings are layered in rows (planks, a
    // shore) and that are not mirrored take each band of the hole's rows
    // from the same rows of the picture (row_bands). False: from any rows.
    bool row_bands = true;
    // Fills grow the hole by this many pixels first (grow_hole), so that
    // the edge and halo of an object painted tightly go with it.
    int grow = default_hole_growth;
    // Retargeting only: an 8-bit gray mask of the picture's size marking
    // (non-zero) what should go first. No patch is taken from it, so it
    // leaves the picture instead of being moved or pasted elsewhere.
    std::optional<ConstImageView> remove;
    // Horizontal bands of the correspondence search, process-wide; -1 gives
    // one per core. With one band a run is reproducible.
    int bands = -1;
    // Scalar patch kernels instead of the vector ones (same results).
    bool scalar_kernels = false;
    // Fractions from 0 to 1, on the calling thread. An exception thrown from
    // it cancels the run and comes out of the entry point as it is.
    std::function<void(float)> progress;
    CancelFlag const* cancel = nullptr;
    // Told, on the calling thread before a run starts, what the run ignores:
    // unknown recomposer options, values given to flags. An exception thrown
    // from it comes out of the entry point as it is. Unset: not told.
    std::function<void(std::string const&)> warning;
};

// Checks options.recomposer_options against the options the recomposer
// knows: each value must be readable as its option's type and within the
// range that works, and the seed must fit the recomposer's. Throws Error
// (invalid_input) naming the option and what it takes; unknown keys and
// values given to flags go to options.warning. Every run of the kit makes
// this check first; hosts may call it earlier to refuse a command line.
WEFTMAP_HOST_API void check_recomposer_options(Options const& options);

// Refuses the gain-bias comparator for a run that votes with both fields:
// every retarget, and a fill whose mode or -bidir option votes both ways
// (the correction of a patch is known only for the target's own field).
// Throws Error (invalid_input) saying what works instead. Fills and
// retargets make this check first.
WEFTMAP_HOST_API void check_comparator(Options const& options, bool retargeting);

}  // namespace WM::host
