// The command-line host's client: heap memory under the library's limit.
#pragma once

#include <weftmap/frame/client.hpp>
#include <weftmap/frame/debug_output.hpp>
#include <weftmap/image/memory.hpp>

#include <cstdlib>

namespace weftmap_tool {

class HeapAllocator : public WM::BaseLimitedByteMemoryAllocator {
public:
    void* rawAllocate(unsigned long long bytes) override { return std::malloc(bytes); }
    void rawDeallocate(void* p, unsigned long long) override { std::free(p); }
};

class HostClient : public WM::WeftmapProcClient {
public:
    WM::MemoryAllocator* GetMemoryAllocator() override { return &allocator; }
    WM::DebugOutput* GetDebugOutput() override { return debug; }

    HeapAllocator allocator;
    WM::DebugOutput* debug = nullptr;
};

}  // namespace weftmap_tool
