#include "interrupt.hpp"

#include <atomic>
#include <csignal>

namespace weftmap_tool {
namespace {

// Lock-free, so the handler may store into them.
std::atomic<int> g_signal{0};
static_assert(std::atomic<int>::is_always_lock_free);
WM::host::CancelFlag g_cancel;

extern "C" void on_signal(int signal) {
    g_signal.store(signal, std::memory_order_relaxed);
    g_cancel.request();
}

}  // namespace

void install_interrupt_handlers() {
    struct sigaction action = {};
    action.sa_handler = on_signal;
    sigemptyset(&action.sa_mask);
    // SA_RESETHAND: the default action returns for a second signal.
    action.sa_flags = SA_RESTART | SA_RESETHAND;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
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
