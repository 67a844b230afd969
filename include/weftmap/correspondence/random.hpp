// The library's one random generator: two 32-bit words shared by every
// object, so that runs repeat unless the host asks for a seed.
#pragma once

#include <weftmap/frame/export.hpp>

#include <cstdint>

namespace WM {

struct RandomGenerator {
    std::uint32_t w = 0x880C49ED;
    std::uint32_t z = 0x5ED73D47;

    void step() {
        z = 36969u * (z & 0xFFFF) + (z >> 16);
        w = 18000u * (w & 0xFFFF) + (w >> 16);
    }
    // The three values derived from the current words.
    std::uint32_t r() const { return (z << 16) + (w & 0xFFFF); }
    std::uint32_t rx() const { return (w + z) & 0xFFFF; }
    std::uint32_t ry() const { return (w - z) & 0xFFFF; }
};

// A draw among n values from a 16-bit random number, in 32-bit arithmetic.
inline std::uint32_t draw_in(std::uint32_t random16, std::int32_t n) {
    return (random16 * static_cast<std::uint32_t>(n)) >> 16;
}

// The global generator. Field initialisation and region draws advance it;
// the search copies its words at the start of every pass.
WEFTMAP_API RandomGenerator& global_random();

// Seeds the global generator from `s` (0 is a seed like any other; callers
// that want a time seed pass the whole seconds of elapsed_seconds()).
WEFTMAP_API void seed_random(unsigned s);

}  // namespace WM
