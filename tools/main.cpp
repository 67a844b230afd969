// weftmap: the command-line host of the Weftmap library.
#include "arguments.hpp"
#include "errors.hpp"
#include "host_client.hpp"
#include "interrupt.hpp"
#include "synthesis.hpp"

#include <weftmap/weftmap.hpp>

#include <cstdio>
#include <cstring>
#include <new>
#include <string>
#include <vector>

namespace weftmap_tool {
namespace {

int fail(int status, std::string const& text) {
    std::fprintf(stderr, "weftmap: %s\n", text.c_str());
    return status;
}

int cancelled() {
    return fail(128 + interrupt_signal(), "cancelled; no output written");
}

bool starts_with(char const* text, char const* prefix) {
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

int run(Arguments const& args) {
    try {
        return args.command == Command::fill ? run_fill(args) : run_retarget(args);
    } catch (Cancelled const&) {
        return cancelled();
    } catch (ToolError const& e) {
        if (interrupt_requested()) return cancelled();
        return fail(e.status, e.what());
    } catch (WM::Exception const& e) {
        if (interrupt_requested() || starts_with(e.message, "WEFTMAP_USER_CANCELED"))
            return cancelled();
        if (dynamic_cast<WM::ExceptionNotEnoughPatches const*>(&e) != nullptr ||
            starts_with(e.message, "WEFTMAP_HOLE_TOO_LARGE"))
            return fail(exit_hole_too_large,
                        "the hole is too large: too little of the picture is left outside it to "
                        "take patches from (make the hole smaller or give it more surroundings)");
        if (dynamic_cast<WM::ExceptionMemoryLimit const*>(&e) != nullptr)
            return fail(exit_memory_limit,
                        "the memory limit of " +
                            std::to_string(WM::BaseLimitedByteMemoryAllocator::getLimit()) +
                            " bytes is too small for this picture (raise --memory-limit)");
        return fail(exit_library, std::string("the library failed: ") + e.message);
    } catch (WM::locked_recycled_image_error const& e) {
        return fail(exit_library, std::string("the library failed: ") + e.what());
    } catch (WM::bounds_exception_t const& e) {
        return fail(exit_library, std::string("the library failed: ") + e.what());
    } catch (std::bad_alloc const&) {
        if (interrupt_requested()) return cancelled();
        return fail(exit_memory_limit, "out of memory for this picture");
    } catch (std::exception const& e) {
        if (interrupt_requested()) return cancelled();
        return fail(exit_library, std::string("unexpected failure: ") + e.what());
    }
}

}  // namespace
}  // namespace weftmap_tool

int main(int argc, char** argv) {
    using namespace weftmap_tool;
    Arguments args;
    try {
        args = parse_arguments(std::vector<std::string>(argv + 1, argv + argc));
    } catch (ToolError const& e) {
        if (argc == 1) std::fputs(usage_text(), stderr);
        return fail(e.status, e.what());
    }
    if (args.command == Command::help) {
        std::fputs(usage_text(), stdout);
        return exit_ok;
    }

    HostClient client;
    client.threadCount = args.threads;
    client.useVectorKernels = args.scalar ? 0 : 1;
    StderrChannel channel;
    channel.channelName = "weftmap";
    channel.checksumsEnabled = args.checksums;
    WM::DebugOutput debug(&channel);
    if (args.checksums) client.debug = &debug;
    WM::Initialize(&client);

    if (args.command == Command::version) {
        int built = 0, running = 0;
        unsigned const version = WM::GetVersions(built, running);
        std::printf("weftmap %u.%u.%u\n", version >> 16, (version >> 8) & 0xFF, version & 0xFF);
        return exit_ok;
    }
    if (args.memory_limit) WM::BaseLimitedByteMemoryAllocator::setLimit(*args.memory_limit);
    install_interrupt_handlers();
    return run(args);
}
