#include "tapestry/tapestry_fixtures.hpp"

#include <weftmap/tapestry/tapestry_json.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

namespace WM {
namespace {

using Gray = gray8_pixel_t;

std::string single(Point frame, int count) {
    test::SizeOnlySource<Gray> source(frame, count);
    TapestryFactory<Gray> factory(source, nullptr);
    std::ostringstream out;
    factory.OutputJSON(out, nullptr);
    return out.str();
}

std::string multi(Point frame, int count, unsigned levels,
                  MultiTapestryTileCache<Gray> const* cache = nullptr) {
    test::SizeOnlySource<Gray> source(frame, count);
    MultiTapestryFactory<Gray> factory(source, nullptr, levels);
    std::ostringstream out;
    factory.OutputJSON(out, cache);
    return out.str();
}

std::string const header =
    "{\n\t\"version\": 1,\n\t\"row_height\": 60,\n\t\"frame_width\": 100,\n"
    "\t\"offset_per_row\": 50,\n\t\"frames\": [\n";

TEST(TapestryJSON, SingleTapestryTextsAreExact) {
    EXPECT_EQ(single(Point(100, 80), 5), header + "\t\t[ 0, 2, 4 ],\n\t\t[ 1, 3 ]\n\t]\n}\n");
    EXPECT_EQ(single(Point(100, 81), 1), header + "\t\t[ 0 ],\n\t\t[  ]\n\t]\n}\n");
    EXPECT_EQ(single(Point(33, 10), 0),
              "{\n\t\"version\": 1,\n\t\"row_height\": 7,\n\t\"frame_width\": 33,\n"
              "\t\"offset_per_row\": 16,\n\t\"frames\": [\n\t\t[  ],\n\t\t[  ]\n\t]\n}\n");
}

TEST(TapestryJSON, MultiLevelTextsAreExactWithTheirTrailingComma) {
    std::string const levels =
        "\t\t[\n\t\t\t[ 0, 2, 4 ],\n\t\t\t[ 1, 3, 5 ]\n\t\t], [\n\t\t\t[ 0, 4 ],\n\t\t\t[ 3 ]\n"
        "\t\t]\n\t],\n\t\"level_widths\": [350, 200],\n";
    EXPECT_EQ(multi(Point(100, 80), 6, 2), header + levels + "}\n");
    EXPECT_EQ(multi(Point(100, 80), 6, 0), header + "\n\t],\n\t\"level_widths\": [],\n}\n");
    // A base-class cache writes nothing between the braces; a host's writes
    // its body.
    struct Plain : test::MemoryMultiCache<Gray> {
        using MemoryMultiCache::MemoryMultiCache;
    } plain(Point(8, 8));
    MultiTapestryTileCache<Gray> const& base = plain;
    EXPECT_EQ(multi(Point(100, 80), 6, 2, &base), header + levels + "\t\"tile_info\": {\n\t}\n}\n");
    struct Describing : test::MemoryMultiCache<Gray> {
        using MemoryMultiCache::MemoryMultiCache;
        void OutputJSON(std::ostream& out) const override { out << "\t\t\"tile_width\": 8\n"; }
    } describing(Point(8, 8));
    EXPECT_EQ(multi(Point(100, 80), 6, 2, &describing),
              header + levels + "\t\"tile_info\": {\n\t\t\"tile_width\": 8\n\t}\n}\n");
}

// Counts the flushes that reach the buffer.
struct CountingBuffer : std::stringbuf {
    int sync() override {
        ++flushes;
        return std::stringbuf::sync();
    }
    int flushes = 0;
};

TEST(TapestryJSON, EveryLineFeedIsFlushed) {
    test::SizeOnlySource<Gray> source(Point(100, 80), 6);
    MultiTapestryFactory<Gray> factory(source, nullptr, 2);
    CountingBuffer buffer;
    std::ostream out(&buffer);
    factory.OutputJSON(out, nullptr);
    std::string const text = buffer.str();
    EXPECT_EQ(buffer.flushes, std::count(text.begin(), text.end(), '\n'));
}

TEST(TapestryJSON, TheStreamsFormattingIsUsedAndLeftAsItWas) {
    test::SizeOnlySource<Gray> source(Point(100, 80), 3);
    TapestryFactory<Gray> factory(source, nullptr);
    MultiTapestryFactory<Gray> levels(source, nullptr, 1);
    std::ostringstream out;
    out << std::hex << std::fixed;
    out.precision(2);
    auto const flags = out.flags();
    factory.OutputJSON(out, nullptr);
    levels.OutputJSON(out, nullptr);
    EXPECT_EQ(out.flags(), flags);
    EXPECT_EQ(out.precision(), 2);
    std::string const hex_header =
        "{\n\t\"version\": 1.00,\n\t\"row_height\": 3c,\n\t\"frame_width\": 64,\n"
        "\t\"offset_per_row\": 32,\n\t\"frames\": [\n";
    EXPECT_EQ(out.str(), hex_header + "\t\t[ 0, 2 ],\n\t\t[ 1 ]\n\t]\n}\n" + hex_header +
                             "\t\t[\n\t\t\t[ 0, 2 ],\n\t\t\t[ 1 ]\n\t\t]\n\t],\n"
                             "\t\"level_widths\": [c8],\n}\n");
    // The free writers are what the factories use.
    std::ostringstream direct;
    WriteTapestryJSON(direct, Point(100, 80), 3);
    EXPECT_EQ(direct.str(), single(Point(100, 80), 3));
}

}  // namespace
}  // namespace WM
