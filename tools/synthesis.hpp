// The two jobs of the host: fill a hole and retarget a picture, from files
// to files.
#pragma once

#include "arguments.hpp"

namespace weftmap_tool {

// Both return the exit status, or throw ToolError, the library's exceptions
// when it fails, or Cancelled when a signal stopped the run.
int run_fill(Arguments const& args);
int run_retarget(Arguments const& args);

struct Cancelled {};

}  // namespace weftmap_tool
