// Optional instruction sets, asked of the processor once per process. The
// wider kernels built for them run only where this says so; every other
// machine keeps the SSE2 and scalar kernels, which give the same results.
#pragma once

namespace WM {

#if defined(__x86_64__) || defined(__i386__)
#define WEFTMAP_AVX2_KERNELS 1

// The processor and the system both support AVX2.
inline bool cpu_has_avx2() {
    static bool const available = __builtin_cpu_supports("avx2");
    return available;
}
#else
inline bool cpu_has_avx2() {
    return false;
}
#endif

}  // namespace WM
