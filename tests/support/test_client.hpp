// A test host: heap memory under the library's limit and an optional
// diagnostic channel that collects everything written to it.
#pragma once

#include <weftmap/correspondence/random.hpp>
#include <weftmap/frame/client.hpp>
#include <weftmap/frame/debug_output.hpp>
#include <weftmap/image/memory.hpp>

#include <cstdlib>
#include <string>

namespace WM::test {

class HeapAllocator : public BaseLimitedByteMemoryAllocator {
public:
    void* rawAllocate(unsigned long long bytes) override { return std::malloc(bytes); }
    void rawDeallocate(void* p, unsigned long long) override { std::free(p); }
};

class CaptureChannel : public DebugChannel {
public:
    void Write(char const* text) override { written += text; }
    std::string written;
};

class TestClient : public WeftmapProcClient {
public:
    MemoryAllocator* GetMemoryAllocator() override { return &allocator; }
    DebugOutput* GetDebugOutput() override { return debug; }

    HeapAllocator allocator;
    DebugOutput* debug = nullptr;
};

// The client registered for the whole test run.
TestClient& client();

// Installs a capturing channel for the lifetime of the object.
class ScopedCapture {
public:
    explicit ScopedCapture(bool checksums = true) : output_(&channel) {
        channel.checksumsEnabled = checksums;
        channel.channelName = "test";
        previous_ = client().debug;
        client().debug = &output_;
    }
    ~ScopedCapture() { client().debug = previous_; }
    ScopedCapture(ScopedCapture const&) = delete;
    ScopedCapture& operator=(ScopedCapture const&) = delete;

    CaptureChannel channel;

private:
    DebugOutput output_;
    DebugOutput* previous_ = nullptr;
};

// One search band, the given kernels and a fixed seed while it lives: runs
// that repeat exactly.
class Reproducible {
public:
    explicit Reproducible(unsigned seed = 7, bool vector_kernels = true)
        : bands_(client().threadCount), kernels_(client().useVectorKernels) {
        client().threadCount = 1;
        client().useVectorKernels = vector_kernels ? 1 : 0;
        seed_random(seed);
    }
    ~Reproducible() {
        client().threadCount = bands_;
        client().useVectorKernels = kernels_;
    }
    Reproducible(Reproducible const&) = delete;
    Reproducible& operator=(Reproducible const&) = delete;

private:
    long long bands_;
    unsigned char kernels_;
};

// Restores the process-wide memory limit on scope exit.
struct ScopedMemoryLimit {
    ~ScopedMemoryLimit() { BaseLimitedByteMemoryAllocator::setLimit(saved); }
    unsigned long long const saved = BaseLimitedByteMemoryAllocator::getLimit();
};

}  // namespace WM::test
