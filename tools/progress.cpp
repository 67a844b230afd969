#include "progress.hpp"

#include "errors.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

namespace weftmap_tool {
namespace {

// The display whose bar is on screen, so that a warning can end its line.
ProgressDisplay* g_active = nullptr;

constexpr int bar_width = 40;

}  // namespace

void warn(std::string const& text) {
    if (g_active != nullptr) g_active->break_line();
    std::fprintf(stderr, "weftmap: warning: %s\n", text.c_str());
}

ProgressDisplay::ProgressDisplay(std::string label, bool enabled)
    : label_(std::move(label)), enabled_(enabled), terminal_(isatty(STDERR_FILENO) == 1) {
    if (enabled_) g_active = this;
}

ProgressDisplay::~ProgressDisplay() {
    break_line();
    if (g_active == this) g_active = nullptr;
}

void ProgressDisplay::update(float fraction) {
    if (!enabled_) return;
    float const f = std::clamp(fraction, 0.0f, 1.0f);
    if (terminal_) {
        int const permille = static_cast<int>(f * 1000.0f);
        if (permille <= shown_) return;
        shown_ = permille;
        int const filled = permille * bar_width / 1000;
        std::string bar(static_cast<std::size_t>(filled), '#');
        bar.resize(bar_width, '.');
        std::fprintf(stderr, "\r%s [%s] %3d%%", label_.c_str(), bar.c_str(), permille / 10);
        std::fflush(stderr);
        line_open_ = true;
    } else {
        // A line per tenth done; "0%" would only add a line to a run that
        // fails at once.
        int const tenths = static_cast<int>(f * 10.0f);
        if (tenths <= std::max(shown_, 0)) return;
        shown_ = tenths;
        std::fprintf(stderr, "%s: %d%%\n", label_.c_str(), tenths * 10);
    }
}

void ProgressDisplay::break_line() {
    if (line_open_) {
        std::fputc('\n', stderr);
        line_open_ = false;
    }
}

}  // namespace weftmap_tool
