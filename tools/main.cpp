// weftmap: the command-line host of the Weftmap library, on the host kit.
#include "arguments.hpp"
#include "errors.hpp"
#include "interrupt.hpp"
#include "synthesis.hpp"
#include "tapestry.hpp"

#include <weftmap/frame/debug_output.hpp>
#include <weftmap/host.hpp>

#include <cstdio>
#include <new>
#include <string>
#include <vector>

namespace weftmap_tool {
namespace {

namespace host = WM::host;

class StderrChannel : public WM::DebugChannel {
public:
    void Write(char const* text) override { std::fputs(text, stderr); }
    void Flush() override { std::fflush(stderr); }
};

int fail(int status, std::string const& text) {
    std::fprintf(stderr, "weftmap: %s\n", text.c_str());
    return status;
}

int cancelled() {
    return fail(128 + interrupt_signal(), "cancelled; no output written");
}

// The kit's failures as exit statuses.
int fail(host::Error const& e) {
    switch (e.code()) {
        case host::ErrorCode::cancelled:
            return cancelled();
        case host::ErrorCode::hole_too_large:
            return fail(exit_hole_too_large, e.what());
        case host::ErrorCode::memory_limit:
            return fail(exit_memory_limit, std::string(e.what()) + " (raise --memory-limit)");
        case host::ErrorCode::output_failed:
            return fail(exit_output, e.what());
        case host::ErrorCode::invalid_input:
            // A value the library refused is the library's failure; one the
            // kit refused is the input's.
            return fail(e.library_message().empty() ? exit_input : exit_library, e.what());
        case host::ErrorCode::internal:
            break;
    }
    return fail(exit_library, e.what());
}

int run(Arguments const& args) {
    try {
        if (args.command == Command::tapestry) return run_tapestry(args);
        return args.command == Command::fill ? run_fill(args) : run_retarget(args);
    } catch (Cancelled const&) {
        return cancelled();
    } catch (ToolError const& e) {
        if (interrupt_requested()) return cancelled();
        return fail(e.status, e.what());
    } catch (host::Error const& e) {
        if (interrupt_requested()) return cancelled();
        return fail(e);
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
    if (args.command == Command::version) {
        std::printf("weftmap %s\n", WM::host::library_version().c_str());
        return exit_ok;
    }

    StderrChannel channel;
    channel.channelName = "weftmap";
    channel.checksumsEnabled = args.checksums;
    if (args.checksums) WM::host::set_diagnostic_channel(&channel);
    WM::host::set_memory_limit(args.memory_limit.value_or(WM::host::default_memory_limit()));
    install_interrupt_handlers();
    int const status = run(args);
    WM::host::set_diagnostic_channel(nullptr);
    return status;
}
