// The AVX2 vote kernels. Only this file's functions carry the AVX2 target;
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

// The last pixel of a patch row, its three channels and the weight slot's 1.
// The channels are read from one channel earlier, so that no load passes
// the end of the row.
WEFTMAP_AVX2 inline __m256d with_one(__m256d values) {
    return _mm256_blend_pd(values, _mm256_set1_pd(1.0), 0x8);
}
WEFTMAP_AVX2 inline __m256d last_three_and_one(unsigned char const* c) {
    std::uint32_t bits;
    std::memcpy(&bits, c - 1, sizeof(bits));
    return with_one(
        _mm256_cvtepi32_pd(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(static_cast<int>(bits >> 8)))));
}
WEFTMAP_AVX2 inline __m256d last_three_and_one(unsigned short const* c) {
    std::uint64_t bits;
    std::memcpy(&bits, c - 1, sizeof(bits));
    return with_one(_mm256_cvtepi32_pd(
        _mm_cvtepu16_epi32(_mm_cvtsi64_si128(static_cast<long long>(bits >> 16)))));
}
WEFTMAP_AVX2 inline __m256d last_three_and_one(float const* c) {
    __m128 const v = _mm_loadu_ps(c - 1);
    return with_one(_mm256_cvtps_pd(_mm_shuffle_ps(v, v, _MM_SHUFFLE(3, 3, 2, 1))));
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

template <class Channel>
WEFTMAP_AVX2 inline Channel const* next_row(Channel const* p, std::ptrdiff_t row_bytes) {
    return reinterpret_cast<Channel const*>(reinterpret_cast<char const*>(p) + row_bytes);
}

// All seven rows of one accumulator column: row j sums the votes of the
// window's patches in order, in registers, and is stored once. With
// `SharedStep` no patch is silent and all rows are one step apart.
template <class Pixel, bool SharedStep>
WEFTMAP_AVX2 void add_column_votes_wide(accumulator_pixel_t<Pixel>* const* rows,
                                        std::ptrdiff_t column, VoteWindow<Pixel> const& window) {
    using Channel = channel_base_t<Pixel>;
    constexpr int n = num_channels_v<Pixel>;
    // Patch k's pixel 6 - k on the first row, its row step and its weight.
    Channel const* first[7];
    std::ptrdiff_t step[7];
    double weight[7];
    for (int k = 0; k < 7; ++k) {
        int const e = window.oldest + k;
        first[k] = reinterpret_cast<Channel const*>(window.origin[e] + (6 - k));
        step[k] = window.row_bytes[e];
        weight[k] = window.weight[e];
    }
    for (int j = 0; j < 7; ++j) {
        Channel const* src[7];
        for (int k = 0; k < 7; ++k)
            src[k] = next_row(first[k], j * (SharedStep ? step[0] : step[k]));
        double* const sums = &rows[j][column][0];
        if constexpr (n == 3) {
            // Inside the row the fourth lane reads the next pixel's first
            // channel and is replaced by the 1.
            __m256d acc = _mm256_loadu_pd(sums);
            acc = _mm256_add_pd(
                acc, _mm256_mul_pd(_mm256_set1_pd(weight[0]), last_three_and_one(src[0])));
            for (int k = 1; k < 7; ++k)
                acc = _mm256_add_pd(acc, _mm256_mul_pd(_mm256_set1_pd(weight[k]),
                                                       with_one(four_as_double(src[k]))));
            _mm256_storeu_pd(sums, acc);
        } else if constexpr (n == 4) {
            __m256d acc = _mm256_loadu_pd(sums);
            double total = sums[4];
            for (int k = 0; k < 7; ++k) {
                acc = _mm256_add_pd(
                    acc, _mm256_mul_pd(_mm256_set1_pd(weight[k]), four_as_double(src[k])));
                total += weight[k] * 1.0;
            }
            _mm256_storeu_pd(sums, acc);
            sums[4] = total;
        } else {
            static_assert(n == 1, "a pixel of one, three or four channels");
            __m128d acc = _mm_loadu_pd(sums);
            for (int k = 0; k < 7; ++k)
                acc = _mm_add_pd(acc, _mm_mul_pd(_mm_set1_pd(weight[k]),
                                                 _mm_set_pd(1.0, static_cast<double>(src[k][0]))));
            _mm_storeu_pd(sums, acc);
        }
    }
}

}  // namespace

// The declared entries keep the default target (a second target on the same
// function would make it a multiversioned one) and hand over.
template <class Pixel>
void add_votes_avx2(accumulator_pixel_t<Pixel>* acc, Pixel const* src, int count, double weight) {
    add_votes_wide(acc, src, count, weight);
}
template <class Pixel>
void add_column_votes_avx2(accumulator_pixel_t<Pixel>* const* rows, std::ptrdiff_t column,
                           VoteWindow<Pixel> const& window) {
    if (window.none_silent())
        add_column_votes_wide<Pixel, true>(rows, column, window);
    else
        add_column_votes_wide<Pixel, false>(rows, column, window);
}

#define WEFTMAP_INSTANTIATE_ADD_VOTES_AVX2(P)                                                 \
    template WEFTMAP_API void add_votes_avx2(accumulator_pixel_t<P>*, P const*, int, double); \
    template WEFTMAP_API void add_column_votes_avx2(accumulator_pixel_t<P>* const*,           \
                                                    std::ptrdiff_t, VoteWindow<P> const&);
WEFTMAP_FOR_EACH_PIXEL(WEFTMAP_INSTANTIATE_ADD_VOTES_AVX2)

}  // namespace WM::detail

#endif
