#include "run_client.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/runtime.hpp>

#include <weftmap/frame/client.hpp>
#include <weftmap/frame/debug_output.hpp>
#include <weftmap/image/memory.hpp>

#include <tbb/info.h>

#include <cstdlib>
#include <mutex>
#include <new>

namespace WM::host {
namespace {

// Heap memory for the library's images. A failed request throws: the
// library must never see a null pointer.
class HeapAllocator : public BaseLimitedByteMemoryAllocator {
public:
    void* rawAllocate(unsigned long long bytes) override {
        void* p = std::malloc(bytes == 0 ? 1 : bytes);
        if (p == nullptr) throw std::bad_alloc();
        return p;
    }
    void rawDeallocate(void* p, unsigned long long) override { std::free(p); }
};

class KitClient : public WeftmapProcClient {
public:
    MemoryAllocator* GetMemoryAllocator() override { return &allocator; }
    DebugOutput* GetDebugOutput() override { return output.channel != nullptr ? &output : nullptr; }

    HeapAllocator allocator;
    DebugOutput output;
};

// Lives as long as the process: the library keeps a pointer to it.
KitClient& kit_client() {
    static KitClient* const client = new KitClient;
    return *client;
}

}  // namespace

void ensure_library() {
    static std::once_flag once;
    std::call_once(once, [] {
        if (GetClientProcs() == nullptr) Initialize(&kit_client());
    });
}

std::string library_version() {
    int built = 0, running = 0;
    unsigned const version = GetVersions(built, running);
    return std::to_string(version >> 16) + "." + std::to_string((version >> 8) & 0xFF) + "." +
           std::to_string(version & 0xFF);
}

void set_diagnostic_channel(DebugChannel* channel) {
    ensure_library();
    kit_client().output.channel = channel;
}

void set_memory_limit(unsigned long long bytes) {
    ensure_library();
    BaseLimitedByteMemoryAllocator::setLimit(bytes);
}

unsigned long long memory_limit() {
    return BaseLimitedByteMemoryAllocator::getLimit();
}

unsigned long long memory_in_use() {
    return BaseLimitedByteMemoryAllocator::getCurrentAllocatedSize();
}

}  // namespace WM::host

namespace WM::host::detail {

void apply_process_settings(Options const& options) {
    ensure_library();
    WeftmapProcClient* client = GetClientProcs();
    client->threadCount = options.bands > 0 ? options.bands : tbb::info::default_concurrency();
    client->useVectorKernels = options.scalar_kernels ? 0 : 1;
    if (options.memory_limit) BaseLimitedByteMemoryAllocator::setLimit(*options.memory_limit);
}

}  // namespace WM::host::detail
