// The one way the library runs a data-parallel pass: a BlockedRange over rows
// (or columns, or band numbers) handed to the threading runtime with the
// automatic partitioner under a fresh task group context.
#pragma once

#include <tbb/parallel_for.h>
#include <tbb/partitioner.h>
#include <tbb/task_group.h>

#include <algorithm>
#include <cstdint>

namespace WM {

class BlockedRange {
public:
    BlockedRange(int begin, int end, std::uint64_t grain)
        : end_(end), begin_(begin), grain_(grain) {}
    // Splitting constructor: `other` keeps the lower half.
    BlockedRange(BlockedRange& other, tbb::split)
        : end_(other.end_), begin_(other.mid()), grain_(other.grain_) {
        other.end_ = begin_;
    }

    int begin() const { return begin_; }
    int end() const { return end_; }
    std::uint64_t grain() const { return grain_; }
    bool empty() const { return !(begin_ < end_); }
    bool is_divisible() const {
        // The difference is formed in 32 bits, sign-extended and compared unsigned.
        auto const size = static_cast<std::int64_t>(static_cast<std::int32_t>(
            static_cast<std::uint32_t>(end_) - static_cast<std::uint32_t>(begin_)));
        return grain_ < static_cast<std::uint64_t>(size);
    }

private:
    int mid() const {
        auto const half =
            (static_cast<std::uint32_t>(end_) - static_cast<std::uint32_t>(begin_)) >> 1;
        return static_cast<int>(static_cast<std::uint32_t>(begin_) + half);
    }

    std::int32_t end_;
    std::int32_t begin_;
    std::uint64_t grain_;
};

// Rows per chunk for a pass whose rows are `width` pixels wide: chunks of
// about 1200 pixels, at least one row.
inline int grain_for_width(long long width) {
    auto const w = static_cast<std::int32_t>(width);
    return w > 0 ? std::max(1200 / w, 1) : 1;
}

// Runs `body(BlockedRange)` over [begin, end) with the given grain.
template <class Body>
void parallel_range(int begin, int end, int grain, Body const& body) {
    BlockedRange const range(begin, end, static_cast<std::uint64_t>(grain));
    if (range.empty()) return;
    tbb::task_group_context context;
    tbb::parallel_for(range, body, tbb::auto_partitioner(), context);
}

// Runs `body` over rows [begin, end) of a pass whose rows are `width` wide.
template <class Body>
void parallel_rows(int begin, int end, long long width, Body const& body) {
    parallel_range(begin, end, grain_for_width(width), body);
}

}  // namespace WM
