// Two's-complement wrap-around arithmetic without signed overflow: the value
// is formed in the unsigned type of the same width and converted back.
#pragma once

#include <type_traits>

namespace WM {

template <class T>
inline T wrap_add(T a, T b) {
    using U = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<U>(a) + static_cast<U>(b));
}

template <class T>
inline T wrap_sub(T a, T b) {
    using U = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<U>(a) - static_cast<U>(b));
}

template <class T>
inline T wrap_mul(T a, T b) {
    using U = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<U>(a) * static_cast<U>(b));
}

// Shift left as on the bits of the unsigned type.
template <class T>
inline T wrap_shl(T a, int bits) {
    using U = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<U>(a) << bits);
}

}  // namespace WM
