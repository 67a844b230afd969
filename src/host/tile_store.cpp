#include "tile_store.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/image_file.hpp>
#include <weftmap/host/output_file.hpp>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace WM::host::detail {
namespace {

namespace fs = std::filesystem;

bool png_holds(PixelFormat format) {
    return format.depth != Depth::f32 && format.colour != Colour::cmyk;
}

std::string number(unsigned n) {
    return std::to_string(n);
}

}  // namespace

TileStore::TileStore(std::string folder, PixelFormat format, Size tile_size)
    : folder_(std::move(folder)),
      format_(format),
      tile_size_(tile_size),
      file_format_(png_holds(format) ? FileFormat::png : FileFormat::tiff),
      extension_(png_holds(format) ? ".png" : ".tif") {
    std::error_code error;
    fs::create_directories(folder_, error);
    if (error || !fs::is_directory(folder_))
        throw Error(ErrorCode::output_failed,
                    "cannot make the tile folder '" + folder_ + "': " + error.message());
    for (auto const& entry : fs::directory_iterator(folder_, error)) {
        std::string const name = entry.path().filename().string();
        // An interrupted write leaves only its temporary file.
        if (name.rfind(".weftmap-", 0) == 0) {
            fs::remove(entry.path(), error);
            continue;
        }
        unsigned l = 0, i = 0, t = 0;
        char rest[8] = {};
        if (std::sscanf(name.c_str(), "index-%u-%u%7s", &l, &t, rest) == 3 &&
            rest == std::string(".png"))
            indices_.insert({l, 0, t});
        else if (std::sscanf(name.c_str(), "animated-%u-%u%7s", &l, &t, rest) == 2)
            markers_.insert({l, 0, t});
        else if (std::sscanf(name.c_str(), "%u-%u-%u%7s", &l, &i, &t, rest) == 4 &&
                 rest == extension_)
            tiles_.insert({l, i, t});
    }
    if (error)
        throw Error(ErrorCode::invalid_input,
                    "cannot list the tile folder '" + folder_ + "': " + error.message());
}

std::string TileStore::tile_name(unsigned level, unsigned inbetween, unsigned tile) const {
    return number(level) + "-" + number(inbetween) + "-" + number(tile) + extension_;
}

std::string TileStore::index_name(unsigned level, unsigned tile) const {
    return "index-" + number(level) + "-" + number(tile) + ".png";
}

std::string TileStore::marker_name(unsigned level, unsigned tile) const {
    return "animated-" + number(level) + "-" + number(tile);
}

std::string TileStore::tile_pattern() const {
    return "{level}-{inbetween}-{tile}" + extension_;
}

std::string TileStore::index_pattern() const {
    return "index-{level}-{tile}.png";
}

bool TileStore::has_tile(unsigned level, unsigned inbetween, unsigned tile) const {
    return tiles_.count({level, inbetween, tile}) != 0;
}

bool TileStore::has_index(unsigned level, unsigned tile) const {
    return indices_.count({level, 0, tile}) != 0;
}

bool TileStore::has_marker(unsigned level, unsigned tile) const {
    return markers_.count({level, 0, tile}) != 0;
}

Image TileStore::read(std::string const& name, PixelFormat format) const {
    std::string const path = folder_ + "/" + name;
    RasterReader reader(path);
    if (reader.size() != tile_size_)
        throw Error(ErrorCode::invalid_input,
                    "the tile '" + path + "' is " + size_text(reader.size()) + ", not " +
                        size_text(tile_size_) + "; remove the folder to start afresh");
    Image pixels(format, tile_size_);
    reader.read_rows(pixels.view());
    return pixels;
}

Image TileStore::read_tile(unsigned level, unsigned inbetween, unsigned tile) const {
    if (!has_tile(level, inbetween, tile)) return Image(format_, tile_size_);
    return read(tile_name(level, inbetween, tile), format_);
}

Image TileStore::read_index(unsigned level, unsigned tile) const {
    PixelFormat const rgb8{Depth::u8, Colour::rgb};
    if (!has_index(level, tile)) return Image(rgb8, tile_size_);
    return read(index_name(level, tile), rgb8);
}

void TileStore::write(std::string const& name, FileFormat file, ConstImageView const& pixels) {
    OutputFile output(folder_ + "/" + name);
    write_image_file(output.temporary_path(), output.path(), file, pixels);
    output.commit();
}

void TileStore::write_tile(unsigned level, unsigned inbetween, unsigned tile,
                           ConstImageView const& pixels) {
    write(tile_name(level, inbetween, tile), file_format_, pixels);
    files_made_ += tiles_.insert({level, inbetween, tile}).second;
}

void TileStore::write_index(unsigned level, unsigned tile, ConstImageView const& pixels) {
    write(index_name(level, tile), FileFormat::png, pixels);
    files_made_ += indices_.insert({level, 0, tile}).second;
}

void TileStore::write_marker(unsigned level, unsigned tile) {
    std::string const path = folder_ + "/" + marker_name(level, tile);
    if (!std::ofstream(path).good())
        throw Error(ErrorCode::output_failed, "cannot write '" + path + "'");
    files_made_ += markers_.insert({level, 0, tile}).second;
}

}  // namespace WM::host::detail
