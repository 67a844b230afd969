// The AVX2 twins of add_votes and add_column_votes (vote_impl.hpp): each
// accumulator pixel gets the same multiply and the same add per lane, in
// the same order, four lanes at a time, so every sum is bit-identical to
// the SSE2 and scalar forms. Defined in vote_avx2.cpp, the one vote file
// built for AVX2; call them only when cpu_has_avx2() holds.
#pragma once

#include <weftmap/correspondence/vote.hpp>
#include <weftmap/frame/export.hpp>

#include "correspondence/vote_window.hpp"
#include "frame/cpu_features.hpp"

#include <cstddef>

namespace WM::detail {

#if defined(WEFTMAP_AVX2_KERNELS)
template <class Pixel>
void add_votes_avx2(accumulator_pixel_t<Pixel>* acc, Pixel const* src, int count, double weight);

template <class Pixel>
void add_column_votes_avx2(accumulator_pixel_t<Pixel>* const* rows, std::ptrdiff_t column,
                           VoteWindow<Pixel> const& window);

#define WEFTMAP_DECLARE_ADD_VOTES_AVX2(P)                                                   \
    extern template WEFTMAP_API void add_votes_avx2(accumulator_pixel_t<P>*, P const*, int, \
                                                    double);                                \
    extern template WEFTMAP_API void add_column_votes_avx2(accumulator_pixel_t<P>* const*,  \
                                                           std::ptrdiff_t, VoteWindow<P> const&);
WEFTMAP_FOR_EACH_PIXEL(WEFTMAP_DECLARE_ADD_VOTES_AVX2)
#undef WEFTMAP_DECLARE_ADD_VOTES_AVX2
#endif

}  // namespace WM::detail
