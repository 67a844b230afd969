// Ctrl-C (SIGINT), SIGTERM and SIGHUP raise the kit's cancel flag, which the
// library polls; the run then unwinds and removes its files.
#pragma once

#include <weftmap/host/options.hpp>

namespace weftmap_tool {

// Installs the handlers. A second signal ends the process at once, after
// removing the temporary output files. A file-size limit (SIGXFSZ) fails
// the write instead of ending the process, so it is reported as such.
void install_interrupt_handlers();

// Raised by the first signal; hand it to every run.
WM::host::CancelFlag const& interrupt_flag();

// True once a signal asked to stop. Safe from any thread.
bool interrupt_requested();

// The number of the first signal that asked to stop, or 0.
int interrupt_signal();

}  // namespace weftmap_tool
