// Links against the installed package and makes one real call.
#include <weftmap/weftmap.hpp>

#include <cstdio>
#include <cstdlib>

namespace {

class HeapAllocator : public WM::BaseLimitedByteMemoryAllocator {
public:
    void* rawAllocate(unsigned long long bytes) override { return std::malloc(bytes); }
    void rawDeallocate(void* p, unsigned long long) override { std::free(p); }
};

class Client : public WM::WeftmapProcClient {
public:
    WM::MemoryAllocator* GetMemoryAllocator() override { return &allocator; }
    WM::DebugOutput* GetDebugOutput() override { return nullptr; }
    HeapAllocator allocator;
};

}  // namespace

int main() {
    Client client;
    WM::Initialize(&client);
    int built = 0;
    int runtime = 0;
    if (WM::GetVersions(built, runtime) != 0x10100) return 1;

    WM::RecycledImage<WM::rgb8_pixel_t> source(WM::Point(8, 8));
    boost::gil::fill_pixels(view(source), WM::rgb8_pixel_t(10, 20, 30));
    WM::RecycledImage<WM::rgb8_pixel_t> half;
    WM::resample(const_view(source), half, 4, -1, WM::ResampleBilinear, -1);
    if (half.width() != 4 || half.height() != 4) return 1;
    if (const_view(half)(1, 1) != WM::rgb8_pixel_t(10, 20, 30)) return 1;
    std::puts("weftmap package found and linked");
    return 0;
}
