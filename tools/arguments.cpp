#include "arguments.hpp"

#include "errors.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/hole_mask.hpp>
#include <weftmap/host/large_fill.hpp>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace weftmap_tool {
namespace {

[[noreturn]] void bad(std::string const& text) {
    throw ToolError(exit_usage, text + " (see 'weftmap --help')");
}

long long parse_whole(std::string const& option, std::string const& text, long long low,
                      long long high) {
    errno = 0;
    char* end = nullptr;
    long long const value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || value < low || value > high)
        bad(option + " needs a whole number from " + std::to_string(low) + " to " +
            std::to_string(high) + ", got '" + text + "'");
    return value;
}

double parse_positive(std::string const& option, std::string const& text) {
    char* end = nullptr;
    double const value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !std::isfinite(value) || value <= 0.0)
        bad(option + " needs a positive number, got '" + text + "'");
    return value;
}

// The option map's keys all start with '-'; "--set em_iters=8" means "-em_iters".
void add_option(std::map<std::string, std::string>& options, std::string const& text) {
    auto const equals = text.find('=');
    std::string key = text.substr(0, equals);
    std::string const value = equals == std::string::npos ? "" : text.substr(equals + 1);
    if (key.empty() || key == "-") bad("--set needs KEY or KEY=VALUE, got '" + text + "'");
    if (key[0] != '-') key.insert(0, "-");
    options[key] = value;
}

}  // namespace

unsigned long long parse_byte_count(std::string const& text) {
    std::string digits = text;
    unsigned long long unit = 1;
    if (!digits.empty()) {
        switch (digits.back()) {
            case 'k':
            case 'K':
                unit = 1ull << 10;
                break;
            case 'm':
            case 'M':
                unit = 1ull << 20;
                break;
            case 'g':
            case 'G':
                unit = 1ull << 30;
                break;
            default:
                break;
        }
        if (unit != 1) digits.pop_back();
    }
    errno = 0;
    char* end = nullptr;
    unsigned long long const count = std::strtoull(digits.c_str(), &end, 10);
    if (digits.empty() || digits[0] == '-' || *end != '\0' || errno != 0 || count == 0 ||
        count > std::numeric_limits<unsigned long long>::max() / unit)
        bad("--memory-limit needs a byte count such as 800M or 2G, got '" + text + "'");
    return count * unit;
}

Arguments parse_arguments(std::vector<std::string> const& args) {
    Arguments a;
    if (args.empty()) bad("no command given");
    std::string const& command = args[0];
    if (command == "--help" || command == "-h" || command == "help") {
        a.command = Command::help;
        return a;
    }
    if (command == "--version") {
        a.command = Command::version;
        return a;
    }
    if (command == "fill")
        a.command = Command::fill;
    else if (command == "retarget")
        a.command = Command::retarget;
    else if (command == "tapestry")
        a.command = Command::tapestry;
    else
        bad("unknown command '" + command + "'");

    bool options_done = false;
    for (std::size_t i = 1; i < args.size(); ++i) {
        std::string arg = args[i];
        if (options_done || arg.size() < 2 || arg.compare(0, 2, "--") != 0) {
            a.files.push_back(arg);
            continue;
        }
        if (arg == "--") {
            options_done = true;
            continue;
        }
        if (arg == "--help") {
            a.command = Command::help;
            return a;
        }
        // "--name=value" and "--name value" alike.
        std::optional<std::string> inline_value;
        if (auto const equals = arg.find('='); equals != std::string::npos) {
            inline_value = arg.substr(equals + 1);
            arg.erase(equals);
        }
        auto const value = [&]() -> std::string {
            if (inline_value) return *inline_value;
            if (i + 1 >= args.size()) bad(arg + " needs a value");
            return args[++i];
        };
        auto const no_value = [&] {
            if (inline_value) bad(arg + " takes no value");
        };

        if (arg == "--mode") {
            std::string const v = value();
            a.mode = WM::host::parse_mode(v);
            if (!a.mode) bad("--mode must be hole-fill, default or tapestry, got '" + v + "'");
        } else if (arg == "--comparator") {
            std::string const v = value();
            auto const comparator = WM::host::parse_comparator(v);
            if (!comparator) bad("--comparator must be translate or gain-bias, got '" + v + "'");
            a.comparator = *comparator;
        } else if (arg == "--set") {
            add_option(a.options, value());
        } else if (arg == "--seed") {
            a.seed = parse_whole(arg, value(), 0, 2147483647);
        } else if (arg == "--threads") {
            a.threads = static_cast<int>(parse_whole(arg, value(), 1, 1024));
        } else if (arg == "--scalar") {
            no_value();
            a.scalar = true;
        } else if (arg == "--memory-limit") {
            a.memory_limit = parse_byte_count(value());
        } else if (arg == "--checksums") {
            no_value();
            a.checksums = true;
        } else if (arg == "--quiet") {
            no_value();
            a.quiet = true;
        } else if (arg == "--tiled" && a.command == Command::fill) {
            no_value();
            a.tiled = true;
        } else if (arg == "--grow" && a.command == Command::fill) {
            a.grow = static_cast<int>(parse_whole(arg, value(), 0, WM::host::max_hole_growth));
        } else if (arg == "--sample" && a.command == Command::fill) {
            a.sample_path = value();
            if (a.sample_path.empty()) bad("--sample needs a mask file");
        } else if (arg == "--sample-anywhere" && a.command == Command::fill) {
            no_value();
            a.sample_anywhere = true;
        } else if (arg == "--no-texture" && a.command == Command::fill) {
            no_value();
            a.no_texture = true;
        } else if (arg == "--no-mirror" && a.command == Command::fill) {
            no_value();
            a.no_mirror = true;
        } else if (arg == "--no-rows" && a.command == Command::fill) {
            no_value();
            a.no_rows = true;
        } else if (arg == "--exclude" && a.command == Command::fill) {
            a.exclude_path = value();
            if (a.exclude_path.empty()) bad("--exclude needs a mask file");
        } else if (arg == "--compare" && a.command == Command::fill) {
            a.compare_path = value();
            if (a.compare_path.empty()) bad("--compare needs a file name");
        } else if (arg == "--width" && a.command == Command::retarget) {
            a.width = parse_whole(arg, value(), 1, 65535);
        } else if (arg == "--height" && a.command == Command::retarget) {
            a.height = parse_whole(arg, value(), 1, 65535);
        } else if (arg == "--scale" && a.command == Command::retarget) {
            a.scale = parse_positive(arg, value());
        } else if (arg == "--remove" && a.command == Command::retarget) {
            a.remove_path = value();
            if (a.remove_path.empty()) bad("--remove needs a mask file");
        } else if (a.command == Command::tapestry &&
                   parse_tapestry_option(a.tapestry, arg, value, no_value)) {
        } else {
            bad("unknown option '" + arg + "' for '" + command + "'");
        }
    }

    std::size_t const wanted = a.command == Command::fill ? 3 : 2;
    if (a.files.size() != wanted)
        bad(command + " needs " +
            (a.command == Command::fill       ? "IMAGE MASK OUTPUT"
             : a.command == Command::tapestry ? "INPUT OUTDIR"
                                              : std::string("IMAGE OUTPUT")) +
            ", got " + std::to_string(a.files.size()) + " file name(s)");
    if (!a.sample_path.empty() && !a.exclude_path.empty())
        bad("--sample and --exclude say the same thing two ways; give one of them");
    if (a.tiled && !a.compare_path.empty())
        bad("--compare needs the whole picture in memory and cannot go with --tiled");
    if (a.tiled && a.comparator == WM::host::Comparator::gain_bias)
        bad("--tiled compares patches plainly; it cannot go with --comparator gain-bias");
    if (a.command == Command::fill || a.command == Command::retarget) {
        // The kit's own checks, made by every run, here before any file is
        // read: a bad value is a bad command line.
        WM::host::Options run;
        run.mode = a.mode;
        run.comparator = a.comparator;
        run.recomposer_options = a.options;
        run.seed = a.seed;
        run.warning = [](std::string const& text) { warn(text); };
        try {
            WM::host::check_recomposer_options(run);
            if (!a.tiled) WM::host::check_comparator(run, a.command == Command::retarget);
        } catch (WM::host::Error const& e) {
            bad(e.what());
        }
    }
    if (a.command == Command::retarget) {
        if (a.scale > 0.0 && (a.width != 0 || a.height != 0))
            bad("retarget takes --scale or --width/--height, not both");
        if (a.scale == 0.0 && a.width == 0 && a.height == 0)
            bad("retarget needs --width W, --height H or --scale S");
    }
    return a;
}

namespace {

// The help text, "{limit}" standing for this machine's default memory limit.
char const* usage_template() {
    return "usage:\n"
           "  weftmap fill IMAGE MASK OUTPUT [options] [--compare FILE]\n"
           "  weftmap retarget IMAGE OUTPUT (--width W | --height H | --scale S)\n"
           "                   [--remove MASK] [options]\n"
           "  weftmap tapestry INPUT OUTDIR [--height H] [--tile-width W] [--index-map]\n"
           "                   [--frames A:B:STEP] [--levels N] [--inbetweens N] [options]\n"
           "  weftmap --version\n"
           "  weftmap --help\n"
           "\n"
           "fill      fills the hole where MASK is non-zero (255 = hole; partial values are\n"
           "          passed on as they are) with material from the rest of IMAGE.\n"
           "          --grow N        grows the hole by N pixels first (default 0), for\n"
           "                          masks painted tightly that leave an object's edge,\n"
           "                          halo or shadow behind\n"
           "          --sample MASK   takes patches only where MASK is non-zero; without\n"
           "                          it (or --exclude) only where the picture has the\n"
           "                          colours of the hole's rim, so that a face or sign\n"
           "                          near the hole is not pasted into it\n"
           "          --sample-anywhere  takes patches from anywhere outside the hole\n"
           "          --no-texture    keeps the synthesis's result where the hole borders\n"
           "                          on one even texture (grass, gravel) and the fill\n"
           "                          came out much smoother; by default such a hole is\n"
           "                          rebuilt from blocks of that texture\n"
           "          --no-mirror     takes patches only as the picture has them; by\n"
           "                          default also mirrored left to right, so that an\n"
           "                          object the hole cuts (a cup's wall) gets its hidden\n"
           "                          side back from the side it shows\n"
           "          --no-rows       takes patches for every row of the hole from any\n"
           "                          rows; by default, where the hole's surroundings\n"
           "                          are layered in rows (planks, a shore), each half\n"
           "                          of the hole only from its own rows, so that the\n"
           "                          layers run on across it\n"
           "          --set -hole_search_window=0\n"
           "                          searches the whole picture for a hole that a side\n"
           "                          of the picture cuts; by default within the hole's\n"
           "                          own size, so that figures from across the picture\n"
           "                          stay out of it\n"
           "          --exclude MASK  takes no patches where MASK is non-zero (say where\n"
           "                          the fill must not copy from: a face, a sign)\n"
           "          --compare FILE  also writes the input with the hole tinted beside the\n"
           "                          result, as 8-bit RGB\n"
           "          --tiled         fills in two passes: first the whole job at the finest\n"
           "                          scale that fits --memory-limit, then the full size tile\n"
           "                          by tile, with the picture in working files in $TMPDIR\n"
           "                          (default /tmp). Taken by itself when one pass would not\n"
           "                          fit the limit, so pictures of any size fill in bounded\n"
           "                          memory\n"
           "retarget  changes the picture's size while keeping its texture; --width and\n"
           "          --height may be given together, a missing one keeps the input's side;\n"
           "          --scale S multiplies both. New sides are 7 to 65535 pixels, and a\n"
           "          picture grows at most about 7 times a side (more when it is small)\n"
           "          and shrinks to about a thirtieth,\n"
           "          and by at most 14 pixels in mode hole-fill or with -bidir=0; all\n"
           "          are checked before any work. A narrower picture keeps every part\n"
           "          of itself only at the coarsest scale and is refined from there\n"
           "          (--set -bidir=1 keeps every part at every scale, in twice the time)\n"
           "          --remove MASK   takes nothing from what MASK marks (non-zero), so it\n"
           "                          is the first to go instead of being pasted elsewhere\n"
           "                          (a flag or a pole beside a person, say)\n"
           "tapestry  lays the frames of INPUT (a folder of numbered PNG, JPEG or TIFF\n"
           "          frames, or a video decoded with ffmpeg) out as one long seamless\n"
           "          picture, built tile by tile into OUTDIR: tiles/ (kept, so that a\n"
           "          stopped run resumes), tapestry.png, tapestry.json and index.html, a\n"
           "          viewer. --height H: tapestry height (default 1.5 times the frames'\n"
           "          height, at most 540); --tile-width W (default 384); --index-map: tiles\n"
           "          telling which frame each pixel came from; --frames A:B:STEP: frames\n"
           "          A, A+STEP, ... below B; --levels N: levels with about half the frames\n"
           "          each; --inbetweens N: pictures leading from one level to the next\n"
           "          (default 10). Ctrl-C keeps the finished tiles\n"
           "\n"
           "options:\n"
           "  --mode hole-fill|default|tapestry  parameter preset (fill: hole-fill,\n"
           "                                     retarget: tapestry)\n"
           "  --comparator translate|gain-bias   patch comparison (default translate);\n"
           "                       gain-bias only for fills that vote one way (hole-fill\n"
           "                       mode or --set -bidir=0), not for retarget\n"
           "  --set KEY[=VALUE]    a recomposer option, e.g. --set -em_iters=8 or\n"
           "                       --set -no_minnn (repeatable; values are checked, unknown\n"
           "                       keys are ignored with a warning)\n"
           "  --seed N             random seed (0 seeds from the clock; default: fixed)\n"
           "  --threads N          number of search bands (default: one per core)\n"
           "  --scalar             scalar patch kernels instead of the vector ones\n"
           "  --memory-limit BYTES limit of the image memory (K, M, G suffixes; default half\n"
           "                       the machine's memory, here {limit})\n"
           "  --checksums          diagnostic channel with image checksums on standard error\n"
           "  --quiet              no progress and no summary\n"
           "\n"
           "Files: PNG (8/16-bit gray or RGB; alpha is dropped), JPEG (8-bit gray, RGB,\n"
           "CMYK) and TIFF (8/16-bit or float gray, RGB, CMYK). The output keeps the\n"
           "input's format and depth unless its extension (.png, .jpg, .tif) asks for\n"
           "another; it is written under a temporary name and renamed when complete.\n"
           "\n"
           "exit status:\n"
           "  0    success (also when the mask is empty: the input is copied)\n"
           "  1    the library failed; its message is shown\n"
           "  2    bad command line\n"
           "  3    an input file is missing, unreadable, unsupported or of the wrong size\n"
           "  4    the hole leaves too little of the picture to sample from\n"
           "  5    the memory limit is too small for this run\n"
           "  6    the output cannot be written\n"
           "  130  cancelled with Ctrl-C (143 with SIGTERM, 129 with SIGHUP); no output is\n"
           "       written\n";
}

}  // namespace

char const* usage_text() {
    static std::string const text = [] {
        std::string t = usage_template();
        std::string const marker = "{limit}";
        t.replace(t.find(marker), marker.size(), byte_count_text(WM::host::default_memory_limit()));
        return t;
    }();
    return text.c_str();
}

std::string byte_count_text(unsigned long long bytes) {
    static char const units[] = {'K', 'M', 'G', 'T'};
    double value = double(bytes);
    int unit = -1;
    while (value >= 1024.0 && unit < 3) {
        value /= 1024.0;
        ++unit;
    }
    if (unit < 0) return std::to_string(bytes);
    char text[32];
    bool const fraction = value < 10.0 && value != double(long(value));
    std::snprintf(text, sizeof text, fraction ? "%.1f%c" : "%.0f%c", value, units[unit]);
    return text;
}

}  // namespace weftmap_tool
