// The two description texts, byte for byte: tabs, blanks and flushed line
// feeds as viewers of the format expect them, including the comma after
// "level_widths" that stands even when no "tile_info" follows.
#include <weftmap/frame/exceptions.hpp>
#include <weftmap/tapestry/tapestry_json.hpp>

#include <cstdint>
#include <ostream>

namespace WM {
namespace {

// The rows are split by position: row r holds elements r, r + 2, r + 4 ...
// of the `count` that `number(i)` gives.
template <class Number>
void write_row(std::ostream& out, std::int64_t count, std::int64_t row, Number const& number) {
    out << "[ ";
    for (std::int64_t i = row; i < count; i += 2) {
        if (i != row) out << ", ";
        out << number(i);
    }
    out << " ]";
}

// From "{" to the line that opens "frames".
void write_header(std::ostream& out, Point frame_size) {
    // Three quarters of a height beyond 32 bits has no int to be written as.
    if (frame_size.y < INT32_MIN || frame_size.y > INT32_MAX)
        raise("WEFTMAP_INVALID_PARAMETERS: the frame height %d is outside 32 bits",
              static_cast<long long>(frame_size.y));
    auto const row_height = static_cast<std::int32_t>(static_cast<float>(frame_size.y) * 0.75f);
    auto const frame_width = static_cast<long long>(frame_size.x);
    out << "{" << std::endl;
    out << "\t\"version\": " << 1.0 << "," << std::endl;
    out << "\t\"row_height\": " << row_height << "," << std::endl;
    out << "\t\"frame_width\": " << frame_width << "," << std::endl;
    out << "\t\"offset_per_row\": " << frame_width / 2 << "," << std::endl;
    out << "\t\"frames\": [" << std::endl;
}

}  // namespace

void WriteTapestryJSON(std::ostream& out, Point frame_size, int frame_count) {
    write_header(out, frame_size);
    for (int row = 0; row < 2; ++row) {
        if (row == 1) out << "," << std::endl;
        out << "\t\t";
        write_row(out, frame_count, row, [](std::int64_t i) { return static_cast<int>(i); });
    }
    out << std::endl;
    out << "\t]" << std::endl;
    out << "}" << std::endl;
}

void WriteMultiTapestryJSON(std::ostream& out, Point frame_size,
                            std::vector<std::vector<std::uint32_t>> const& frame_lists,
                            std::vector<std::int64_t> const& level_widths,
                            std::function<void(std::ostream&)> const& tile_info) {
    write_header(out, frame_size);
    for (std::size_t level = 0; level < frame_lists.size(); ++level) {
        // Each later level opens on the closing line of the one before.
        out << (level == 0 ? "\t\t" : ", ");
        out << "[" << std::endl;
        auto const& list = frame_lists[level];
        for (int row = 0; row < 2; ++row) {
            if (row == 1) out << "," << std::endl;
            out << "\t\t\t";
            write_row(out, static_cast<std::int64_t>(list.size()), row,
                      [&](std::int64_t i) { return list[static_cast<std::size_t>(i)]; });
        }
        out << std::endl;
        out << "\t\t]";
    }
    out << std::endl;
    out << "\t]," << std::endl;
    out << "\t\"level_widths\": [";
    for (std::size_t level = 0; level < level_widths.size(); ++level) {
        if (level != 0) out << ", ";
        out << static_cast<long long>(level_widths[level]);
    }
    out << "]," << std::endl;
    if (tile_info) {
        out << "\t\"tile_info\": {" << std::endl;
        tile_info(out);
        out << "\t}" << std::endl;
    }
    out << "}" << std::endl;
}

}  // namespace WM
