#include "interrupt.hpp"

#include <weftmap/host/output_file.hpp>

#include <atomic>
#include <csignal>

namespace weftmap_tool {
namespace {

// Lock-free, so the handler may store into them.
std::atomic<int> g_signal{0};
static_assert(std::atomic<int>::is_always_lock_free);
WM::host::CancelFlag g_cancel;

// Async-signal-safe calls only.
extern "C" void on_signal(int signal) {
    int first = 0;
    if (g_signal.compare_exchange_strong(first, signal)) {
        g_cancel.request();
        return;
    }
    // Asked twice: no unwinding, so the temporary files go here; then the
    // signal's default action ends the process once this handler returns.
    WM::host::remove_temporary_outputs();
    struct sigaction fallback = {};
    fallback.sa_handler = SIG_DFL;
    sigemptyset(&fallback.sa_mask);
    sigaction(signal, &fallback, nullptr);
    raise(signal);
}

}  // namespace

void install_interrupt_handlers() {
    struct sigaction action = {};
    action.sa_handler = on_signal;
    sigemptyset(&action.sa_mask);
    // One handler at a time: a second signal waits for the first to finish.
    sigaddset(&action.sa_mask, SIGINT);
    sigaddset(&action.sa_mask, SIGTERM);
    sigaddset(&action.sa_mask, SIGHUP);
    action.sa_flags = SA_RESTART;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    // Past `ulimit -f` a write then fails with EFBIG and the run reports
    // that the output cannot be written, instead of dying with a core.
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigemptyset(&ignore.sa_mask);
    sigaction(SIGXFSZ, &ignore, nullptr);
}

WM::host::CancelFlag const& interrupt_flag() {
    return g_cancel;
}

bool interrupt_requested() {
    return g_cancel.requested();
}

int interrupt_signal() {
    return g_signal.load(std::memory_order_relaxed);
}

}  // namespace weftmap_tool
