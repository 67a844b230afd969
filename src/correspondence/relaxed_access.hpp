// Loads and stores of field and distance pixels that other bands of a search
// may read at the same time. The design tolerates a stale neighbour, so
// relaxed atomics suffice: they compile to plain moves and keep the race
// well-defined.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace WM {
namespace detail {

// The pixel's bits as one integer, allowed to alias any object.
template <std::size_t Size>
struct relaxed_word;
template <>
struct relaxed_word<1> {
    typedef std::uint8_t __attribute__((may_alias)) type;
};
template <>
struct relaxed_word<4> {
    typedef std::uint32_t __attribute__((may_alias)) type;
};
template <>
struct relaxed_word<8> {
    typedef std::uint64_t __attribute__((may_alias)) type;
};

}  // namespace detail

template <class T>
inline T relaxed_load(T const& object) {
    using Word = typename detail::relaxed_word<sizeof(T)>::type;
    Word const bits = __atomic_load_n(reinterpret_cast<Word const*>(&object), __ATOMIC_RELAXED);
    T value;
    std::memcpy(static_cast<void*>(&value), &bits, sizeof(T));
    return value;
}

template <class T>
inline void relaxed_store(T& object, T const& value) {
    using Word = typename detail::relaxed_word<sizeof(T)>::type;
    Word bits;
    std::memcpy(&bits, static_cast<void const*>(&value), sizeof(T));
    __atomic_store_n(reinterpret_cast<Word*>(&object), bits, __ATOMIC_RELAXED);
}

}  // namespace WM
