// The low-memory vote's view of one patch row: the seven patches whose
// columns cover one pixel column, as the column kernels read them.
#pragma once

#include <weftmap/image/pixel_types.hpp>

#include <cstddef>

namespace WM::detail {

// Patches px = x - 6 .. x of one patch row, oldest first: patch k covers
// column x with its pixel 6 - k. Each entry is stored twice, at slot s and
// s + 7, so that the current seven are contiguous from `oldest` without a
// wrap. A patch that does not vote reads a row of zeros with weight zero:
// every sum it meets gains 0 * 0 = +0, which leaves the sum as it is
// (a sum is never -0: it starts at +0 and round-to-nearest gives -0 only
// for -0 + -0), so the kernels need no test per patch. Which of the seven
// are silent is kept too: a column whose seven are all silent is skipped,
// and one with none has a single row step for all of them.
template <class Pixel>
class VoteWindow {
public:
    VoteWindow() {
        for (auto& p : zeros_) p = Pixel(0);
        clear();
    }
    // Silent entries point into the window itself.
    VoteWindow(VoteWindow const&) = delete;
    VoteWindow& operator=(VoteWindow const&) = delete;

    // Every entry silent, as at the start of a patch row.
    void clear() {
        for (int e = 0; e < 14; ++e) set(e, zeros_, 0, 0.0);
        newest_ = 6;
        oldest = 0;
        silent_ = all_seven;
    }

    // The slot the next entry takes; a caller that builds the patch in its
    // own buffer uses one buffer per slot.
    int next_slot() const { return newest_ == 6 ? 0 : newest_ + 1; }

    // Moves on by one patch: the oldest leaves, `origin` (its top-left
    // pixel, rows `row_bytes` apart) enters as the newest. All patches
    // pushed between two clears have the same `row_bytes`.
    void push(Pixel const* origin, std::ptrdiff_t row_bytes, double weight) {
        enter(origin, row_bytes, weight);
        silent_ = (silent_ << 1) & all_seven;
    }
    void push_silent() {
        enter(zeros_, 0, 0.0);
        silent_ = ((silent_ << 1) | 1u) & all_seven;
    }

    bool all_silent() const { return silent_ == all_seven; }
    bool none_silent() const { return silent_ == 0; }

    // Row j of entry e.
    Pixel const* row(int e, int j) const {
        return reinterpret_cast<Pixel const*>(reinterpret_cast<char const*>(origin[e]) +
                                              j * row_bytes[e]);
    }

    Pixel const* origin[14];
    std::ptrdiff_t row_bytes[14];
    double weight[14];
    int oldest;  // the current entries are oldest .. oldest + 6

private:
    static constexpr unsigned all_seven = 0x7fu;

    void enter(Pixel const* o, std::ptrdiff_t step, double w) {
        newest_ = next_slot();
        set(newest_, o, step, w);
        set(newest_ + 7, o, step, w);
        oldest = newest_ + 1;
    }
    void set(int e, Pixel const* o, std::ptrdiff_t step, double w) {
        origin[e] = o;
        row_bytes[e] = step;
        weight[e] = w;
    }

    Pixel zeros_[7];  // the row every silent patch reads
    int newest_;
    unsigned silent_;  // bit i: the entry i places before the newest is silent
};

}  // namespace WM::detail
