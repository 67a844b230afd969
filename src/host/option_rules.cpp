// The recomposer's option strings as the kit accepts them: every key the
// recomposer reads, with its type and the values that work. The library
// reads these strings without a word about what it could not use (an
// unreadable value is skipped, an unknown key ignored) and refuses a bad
// value, if at all, only deep inside a run under a name of its own; the
// kit checks them first and names the option.
#include <weftmap/host/errors.hpp>
#include <weftmap/host/options.hpp>

#include "recomposer_settings.hpp"

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <string>

namespace WM::host {
namespace {

enum class Kind {
    flag,    // acts on its presence; a value is not read
    whole,   // a whole number
    number,  // a finite number
    binary   // 0 or 1 (read as a number, not as a word)
};

// How a bound of a range is meant: the value itself may be the bound or not.
enum class Bound { closed, open };

struct Rule {
    char const* key;
    Kind kind;
    double low = 0.0;
    double high = 0.0;
    Bound low_bound = Bound::closed;
    Bound high_bound = Bound::closed;
    // What the values mean, for the message; empty: the range says it.
    char const* values = "";
};

constexpr double int_low = INT_MIN;
constexpr double int_high = INT_MAX;

// The ranges come from what each value does inside a run:
// - patch sides other than 7 are refused by the search, and the masks are
//   measured with the patch size before that (a side below 7 reads past the
//   images' rows);
// - EM iterations and search sweeps: a level of 0 EM iterations leaves no
//   field for the next level; the progress table holds an entry per sweep of
//   every iteration of every level, so both are capped to keep it small;
// - radii below 1 never end the random search; ratios must shrink the
//   radius (below 1) and the scale steps must shrink the levels (below 1,
//   above 0, or a level outgrows the buffers reserved for the finest one);
// - the number of tries per radius is converted to an int;
// - the coarse size is at least 1 (0 has no pyramid, a negative one is not
//   supported); with min_hole_width it sets a size that is converted to an
//   int, so both are capped;
// - the hole gamma must be above 1 (at 1 the hole weights have no falloff
//   step, below 1 they grow past the float range);
// - the vote weights are at least 0, so that a vote never divides by a sum
//   that cancels out;
// - upsample mode is 0 or 1.
Rule const rules[] = {
    {"-no_sim_weight", Kind::flag},
    {"-no_hole_weight", Kind::flag},
    {"-coherent", Kind::flag},
    {"-no_coherent", Kind::flag},
    {"-minnn", Kind::flag},
    {"-no_minnn", Kind::flag},
    {"-const_coarse_size", Kind::flag},
    {"-generate_index_map", Kind::flag},
    {"-do_propagate", Kind::flag},
    {"-no_propagate", Kind::flag},
    {"-patch_w", Kind::whole, 7, 7, Bound::closed, Bound::closed, "7 (the only patch size)"},
    {"-nn_iters_max", Kind::whole, 1, 20},
    {"-rs_max_max", Kind::whole, 1, int_high},
    {"-rs_min", Kind::whole, 1, int_high},
    {"-rs_ratio", Kind::number, 0, 1, Bound::open, Bound::open},
    {"-rs_iters", Kind::number, 0, 1e9},
    {"-last_upscale_step", Kind::number, 0, 1, Bound::open, Bound::open},
    {"-em_iters", Kind::whole, 1, 1000},
    {"-em_iters_gradres", Kind::whole, 1, 1000},
    {"-em_iters_max", Kind::whole, 1, 1000},
    {"-em_iters_min", Kind::whole, 1, 1000},
    {"-em_iters_step", Kind::number, -1000, 1000},
    {"-em_iters_final", Kind::whole, 1, 1000},
    {"-patch_w_refine", Kind::whole, int_low, 7, Bound::closed, Bound::closed,
     "7, or 0 or less to keep the patch size"},
    {"-coherence_w_refine", Kind::number, -1e9, 1e9},
    {"-complete_w_refine", Kind::number, -1e9, 1e9},
    {"-minnn_opt_levels", Kind::whole, 0, int_high},
    {"-minnn_optr_nn_iters", Kind::whole, 1, 20},
    {"-minnn_optr_rs_max", Kind::whole, 1, int_high},
    {"-minnn_optp_nn_iters", Kind::whole, 1, 20},
    {"-minnn_optp_rs_max", Kind::whole, 1, int_high},
    {"-bidir", Kind::binary, 0, 1},
    {"-coarse_size", Kind::whole, 1, 1000},
    {"-min_hole_width", Kind::number, 0, 100},
    {"-pyramid_ratio", Kind::number, 0, 1, Bound::open, Bound::open},
    {"-coherence_weight", Kind::number, 0, 1e9},
    {"-complete_weight", Kind::number, 0, 1e9},
    {"-hole_gamma", Kind::number, 1.00001, 1e9},
    {"-src_important_weight", Kind::number, 0, 1e6, Bound::closed, Bound::closed,
     "0, or from 0.000001 to 1000000"},
    {"-directional_roifill_angle", Kind::number, -1e6, 1e6},
    {"-upsample_mode", Kind::whole, 0, 1},
    {"-hole_search_window", Kind::whole, int_low, int_high},
    {"-rand", Kind::whole, int_low, int_high},
};

Rule const* rule_of(std::string const& key) {
    for (Rule const& rule : rules)
        if (key == rule.key) return &rule;
    return nullptr;
}

// "%g" without its exponent where a plain number reads better.
std::string number_text(double v) {
    if (v == int_low) return "-2147483648";
    if (v == int_high) return "2147483647";
    if (v == std::floor(v) && std::fabs(v) < 1e15) return std::to_string(static_cast<long long>(v));
    char text[32];
    std::snprintf(text, sizeof text, "%.10g", v);
    return text;
}

std::string range_text(Rule const& rule) {
    if (*rule.values != '\0') return rule.values;
    if (rule.kind == Kind::binary) return "0 or 1";
    std::string const what = rule.kind == Kind::whole ? "a whole number" : "a number";
    bool const low_only = rule.high == int_high && rule.kind == Kind::whole;
    if (rule.low == int_low && rule.high == int_high)
        return what + " from " + number_text(rule.low) + " to " + number_text(rule.high);
    if (low_only) return what + " of at least " + number_text(rule.low);
    std::string text = what;
    text += rule.low_bound == Bound::open ? " above " : " from ";
    text += number_text(rule.low);
    text += rule.high_bound == Bound::open ? " and below " : " to ";
    text += number_text(rule.high);
    return text;
}

[[noreturn]] void refuse(Rule const& rule, std::string const& value) {
    throw Error(ErrorCode::invalid_input, "the recomposer option " + std::string(rule.key) +
                                              " needs " + range_text(rule) + ", got '" + value +
                                              "'");
}

// Reads the whole text as a number of the rule's kind; nothing else may
// follow, so "8.5" is no whole number and "1e3" no int.
bool parse(Rule const& rule, std::string const& text, double& value) {
    if (text.empty() || std::isspace(static_cast<unsigned char>(text.front()))) return false;
    char* end = nullptr;
    errno = 0;
    if (rule.kind == Kind::number) {
        value = std::strtod(text.c_str(), &end);
        return *end == '\0' && std::isfinite(value);
    }
    long long const whole = std::strtoll(text.c_str(), &end, 10);
    if (*end != '\0' || errno != 0 || whole < INT_MIN || whole > INT_MAX) return false;
    value = static_cast<double>(whole);
    return true;
}

bool inside(Rule const& rule, double v) {
    bool const above = rule.low_bound == Bound::open ? v > rule.low : v >= rule.low;
    bool const below = rule.high_bound == Bound::open ? v < rule.high : v <= rule.high;
    return above && below;
}

// The exceptions within a range.
bool allowed(Rule const& rule, double v) {
    std::string const key = rule.key;
    if (key == "-patch_w_refine") return v <= 0 || v == 7;
    if (key == "-src_important_weight") return v == 0 || v >= 1e-6;
    return true;
}

void tell(Options const& options, std::string const& text) {
    if (options.warning) options.warning(text);
}

}  // namespace

void check_recomposer_options(Options const& options) {
    if (options.seed && (*options.seed < INT_MIN || *options.seed > INT_MAX))
        throw Error(ErrorCode::invalid_input, "the seed " + std::to_string(*options.seed) +
                                                  " is outside -2147483648 to 2147483647");
    for (auto const& [key, value] : options.recomposer_options) {
        Rule const* rule = rule_of(key);
        if (rule == nullptr) {
            tell(options, "the recomposer has no option '" + key + "'; it is ignored");
            continue;
        }
        if (rule->kind == Kind::flag) {
            if (!value.empty())
                tell(options, "the recomposer option " + key + " is a flag; its value '" + value +
                                  "' is ignored");
            continue;
        }
        double v = 0.0;
        if (rule->kind == Kind::binary) {
            if (value != "0" && value != "1") refuse(*rule, value);
            continue;
        }
        if (!parse(*rule, value, v) || !inside(*rule, v) || !allowed(*rule, v))
            refuse(*rule, value);
    }
}

void check_comparator(Options const& options, bool retargeting) {
    if (options.comparator != Comparator::gain_bias) return;
    Mode const mode = options.mode.value_or(retargeting ? Mode::tapestry : Mode::hole_fill);
    if (retargeting)
        throw Error(ErrorCode::invalid_input,
                    "the gain-bias comparator works only for fills that vote one way; "
                    "retargeting votes both ways (use the translate comparator)");
    if (detail::votes_both_ways(options, mode))
        throw Error(ErrorCode::invalid_input,
                    std::string("the gain-bias comparator works only for fills that vote one "
                                "way; mode ") +
                        mode_name(mode) +
                        " votes both ways (use mode hole-fill, or set the recomposer option "
                        "-bidir to 0)");
}

}  // namespace WM::host
