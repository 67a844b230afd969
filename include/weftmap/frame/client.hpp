// Registration of the host's client, version query and the small global
// tables that every later layer relies on.
#pragma once

#include <weftmap/frame/export.hpp>

namespace WM {

class MemoryAllocator;
class DebugOutput;

// The host's client. The host derives from it and owns it; the library keeps
// only a pointer, registered with Initialize.
class WEFTMAP_API WeftmapProcClient {
public:
    // First slot; the library never calls it.
    virtual ~WeftmapProcClient();
    // All image memory passes through this allocator. Asked again at every
    // allocation and release; must never return null.
    virtual MemoryAllocator* GetMemoryAllocator() = 0;
    // The diagnostic sink, or null when diagnostics are off. Asked before
    // every message, so it must be cheap.
    virtual DebugOutput* GetDebugOutput() = 0;

    // Number of horizontal bands of the correspondence search. -1 asks for
    // automatic choice and 0 means 1; Initialize normalises both.
    long long threadCount = -1;
    // Non-zero selects the 16-byte vector kernels, zero the scalar ones.
    unsigned char useVectorKernels = 1;
};

// Registers `client`; must come before any other call. Always returns true.
// A null client is refused with WEFTMAP_INVALID_PARAMETERS and leaves the
// registered one in place.
WEFTMAP_API bool Initialize(WeftmapProcClient* client);
// The client registered last, or null before the first Initialize.
WEFTMAP_API WeftmapProcClient* GetClientProcs();
// The client registered last; before the first Initialize it throws
// WEFTMAP_INVALID_PARAMETERS, so that a call made too early fails cleanly.
WEFTMAP_API WeftmapProcClient& registered_client();
// Does nothing; the library keeps working afterwards.
WEFTMAP_API void Terminate();
// Returns the library version 0x10100; reports the threading interface
// version the library was built for and the one that runs.
WEFTMAP_API unsigned int GetVersions(int& builtTbbInterface, int& runtimeTbbInterface);

// Timing is compiled out; the class keeps instrumentation sites in shape.
class WEFTMAP_API BenchmarkTimer {
public:
    explicit BenchmarkTimer(double& seconds);
    ~BenchmarkTimer();
    void Stop();
    operator double() const;
};

// Seconds since the library was loaded, from a monotonic clock.
WEFTMAP_API double elapsed_seconds();

// Row r (0..15) of the tail mask table holds 0xFF in its first r bytes and 0
// in the rest. Vector kernels AND their last partial load with a row.
WEFTMAP_API void ensure_tail_mask_table();
WEFTMAP_API unsigned char const* tail_mask(int bytes);

}  // namespace WM
