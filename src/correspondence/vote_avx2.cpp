// The AVX2 vote kernel. Only this file's functions carry the AVX2 target;
// nothing here is inline in a header, so no AVX2 code reaches the rest of
// the library. No FMA: a fused multiply-add would round differently.
#include "correspondence/vote_avx2.hpp"

#if defined(WEFTMAP_AVX2_KERNELS)

#include <immintrin.h>

#include <cstdint>
#include <cstring>

namespace WM::detail {
namespace {

#define WEFTMAP_AVX2 __attribute__((target("avx2")))

// Four consecutive channel values as doubles; every conversion is exact.
WEFTMAP_AVX2 inline __m256d four_as_double(unsigned char const* p) {
    std::int32_t bits;
    std::memcpy(&bits, p, sizeof(bits));
    return _mm256_cvtepi32_pd(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(bits)));
}
WEFTMAP_AVX2 inline __m256d four_as_double(unsigned short const* p) {
    std::int64_t bits;
    std::memcpy(&bits, p, sizeof(bits));
    return _mm256_cvtepi32_pd(_mm_cvtepu16_epi32(_mm_cvtsi64_si128(bits)));
}
WEFTMAP_AVX2 inline __m256d four_as_double(float const* p) {
    return _mm256_cvtps_pd(_mm_loadu_ps(p));
}

// sums[0..3] += weight * values.
WEFTMAP_AVX2 inline void multiply_add4(double* sums, __m256d values, __m256d weight) {
    _mm256_storeu_pd(sums, _mm256_add_pd(_mm256_loadu_pd(sums), _mm256_mul_pd(weight, values)));
}

template <class Pixel>
WEFTMAP_AVX2 void add_votes_wide(accumulator_pixel_t<Pixel>* acc, Pixel const* src, int count,
                                 double weight) {
    using Channel = channel_base_t<Pixel>;
    constexpr int n = num_channels_v<Pixel>;
    __m256d const w = _mm256_set1_pd(weight);
    for (int i = 0; i < count; ++i) {
        double* const sums = &acc[i][0];
        auto const* const c = reinterpret_cast<Channel const*>(&src[i]);
        if constexpr (n == 3) {
            // Channels and the weight slot's 1. Inside the row the fourth
            // lane reads the next pixel's first channel and is replaced.
            __m256d const values =
                i + 1 < count ? _mm256_blend_pd(four_as_double(c), _mm256_set1_pd(1.0), 0x8)
                              : _mm256_set_pd(1.0, static_cast<double>(c[2]),
                                              static_cast<double>(c[1]), static_cast<double>(c[0]));
            multiply_add4(sums, values, w);
        } else if constexpr (n == 4) {
            multiply_add4(sums, four_as_double(c), w);
            sums[4] += weight * 1.0;
        } else {
            static_assert(n == 1, "a pixel of one, three or four channels");
            __m128d const values = _mm_set_pd(1.0, static_cast<double>(c[0]));
            _mm_storeu_pd(sums, _mm_add_pd(_mm_loadu_pd(sums),
                                           _mm_mul_pd(_mm256_castpd256_pd128(w), values)));
        }
    }
}

}  // namespace

// The declared entry keeps the default target (a second target on the same
// function would make it a multiversioned one) and hands over.
template <class Pixel>
void add_votes_avx2(accumulator_pixel_t<Pixel>* acc, Pixel const* src, int count, double weight) {
    add_votes_wide(acc, src, count, weight);
}

#define WEFTMAP_INSTANTIATE_ADD_VOTES_AVX2(P) \
    template WEFTMAP_API void add_votes_avx2(accumulator_pixel_t<P>*, P const*, int, double);
WEFTMAP_FOR_EACH_PIXEL(WEFTMAP_INSTANTIATE_ADD_VOTES_AVX2)

}  // namespace WM::detail

#endif
