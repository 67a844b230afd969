// Plain C++ row distances with exactly the results of the SSE2 ones, for
// builds without SSE2: integer rows are exact sums, float rows keep the
// four-lane layout and the lane order 1, 0, 2, 3. Included through
// patch_kernels.hpp.
#pragma once

#include <weftmap/correspondence/patch_compare.hpp>

namespace WM::kernels_portable {

template <class Pixel, class Channel = channel_base_t<Pixel>>
class RowDistance {
    static constexpr int values = 7 * num_channels_v<Pixel>;

public:
    using distance_type = distance_t<Pixel>;

    distance_type operator()(Channel const* a, Channel const* b) const {
        distance_type sum = 0;
        for (int i = 0; i < values; ++i) {
            distance_type const d =
                static_cast<distance_type>(a[i]) - static_cast<distance_type>(b[i]);
            sum += d * d;
        }
        return sum;
    }
};

template <class Pixel>
class RowDistance<Pixel, float> {
    static constexpr int floats = 7 * num_channels_v<Pixel>;
    static constexpr int full = floats / 4;
    static constexpr int tail = floats % 4;

public:
    float operator()(float const* a, float const* b) const {
        float lanes[4];
        for (int l = 0; l < 4; ++l) lanes[l] = square(a[l] - b[l]);
        for (int k = 1; k < full; ++k)
            for (int l = 0; l < 4; ++l) lanes[l] = lanes[l] + square(a[4 * k + l] - b[4 * k + l]);
        if constexpr (tail > 0) {
            // Lanes past the row see a difference of +0.
            for (int l = 0; l < 4; ++l) {
                float const d = l < tail ? a[4 * full + l] - b[4 * full + l] : 0.0f;
                lanes[l] = lanes[l] + square(d);
            }
        }
        return ((lanes[1] + lanes[0]) + lanes[2]) + lanes[3];
    }

private:
    static float square(float d) { return d * d; }
};

}  // namespace WM::kernels_portable
