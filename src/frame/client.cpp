#include <weftmap/frame/client.hpp>
#include <weftmap/frame/exceptions.hpp>

#include <tbb/info.h>
#include <tbb/task_arena.h>
#include <tbb/version.h>

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace WM {
namespace {

WeftmapProcClient* g_client = nullptr;
bool g_initialised = false;
bool g_tail_mask_built = false;
alignas(16) unsigned char g_tail_mask[16][16] = {};

// Started when the library is loaded; its elapsed seconds seed the random
// generator when the host gives no seed.
std::chrono::steady_clock::time_point const g_load_time = std::chrono::steady_clock::now();

constexpr unsigned int library_version = 0x10100;
constexpr int built_threading_interface = 5006;

// Starts and stops the threading runtime once with `threads` threads. The
// arena asks for no more threads than the machine has, so the runtime stays
// silent, and it is gone before we return: later loops get the default pool.
void probe_scheduler(int threads) {
    int const available = tbb::info::default_concurrency();
    tbb::task_arena probe(std::clamp(threads, 1, std::max(available, 1)));
    probe.initialize();
    probe.terminate();
}

}  // namespace

WeftmapProcClient::~WeftmapProcClient() = default;

bool Initialize(WeftmapProcClient* client) {
    if (client == nullptr)
        raise("WEFTMAP_INVALID_PARAMETERS: Initialize needs a client; it was given null");
    g_client = client;
    auto const requested = static_cast<std::int32_t>(client->threadCount);
    if (requested == -1) {
        client->threadCount = tbb::info::default_concurrency();
    } else if (requested == 0) {
        client->threadCount = 1;
    } else {
        probe_scheduler(requested);
    }
    if (!g_initialised) ensure_tail_mask_table();
    g_initialised = true;
    return true;
}

WeftmapProcClient* GetClientProcs() {
    return g_client;
}

WeftmapProcClient& registered_client() {
    if (g_client == nullptr)
        raise(
            "WEFTMAP_INVALID_PARAMETERS: no client is registered; call Initialize with one before "
            "any other call");
    return *g_client;
}

void Terminate() {}

unsigned int GetVersions(int& builtTbbInterface, int& runtimeTbbInterface) {
    builtTbbInterface = built_threading_interface;
    runtimeTbbInterface = TBB_runtime_interface_version();
    return library_version;
}

BenchmarkTimer::BenchmarkTimer(double&) {}
BenchmarkTimer::~BenchmarkTimer() = default;
void BenchmarkTimer::Stop() {}
BenchmarkTimer::operator double() const {
    return 0.0;
}

double elapsed_seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - g_load_time).count();
}

void ensure_tail_mask_table() {
    if (g_tail_mask_built) return;
    for (int r = 0; r < 16; ++r)
        for (int j = 0; j < 16; ++j) g_tail_mask[r][j] = j < r ? 0xFF : 0;
    g_tail_mask_built = true;
}

unsigned char const* tail_mask(int bytes) {
    return g_tail_mask[bytes];
}

}  // namespace WM
