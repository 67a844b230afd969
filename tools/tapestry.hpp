// `weftmap tapestry`: a folder of frames or a video into a tapestry folder.
#pragma once

#include "arguments.hpp"

namespace weftmap_tool {

// Returns the exit status, or throws ToolError or the kit's Error.
int run_tapestry(Arguments const& args);

}  // namespace weftmap_tool
