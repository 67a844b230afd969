// Exit statuses of the command-line host and the one error it throws: a
// readable sentence with the status that goes with it.
#pragma once

#include <stdexcept>
#include <string>

namespace weftmap_tool {

enum ExitStatus : int {
    exit_ok = 0,
    exit_library = 1,         // the library failed; its message is shown
    exit_usage = 2,           // bad command line
    exit_input = 3,           // an input file is missing, unreadable, unsupported or does not fit
    exit_hole_too_large = 4,  // the hole leaves nothing to sample from
    exit_memory_limit = 5,    // the memory limit is too small for the run
    exit_output = 6,          // the output cannot be written
    exit_cancelled = 130      // stopped by Ctrl-C; 128 + the signal number in general
};

class ToolError : public std::runtime_error {
public:
    ToolError(int status, std::string const& message)
        : std::runtime_error(message), status(status) {}
    int status;
};

// Prints "weftmap: warning: <text>" on standard error.
void warn(std::string const& text);

}  // namespace weftmap_tool
