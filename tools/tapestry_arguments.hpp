// The options of `weftmap tapestry`.
#pragma once

#include <weftmap/host/tapestry.hpp>

#include <functional>
#include <string>

namespace weftmap_tool {

struct TapestryArguments {
    WM::host::TapestryOptions tapestry;
    WM::host::FrameSelection frames;
};

// Takes `option` when it is one of the tapestry's, reading its value
// through `value` and refusing one through `no_value`; false otherwise.
// Throws ToolError (exit_usage) for a bad value.
bool parse_tapestry_option(TapestryArguments& a, std::string const& option,
                           std::function<std::string()> const& value,
                           std::function<void()> const& no_value);

// "A:B:STEP" with any part left out: "10:", ":100", "::2", "5:50:5".
WM::host::FrameSelection parse_frame_selection(std::string const& text);

}  // namespace weftmap_tool
