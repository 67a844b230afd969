#include "tapestry/tapestry_fixtures.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

namespace WM {
namespace {

using Gray = gray8_pixel_t;

// Counts the flushes that reach the buffer.
struct CountingBuffer : std::stringbuf {
    int sync() override { return ++flushes, std::stringbuf::sync(); }
    int flushes = 0;
};

// The text of a single tapestry (levels < 0) or of `levels` levels.
std::string text(Point frame, int count, int levels = -1,
                 MultiTapestryTileCache<Gray> const* cache = nullptr,
                 std::ostream* stream = nullptr) {
    auto source = test::sizes_only<Gray>(frame, count);
    CountingBuffer buffer;
    std::ostream out(&buffer);
    std::ostream& to = stream != nullptr ? *stream : out;
    if (levels < 0)
        TapestryFactory<Gray>(source, nullptr).OutputJSON(to, nullptr);
    else
        MultiTapestryFactory<Gray>(source, nullptr, unsigned(levels)).OutputJSON(to, cache);
    std::string const result = buffer.str();
    EXPECT_EQ(buffer.flushes,
              std::count(result.begin(), result.end(), '\n'));  // every line flushed
    return result;
}

std::string const header =
    "{\n\t\"version\": 1,\n\t\"row_height\": 60,\n\t\"frame_width\": 100,\n\t\"offset_per_row\": "
    "50,\n"
    "\t\"frames\": [\n";
std::string const two_levels =
    "\t\t[\n\t\t\t[ 0, 2, 4 ],\n\t\t\t[ 1, 3, 5 ]\n\t\t], [\n\t\t\t[ 0, 4 ],\n\t\t\t[ 3 "
    "]\n\t\t]\n\t],\n"
    "\t\"level_widths\": [350, 200],\n";

TEST(TapestryJSON, TextsAreExactWithTheirTrailingComma) {
    EXPECT_EQ(text(Point(100, 80), 5), header + "\t\t[ 0, 2, 4 ],\n\t\t[ 1, 3 ]\n\t]\n}\n");
    EXPECT_EQ(text(Point(100, 81), 1), header + "\t\t[ 0 ],\n\t\t[  ]\n\t]\n}\n");
    EXPECT_EQ(text(Point(100, 80), 6, 2), header + two_levels + "}\n");
    EXPECT_EQ(text(Point(100, 80), 6, 0), header + "\n\t],\n\t\"level_widths\": [],\n}\n");
    // A base-class cache writes nothing between its braces; a host's writes the body.
    test::MemoryMultiCache<Gray> plain(Point(8, 8));
    EXPECT_EQ(text(Point(100, 80), 6, 2, &plain),
              header + two_levels + "\t\"tile_info\": {\n\t}\n}\n");
    struct Describing : test::MemoryMultiCache<Gray> {
        using MemoryMultiCache::MemoryMultiCache;
        void OutputJSON(std::ostream& out) const override {
            out << "\t\t\"tile_width\": 8" << std::endl;
        }
    } describing(Point(8, 8));
    EXPECT_EQ(text(Point(100, 80), 6, 2, &describing),
              header + two_levels + "\t\"tile_info\": {\n\t\t\"tile_width\": 8\n\t}\n}\n");
}

TEST(TapestryJSON, TheStreamsFormattingIsUsedAndLeftAsItWas) {
    std::ostringstream out;
    out << std::hex << std::fixed;
    out.precision(2);
    auto const flags = out.flags();
    text(Point(100, 80), 3, -1, nullptr, &out);
    text(Point(100, 80), 3, 1, nullptr, &out);
    EXPECT_EQ(std::make_pair(out.flags(), out.precision()),
              std::make_pair(flags, std::streamsize(2)));
    std::string const hex_header =
        "{\n\t\"version\": 1.00,\n\t\"row_height\": 3c,\n\t\"frame_width\": "
        "64,\n\t\"offset_per_row\": 32,\n"
        "\t\"frames\": [\n";
    EXPECT_EQ(
        out.str(),
        hex_header + "\t\t[ 0, 2 ],\n\t\t[ 1 ]\n\t]\n}\n" + hex_header +
            "\t\t[\n\t\t\t[ 0, 2 ],\n\t\t\t[ 1 ]\n\t\t]\n\t],\n\t\"level_widths\": [c8],\n}\n");
}

}  // namespace
}  // namespace WM
