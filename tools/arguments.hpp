// The command line of the weftmap host: subcommand, files and options.
#pragma once

#include "tapestry_arguments.hpp"

#include <weftmap/host/options.hpp>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace weftmap_tool {

enum class Command { help, version, fill, retarget, tapestry };

struct Arguments {
    Command command = Command::help;
    // fill: IMAGE MASK OUTPUT; retarget: IMAGE OUTPUT; tapestry: INPUT OUTDIR.
    std::vector<std::string> files;

    // Unset: the kit's choice for the command.
    std::optional<WM::host::Mode> mode;
    WM::host::Comparator comparator = WM::host::Comparator::translate;
    // Handed to the recomposer's setParameters as they stand.
    std::map<std::string, std::string> options;
    std::optional<long long> seed;
    // Search bands; -1 lets the library choose.
    int threads = -1;
    bool scalar = false;
    std::optional<unsigned long long> memory_limit;
    bool checksums = false;
    bool quiet = false;

    // fill: a side-by-side picture of the input (hole tinted) and the result.
    std::string compare_path;
    // fill: two passes with working files even when one pass would fit.
    bool tiled = false;
    // fill: pixels the hole grows by before filling.
    int grow = WM::host::default_hole_growth;
    // Where patches may come from (non-zero pixels of sample_path), or
    // where they may not (non-zero pixels of exclude_path).
    std::string sample_path;
    std::string exclude_path;
    // fill: with neither, patches come from anywhere outside the hole rather
    // than only where the picture has the colours of the hole's rim.
    bool sample_anywhere = false;
    bool no_texture = false;
    bool no_mirror = false;
    bool no_rows = false;

    // retarget: the new width and height (0 keeps the input's) or a scale.
    long long width = 0;
    long long height = 0;
    double scale = 0.0;
    // retarget: a mask of what to drop first.
    std::string remove_path;

    // tapestry: sizes, levels and the frames to take.
    TapestryArguments tapestry;
};

// Parses argv[1..]. Throws ToolError with exit_usage and a one-line reason.
Arguments parse_arguments(std::vector<std::string> const& args);

// "1500", "64K", "512M", "2G" (powers of 1024). Throws ToolError on anything else.
unsigned long long parse_byte_count(std::string const& text);

// The text of `weftmap --help`, with this machine's default memory limit.
char const* usage_text();

// "512M", "11.7G": a byte count as --memory-limit takes it, rounded.
std::string byte_count_text(unsigned long long bytes);

}  // namespace weftmap_tool
