// Ctrl-C (SIGINT) and SIGTERM become a request to stop that the library
// polls through checkAbort; the run then unwinds and removes its files.
#pragma once

namespace weftmap_tool {

// Installs the handlers. A second signal of the same kind ends the
// process at once.
void install_interrupt_handlers();

// True once a signal asked to stop. Safe from any thread.
bool interrupt_requested();

// The number of the signal that asked to stop, or 0.
int interrupt_signal();

}  // namespace weftmap_tool
