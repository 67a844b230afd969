// The AVX2 distance kernels. Only this file's functions carry the AVX2
// target, and none is inline in a header, so no AVX2 code reaches the rest
// of the library.
#include "correspondence/patch_kernels_avx2.hpp"

#if defined(WEFTMAP_AVX2_KERNELS)

#include "frame/wrapping.hpp"

#include <immintrin.h>

namespace WM::kernels_avx2 {
namespace {

#define WEFTMAP_AVX2 __attribute__((target("avx2")))

constexpr int patch_size = 7;

// 32 bytes of 0xFF then 32 of 0: a load at (32 - n) keeps the first n bytes.
alignas(32) unsigned char const keep_table[64] = {
    255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255,
    255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255, 255};

// Squared differences of one patch row, in eight 32-bit lanes: absolute
// byte differences, widened to 16 bits, squared and paired by a
// multiply-add. Bytes past the row are cut by `keep`.
WEFTMAP_AVX2 inline __m256i row_squares(unsigned char const* a, unsigned char const* b,
                                        __m256i keep) {
    __m256i const va = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(a));
    __m256i const vb = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(b));
    __m256i const d =
        _mm256_and_si256(_mm256_or_si256(_mm256_subs_epu8(va, vb), _mm256_subs_epu8(vb, va)), keep);
    __m256i const zero = _mm256_setzero_si256();
    __m256i const lo = _mm256_unpacklo_epi8(d, zero);
    __m256i const hi = _mm256_unpackhi_epi8(d, zero);
    return _mm256_add_epi32(_mm256_madd_epi16(lo, lo), _mm256_madd_epi16(hi, hi));
}

WEFTMAP_AVX2 inline int lane_sum(__m256i v) {
    __m128i s = _mm_add_epi32(_mm256_castsi256_si128(v), _mm256_extracti128_si256(v, 1));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(1, 0, 3, 2)));
    s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(2, 3, 0, 1)));
    return _mm_cvtsi128_si32(s);
}

template <class Pixel>
WEFTMAP_AVX2 __m256i row_keep() {
    constexpr int bytes = patch_size * num_channels_v<Pixel>;
    static_assert(bytes <= 32, "a patch row fits one load");
    return _mm256_loadu_si256(reinterpret_cast<__m256i const*>(keep_table + 32 - bytes));
}

template <class Pixel>
WEFTMAP_AVX2 int full_distance(unsigned char const* a, std::ptrdiff_t a_stride,
                               unsigned char const* b, std::ptrdiff_t b_stride) {
    __m256i const keep = row_keep<Pixel>();
    __m256i sum = _mm256_setzero_si256();
    for (int r = 0; r < patch_size; ++r)
        sum = _mm256_add_epi32(sum, row_squares(a + r * a_stride, b + r * b_stride, keep));
    return lane_sum(sum);
}

// As the 16-byte form: the accumulator starts at -best and the candidate
// is given up once a row takes it above zero.
template <class Pixel>
WEFTMAP_AVX2 int bounded_distance(unsigned char const* a, std::ptrdiff_t a_stride,
                                  unsigned char const* b, std::ptrdiff_t b_stride, int best) {
    __m256i const keep = row_keep<Pixel>();
    int acc = wrap_sub(0, best);
    for (int r = 0; r < patch_size; ++r) {
        acc = wrap_add(acc, lane_sum(row_squares(a + r * a_stride, b + r * b_stride, keep)));
        if (acc > 0) return distance_traits<Pixel>::sentinel;
    }
    return wrap_add(acc, best);
}

}  // namespace

// The declared entries keep the default target (a second target on the same
// function would make it a multiversioned one) and hand over.
template <class Pixel>
distance_t<Pixel> translate_distance(unsigned char const* a, std::ptrdiff_t a_stride,
                                     unsigned char const* b, std::ptrdiff_t b_stride) {
    return full_distance<Pixel>(a, a_stride, b, b_stride);
}

template <class Pixel>
distance_t<Pixel> translate_distance_bounded(unsigned char const* a, std::ptrdiff_t a_stride,
                                             unsigned char const* b, std::ptrdiff_t b_stride,
                                             distance_t<Pixel> best) {
    return bounded_distance<Pixel>(a, a_stride, b, b_stride, best);
}

#define WEFTMAP_INSTANTIATE_KERNELS_AVX2(P)                                          \
    template WEFTMAP_API distance_t<P> translate_distance<P>(                        \
        unsigned char const*, std::ptrdiff_t, unsigned char const*, std::ptrdiff_t); \
    template WEFTMAP_API distance_t<P> translate_distance_bounded<P>(                \
        unsigned char const*, std::ptrdiff_t, unsigned char const*, std::ptrdiff_t,  \
        distance_t<P>);
WEFTMAP_INSTANTIATE_KERNELS_AVX2(rgb8_pixel_t)
WEFTMAP_INSTANTIATE_KERNELS_AVX2(cmyk8_pixel_t)

}  // namespace WM::kernels_avx2

#endif
