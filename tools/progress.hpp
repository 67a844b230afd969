// Progress on standard error: a redrawn bar on a terminal, a line at every
// tenth of the job otherwise.
#pragma once

#include <string>

namespace weftmap_tool {

class ProgressDisplay {
public:
    // `label` starts every bar or line; nothing is shown when not `enabled`.
    ProgressDisplay(std::string label, bool enabled);
    ~ProgressDisplay();
    ProgressDisplay(ProgressDisplay const&) = delete;
    ProgressDisplay& operator=(ProgressDisplay const&) = delete;

    // A fraction from 0 to 1 of the whole job; values going back are ignored.
    void update(float fraction);
    // Ends the bar's line so that other text starts on a fresh one.
    void break_line();

private:
    std::string label_;
    bool enabled_;
    bool terminal_;
    int shown_ = -1;  // per mille on a terminal, tenths otherwise
    bool line_open_ = false;
};

}  // namespace weftmap_tool
