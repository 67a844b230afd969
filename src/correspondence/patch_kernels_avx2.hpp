// The AVX2 twins of the 8-bit colour translate kernels (patch_kernels.hpp):
// a 7-pixel row of three or four bytes per pixel is one 32-byte load, the
// same bytes the 16-byte kernels read in two. Integer sums are exact, so the
// results are those of the SSE2 and scalar forms, the bound tested after
// every row as they do. Defined in patch_kernels_avx2.cpp, the one kernel
// file built for AVX2; call them only when cpu_has_avx2() holds.
#pragma once

#include <weftmap/correspondence/patch_compare.hpp>
#include <weftmap/frame/export.hpp>

#include "frame/cpu_features.hpp"

#include <cstddef>
#include <type_traits>

namespace WM::kernels_avx2 {

// Pixels whose rows these kernels cover: 8-bit, three or four channels.
template <class Pixel>
constexpr bool covers =
    std::is_same_v<channel_base_t<Pixel>, unsigned char>&& num_channels_v<Pixel> >= 3;

#if defined(WEFTMAP_AVX2_KERNELS)
// Patches given by their first byte and row stride.
template <class Pixel>
distance_t<Pixel> translate_distance(unsigned char const* a, std::ptrdiff_t a_stride,
                                     unsigned char const* b, std::ptrdiff_t b_stride);
template <class Pixel>
distance_t<Pixel> translate_distance_bounded(unsigned char const* a, std::ptrdiff_t a_stride,
                                             unsigned char const* b, std::ptrdiff_t b_stride,
                                             distance_t<Pixel> best);

#define WEFTMAP_DECLARE_KERNELS_AVX2(P)                                              \
    extern template WEFTMAP_API distance_t<P> translate_distance<P>(                 \
        unsigned char const*, std::ptrdiff_t, unsigned char const*, std::ptrdiff_t); \
    extern template WEFTMAP_API distance_t<P> translate_distance_bounded<P>(         \
        unsigned char const*, std::ptrdiff_t, unsigned char const*, std::ptrdiff_t,  \
        distance_t<P>);
WEFTMAP_DECLARE_KERNELS_AVX2(rgb8_pixel_t)
WEFTMAP_DECLARE_KERNELS_AVX2(cmyk8_pixel_t)
#undef WEFTMAP_DECLARE_KERNELS_AVX2
#endif

}  // namespace WM::kernels_avx2
