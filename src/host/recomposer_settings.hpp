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

// Whether a run in `mode` votes with both fields: the preset, unless the
// option -bidir says otherwise.
inline bool votes_both_ways(Options const& options, Mode mode) {
    auto const given = options.recomposer_options.find("-bidir");
    if (given != options.recomposer_options.end()) return given->second == "1";
    return mode != Mode::hole_fill;
}

// options.recomposer_options, with the seed as "-rand" when one is set.
inline std::map<std::string, std::string> option_map(Options const& options) {
    auto map = options.recomposer_options;
    if (options.seed) map["-rand"] = std::to_string(*options.seed);
    return map;
}

// The option map of a fill. Structure is settled at the coarsest level that
// synthesises. The hole-fill preset starts where the hole is three quarters
// of a patch wide, where a picture's background often offers no patch of
// its own yet and the level copies whatever salient object is near (faces
// into a sky); starting where it is one and a half patches wide removes
// most such copies on the evaluation photographs, at the same speed. A
// caller's own value stays.
inline std::map<std::string, std::string> fill_option_map(Options const& options) {
    auto map = option_map(options);
    if (options.mode.value_or(Mode::hole_fill) == Mode::hole_fill)
        map.emplace("-min_hole_width", "1.5");
    return map;
}

}  // namespace WM::host::detail
