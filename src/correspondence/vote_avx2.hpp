// The AVX2 twin of add_votes (vote_impl.hpp): each accumulator pixel gets
// the same multiply and the same add per lane, four lanes at a time, so
// every sum is bit-identical to the SSE2 and scalar forms. Defined in
// vote_avx2.cpp, the one vote file built for AVX2; call it only when
// cpu_has_avx2() holds.
#pragma once

#include <weftmap/correspondence/vote.hpp>
#include <weftmap/frame/export.hpp>

#include "frame/cpu_features.hpp"

namespace WM::detail {

#if defined(WEFTMAP_AVX2_KERNELS)
template <class Pixel>
void add_votes_avx2(accumulator_pixel_t<Pixel>* acc, Pixel const* src, int count, double weight);

#define WEFTMAP_DECLARE_ADD_VOTES_AVX2(P) \
    extern template WEFTMAP_API void add_votes_avx2(accumulator_pixel_t<P>*, P const*, int, double);
WEFTMAP_FOR_EACH_PIXEL(WEFTMAP_DECLARE_ADD_VOTES_AVX2)
#undef WEFTMAP_DECLARE_ADD_VOTES_AVX2
#endif

}  // namespace WM::detail
