#include "tapestry_arguments.hpp"

#include "errors.hpp"

#include <cerrno>
#include <cstdlib>

namespace weftmap_tool {
namespace {

[[noreturn]] void bad(std::string const& text) {
    throw ToolError(exit_usage, text + " (see 'weftmap --help')");
}

long long whole(std::string const& option, std::string const& text, long long low, long long high) {
    errno = 0;
    char* end = nullptr;
    long long const v = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || v < low || v > high)
        bad(option + " needs a whole number from " + std::to_string(low) + " to " +
            std::to_string(high) + ", got '" + text + "'");
    return v;
}

}  // namespace

WM::host::FrameSelection parse_frame_selection(std::string const& text) {
    WM::host::FrameSelection s;
    std::size_t const first_colon = text.find(':');
    std::string const a = text.substr(0, first_colon);
    std::string b, step;
    if (first_colon != std::string::npos) {
        std::size_t const second = text.find(':', first_colon + 1);
        b = text.substr(first_colon + 1, second - first_colon - 1);
        if (second != std::string::npos) step = text.substr(second + 1);
    }
    auto const part = [&](std::string const& p, long long low) {
        return whole("--frames A:B:STEP", p, low, 1ll << 30);
    };
    if (!a.empty()) s.first = part(a, 0);
    if (!b.empty()) s.end = part(b, 1);
    if (!step.empty()) s.step = part(step, 1);
    if (s.end >= 0 && s.end <= s.first)
        bad("--frames " + text + " selects no frame: B must lie beyond A");
    return s;
}

bool parse_tapestry_option(TapestryArguments& a, std::string const& option,
                           std::function<std::string()> const& value,
                           std::function<void()> const& no_value) {
    if (option == "--height") {
        a.tapestry.height = whole(option, value(), 24, 65535);
    } else if (option == "--tile-width") {
        a.tapestry.tile_width = whole(option, value(), 1, 65535);
    } else if (option == "--levels") {
        a.tapestry.levels = static_cast<int>(whole(option, value(), 1, 16));
    } else if (option == "--inbetweens") {
        a.tapestry.inbetweens = static_cast<int>(whole(option, value(), 0, 100));
    } else if (option == "--index-map") {
        no_value();
        a.tapestry.index_map = true;
    } else if (option == "--frames") {
        a.frames = parse_frame_selection(value());
    } else {
        return false;
    }
    return true;
}

}  // namespace weftmap_tool
