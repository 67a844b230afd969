#include <weftmap/correspondence/random.hpp>

namespace WM {

RandomGenerator& global_random() {
    static RandomGenerator generator;
    return generator;
}

void seed_random(unsigned s) {
    RandomGenerator g;
    g.w = s != 0 ? s : 1;
    g.z = ~s != 0 ? ~s : 1;
    for (int i = 0; i < 11; ++i) g.step();
    std::uint32_t const r = g.r();
    std::uint32_t const w = 18000u * (r & 0xFFFF) + (r >> 16);
    std::uint32_t const z = 36969u * (g.z & 0xFFFF) + (g.z >> 16);
    RandomGenerator& global = global_random();
    global.w = w != 0 ? w : 1;
    std::uint32_t const mixed = ((z << 16) + (global.w & 0xFFFF)) ^ s;
    global.z = mixed != 0 ? mixed : 1;
}

}  // namespace WM
