// SSE2 row distances of the vector translate kernels: the squared
// differences of one 7-pixel patch row, summed. Every row is read in 16-byte
// loads; the last, partial load is cut with a row of the tail mask table.
// Included through patch_kernels.hpp.
#pragma once

#include <weftmap/correspondence/patch_compare.hpp>
#include <weftmap/frame/client.hpp>

#include <emmintrin.h>

namespace WM::kernels_sse2 {

// The table row keeping the first `Bytes` bytes. The table is filled before
// any kernel runs; only its address is kept here.
template <int Bytes>
inline __m128i tail_mask_vector() {
    static unsigned char const* const row = tail_mask(Bytes);
    return _mm_loadu_si128(reinterpret_cast<__m128i const*>(row));
}

inline __m128i load(void const* p) {
    return _mm_loadu_si128(static_cast<__m128i const*>(p));
}

inline int sum_epi32(__m128i v) {
    v = _mm_add_epi32(v, _mm_shuffle_epi32(v, _MM_SHUFFLE(1, 0, 3, 2)));
    v = _mm_add_epi32(v, _mm_shuffle_epi32(v, _MM_SHUFFLE(2, 3, 0, 1)));
    return _mm_cvtsi128_si32(v);
}

template <class Pixel, class Channel = channel_base_t<Pixel>>
class RowDistance;

// 8-bit: absolute differences in bytes (which saves widening both
// operands), widened to 16 bits, then squared and paired with a
// multiply-add into 32-bit lanes.
template <class Pixel>
class RowDistance<Pixel, unsigned char> {
    static constexpr int bytes = 7 * num_channels_v<Pixel>;
    static constexpr int full = bytes / 16;
    static constexpr int tail = bytes % 16;

public:
    RowDistance() : mask_(tail_mask_vector<tail>()) {}

    int operator()(unsigned char const* a, unsigned char const* b) const {
        __m128i const zero = _mm_setzero_si128();
        __m128i sum = zero;
        for (int k = 0; k < full; ++k) {
            __m128i const d = absdiff(load(a + 16 * k), load(b + 16 * k));
            __m128i const lo = _mm_unpacklo_epi8(d, zero);
            __m128i const hi = _mm_unpackhi_epi8(d, zero);
            sum = _mm_add_epi32(sum, _mm_add_epi32(_mm_madd_epi16(lo, lo), _mm_madd_epi16(hi, hi)));
        }
        if constexpr (tail > 0) {
            __m128i const d =
                _mm_and_si128(absdiff(load(a + 16 * full), load(b + 16 * full)), mask_);
            __m128i const lo = _mm_unpacklo_epi8(d, zero);
            sum = _mm_add_epi32(sum, _mm_madd_epi16(lo, lo));
            if constexpr (tail > 8) {
                __m128i const hi = _mm_unpackhi_epi8(d, zero);
                sum = _mm_add_epi32(sum, _mm_madd_epi16(hi, hi));
            }
        }
        return sum_epi32(sum);
    }

private:
    static __m128i absdiff(__m128i a, __m128i b) {
        return _mm_or_si128(_mm_subs_epu8(a, b), _mm_subs_epu8(b, a));
    }

    __m128i mask_;
};

// 16-bit: absolute differences, squared into 32-bit products, summed in two
// 64-bit lanes.
template <class Pixel>
class RowDistance<Pixel, unsigned short> {
    static constexpr int bytes = 14 * num_channels_v<Pixel>;
    static constexpr int full = bytes / 16;
    static constexpr int tail = bytes % 16;

public:
    RowDistance() : mask_(tail_mask_vector<tail>()) {}

    long long operator()(unsigned short const* a, unsigned short const* b) const {
        __m128i sum = _mm_setzero_si128();
        for (int k = 0; k < full; ++k) sum = add_squares<16>(sum, absdiff(a + 8 * k, b + 8 * k));
        if constexpr (tail > 0)
            sum = add_squares<tail>(sum, _mm_and_si128(absdiff(a + 8 * full, b + 8 * full), mask_));
        sum = _mm_add_epi64(sum, _mm_unpackhi_epi64(sum, sum));
        return _mm_cvtsi128_si64(sum);
    }

private:
    static __m128i absdiff(unsigned short const* a, unsigned short const* b) {
        __m128i const va = load(a);
        __m128i const vb = load(b);
        return _mm_or_si128(_mm_subs_epu16(va, vb), _mm_subs_epu16(vb, va));
    }

    // Adds the squares of the first Bytes / 2 lanes of `d`.
    template <int Bytes>
    static __m128i add_squares(__m128i sum, __m128i d) {
        __m128i const low32 = _mm_set_epi32(0, -1, 0, -1);
        __m128i const lo = _mm_mullo_epi16(d, d);
        __m128i const hi = _mm_mulhi_epu16(d, d);
        __m128i const p0 = _mm_unpacklo_epi16(lo, hi);
        sum = _mm_add_epi64(sum, _mm_and_si128(p0, low32));
        sum = _mm_add_epi64(sum, _mm_srli_epi64(p0, 32));
        if constexpr (Bytes > 8) {
            __m128i const p1 = _mm_unpackhi_epi16(lo, hi);
            sum = _mm_add_epi64(sum, _mm_and_si128(p1, low32));
            sum = _mm_add_epi64(sum, _mm_srli_epi64(p1, 32));
        }
        return sum;
    }

    __m128i mask_;
};

// Float: squares summed in four lanes, the lanes added in the order 1, 0, 2,
// 3. No 65025 unit here.
template <class Pixel>
class RowDistance<Pixel, float> {
    static constexpr int floats = 7 * num_channels_v<Pixel>;
    static constexpr int full = floats / 4;
    static constexpr int tail = floats % 4;

public:
    RowDistance() : mask_(_mm_castsi128_ps(tail_mask_vector<4 * tail>())) {}

    float operator()(float const* a, float const* b) const {
        __m128 lanes = square(_mm_sub_ps(_mm_loadu_ps(a), _mm_loadu_ps(b)));
        for (int k = 1; k < full; ++k)
            lanes = _mm_add_ps(
                lanes, square(_mm_sub_ps(_mm_loadu_ps(a + 4 * k), _mm_loadu_ps(b + 4 * k))));
        if constexpr (tail > 0) {
            __m128 const d = _mm_and_ps(
                _mm_sub_ps(_mm_loadu_ps(a + 4 * full), _mm_loadu_ps(b + 4 * full)), mask_);
            lanes = _mm_add_ps(lanes, square(d));
        }
        __m128 s = _mm_add_ss(_mm_shuffle_ps(lanes, lanes, _MM_SHUFFLE(1, 1, 1, 1)), lanes);
        s = _mm_add_ss(s, _mm_movehl_ps(lanes, lanes));
        s = _mm_add_ss(s, _mm_shuffle_ps(lanes, lanes, _MM_SHUFFLE(3, 3, 3, 3)));
        return _mm_cvtss_f32(s);
    }

private:
    static __m128 square(__m128 d) { return _mm_mul_ps(d, d); }

    __m128 mask_;
};

}  // namespace WM::kernels_sse2
