#include <weftmap/host/options.hpp>

namespace WM::host {

char const* mode_name(Mode mode) {
    switch (mode) {
        case Mode::hole_fill:
            return "hole-fill";
        case Mode::tapestry:
            return "tapestry";
        case Mode::general:
            break;
    }
    return "default";
}

std::optional<Mode> parse_mode(std::string_view name) {
    for (Mode mode : {Mode::hole_fill, Mode::general, Mode::tapestry})
        if (name == mode_name(mode)) return mode;
    return std::nullopt;
}

char const* comparator_name(Comparator comparator) {
    return comparator == Comparator::gain_bias ? "gain-bias" : "translate";
}

std::optional<Comparator> parse_comparator(std::string_view name) {
    for (Comparator comparator : {Comparator::translate, Comparator::gain_bias})
        if (name == comparator_name(comparator)) return comparator;
    return std::nullopt;
}

}  // namespace WM::host
