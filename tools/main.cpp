// weftmap: the command-line host of the Weftmap library.
#include "host_client.hpp"
#include "image_file.hpp"

#include <weftmap/weftmap.hpp>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

namespace weftmap_tool {
namespace {

void print_usage(std::FILE* out) {
    std::fputs(
        "usage:\n"
        "  weftmap resample INPUT.png OUTPUT.png --scale S\n"
        "  weftmap --version\n"
        "\n"
        "resample  scales an image with the library's bilinear filter\n"
        "\n"
        "exit status: 0 success, 1 failure, 2 bad command line\n",
        out);
}

int run_resample(std::vector<std::string> const& args) {
    if (args.size() != 4 || args[2] != "--scale") {
        print_usage(stderr);
        return 2;
    }
    double const scale = std::atof(args[3].c_str());
    if (!(scale > 0.0)) {
        std::cerr << "weftmap: --scale needs a positive number\n";
        return 2;
    }
    auto const source = read_rgb8_png(args[0]);
    auto const width = static_cast<long long>(source.width() * scale + 0.5);
    WM::RecycledImage<WM::rgb8_pixel_t> result;
    WM::resample(const_view(source), result, width, -1, WM::ResampleBilinear, -1);
    write_rgb8_png(args[1], const_view(result));
    std::cout << "wrote " << args[1] << " (" << result.width() << "x" << result.height() << ")\n";
    return 0;
}

}  // namespace
}  // namespace weftmap_tool

int main(int argc, char** argv) {
    using namespace weftmap_tool;
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty() || args[0] == "--help" || args[0] == "-h") {
        print_usage(args.empty() ? stderr : stdout);
        return args.empty() ? 2 : 0;
    }
    HostClient client;
    WM::Initialize(&client);
    if (args[0] == "--version") {
        int built = 0, runtime = 0;
        unsigned const version = WM::GetVersions(built, runtime);
        std::printf("weftmap %u.%u.%u\n", version >> 16, (version >> 8) & 0xFF, version & 0xFF);
        return 0;
    }
    try {
        std::string const command = args[0];
        args.erase(args.begin());
        if (command == "resample") return run_resample(args);
        std::cerr << "weftmap: unknown command '" << command << "'\n";
        print_usage(stderr);
        return 2;
    } catch (WM::Exception const& e) {
        std::cerr << "weftmap: " << static_cast<char const*>(e) << "\n";
    } catch (std::exception const& e) {
        std::cerr << "weftmap: " << e.what() << "\n";
    }
    return 1;
}
