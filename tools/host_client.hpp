// The command-line host's clients: heap memory under the library's limit,
// an optional diagnostic channel on standard error, and the per-run client
// that shows progress and answers the library's cancellation polls.
#pragma once

#include "interrupt.hpp"
#include "progress.hpp"

#include <weftmap/correspondence/weftmap.hpp>
#include <weftmap/frame/client.hpp>
#include <weftmap/frame/debug_output.hpp>
#include <weftmap/image/memory.hpp>

#include <cstdio>
#include <cstdlib>

namespace weftmap_tool {

class HeapAllocator : public WM::BaseLimitedByteMemoryAllocator {
public:
    void* rawAllocate(unsigned long long bytes) override { return std::malloc(bytes); }
    void rawDeallocate(void* p, unsigned long long) override { std::free(p); }
};

class StderrChannel : public WM::DebugChannel {
public:
    void Write(char const* text) override { std::fputs(text, stderr); }
    void Flush() override { std::fflush(stderr); }
};

class HostClient : public WM::WeftmapProcClient {
public:
    WM::MemoryAllocator* GetMemoryAllocator() override { return &allocator; }
    WM::DebugOutput* GetDebugOutput() override { return debug; }

    HeapAllocator allocator;
    WM::DebugOutput* debug = nullptr;
};

template <class Pixel>
class RunClient : public WM::ClientBase<Pixel> {
public:
    explicit RunClient(ProgressDisplay& progress) : progress_(progress) {}
    void updateProgress(float fraction) override { progress_.update(fraction); }
    // Polled from the search tasks on any thread.
    bool checkAbort() override { return interrupt_requested(); }

private:
    ProgressDisplay& progress_;
};

}  // namespace weftmap_tool
