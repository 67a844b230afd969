// Links against the installed host kit and fills a hole.
#include <weftmap/host.hpp>

#include <cstdio>
#include <cstring>

int main() {
    namespace host = WM::host;
    host::Image picture({host::Depth::u8, host::Colour::rgb}, {32, 32});
    for (std::ptrdiff_t y = 0; y < 32; ++y)
        for (std::ptrdiff_t x = 0; x < 32; ++x)
            picture.view().pixel(x, y)[(x / 4 + y / 4) % 3] = 200;
    host::Image hole(host::mask_format, {32, 32});
    for (std::ptrdiff_t y = 12; y < 18; ++y) std::memset(hole.view().pixel(12, y), 255, 6);

    host::Image const filled = host::fill(picture.view(), hole.view());
    if (filled.size() != picture.size()) return 1;
    std::puts("weftmap host kit found and linked");
    return 0;
}
