// What every run of the kit hands its recomposer: the preset of a mode and
// the option map with the seed.
#pragma once

#include <weftmap/host/options.hpp>
#include <weftmap/recomposer/parameters.hpp>

#include <map>
#include <string>

namespace WM::host::detail {

inline RecomposerMode preset_of(Mode mode) {
    switch (mode) {
        case Mode::hole_fill:
            return RecomposerModeHoleFill;
        case Mode::tapestry:
            return RecomposerModeTapestry;
        case Mode::general:
            break;
    }
    return RecomposerModeDefault;
}

// options.recomposer_options, with the seed as "-rand" when one is set.
inline std::map<std::string, std::string> option_map(Options const& options) {
    auto map = options.recomposer_options;
    if (options.seed) map["-rand"] = std::to_string(*options.seed);
    return map;
}

}  // namespace WM::host::detail
