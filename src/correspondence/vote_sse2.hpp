// sums[k] += weight * values[k] for a handful of doubles, two at a time.
// Each lane performs the same multiply and add as the scalar loop, so the
// results are bit-identical.
#pragma once

#include <emmintrin.h>

namespace WM::detail {

template <int Count>
inline void multiply_add(double* sums, double const* values, double weight) {
    __m128d const w = _mm_set1_pd(weight);
    int k = 0;
    // The values are paired in registers: they were just written as single
    // doubles, and a 16-byte load of two fresh 8-byte stores stalls.
    for (; k + 2 <= Count; k += 2)
        _mm_storeu_pd(sums + k, _mm_add_pd(_mm_loadu_pd(sums + k),
                                           _mm_mul_pd(w, _mm_set_pd(values[k + 1], values[k]))));
    if constexpr (Count % 2 != 0) sums[k] += weight * values[k];
}

}  // namespace WM::detail
