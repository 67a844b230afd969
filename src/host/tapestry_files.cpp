#include "tapestry_files.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/output_file.hpp>
#include <weftmap/host/raster_file.hpp>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <vector>

namespace WM::host::detail {

extern char const* const viewer_page;  // tapestry_viewer.cpp

namespace {

// A scratch file that vanishes when closed, even after a crash.
class ScratchFile {
public:
    explicit ScratchFile(std::string const& folder) {
        std::string pattern = folder + "/.weftmap-rows-XXXXXX";
        fd_ = mkstemp(pattern.data());
        if (fd_ < 0)
            throw Error(ErrorCode::output_failed,
                        "cannot make a scratch file in '" + folder + "': " + std::strerror(errno));
        unlink(pattern.c_str());
    }
    ~ScratchFile() { close(fd_); }
    ScratchFile(ScratchFile const&) = delete;
    ScratchFile& operator=(ScratchFile const&) = delete;

    void write_at(void const* data, std::size_t size, std::uint64_t offset) {
        auto const* bytes = static_cast<unsigned char const*>(data);
        while (size > 0) {
            ssize_t const n = pwrite(fd_, bytes, size, off_t(offset));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0)
                throw Error(ErrorCode::output_failed,
                            std::string("cannot write a scratch file: ") + std::strerror(errno));
            bytes += n, size -= std::size_t(n), offset += std::uint64_t(n);
        }
    }
    void read_at(void* data, std::size_t size, std::uint64_t offset) {
        auto* bytes = static_cast<unsigned char*>(data);
        while (size > 0) {
            ssize_t const n = pread(fd_, bytes, size, off_t(offset));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0)
                throw Error(ErrorCode::output_failed,
                            std::string("cannot read a scratch file: ") + std::strerror(errno));
            if (n == 0) {  // never written: a tile that is missing
                std::memset(bytes, 0, size);
                return;
            }
            bytes += n, size -= std::size_t(n), offset += std::uint64_t(n);
        }
    }

private:
    int fd_ = -1;
};

void check(CancelFlag const* cancel) {
    if (cancel != nullptr && cancel->requested())
        throw Error(ErrorCode::cancelled, "cancelled while writing the whole picture");
}

// `text` as a JavaScript string literal.
std::string script_string(std::string const& text) {
    std::string out = "\"";
    for (char c : text) {
        switch (c) {
            case '\\':
                out += "\\\\";
                break;
            case '"':
                out += "\\\"";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            case '<':  // never "</script>"
                out += "\\u003c";
                break;
            default:
                out += c;
        }
    }
    return out + "\"";
}

}  // namespace

void write_text_file(std::string const& path, std::string const& text) {
    OutputFile file(path);
    {
        std::ofstream out(file.temporary_path(), std::ios::binary | std::ios::trunc);
        out << text;
        out.flush();
        if (!out) throw Error(ErrorCode::output_failed, "cannot write '" + path + "'");
    }
    file.commit();
}

void assemble_level(TileStore const& store, unsigned level, std::uint32_t width,
                    std::string const& path, FileFormat file, CancelFlag const* cancel) {
    PixelFormat const format = store.format();
    Size const tile = store.tile_size();
    std::uint64_t const pixel = std::uint64_t(format.pixel_bytes());
    std::uint64_t const row_bytes = pixel * width;
    std::size_t const folder_end = path.find_last_of('/');
    ScratchFile rows(folder_end == std::string::npos ? "." : path.substr(0, folder_end));
    // Tiles into the scratch file, row-major over the whole picture, so
    // that only one tile is decoded at a time.
    for (std::uint32_t x0 = 0, t = 0; x0 < width; x0 += std::uint32_t(tile.width), ++t) {
        check(cancel);
        if (!store.has_tile(level, 0, t)) continue;
        Image const pixels = store.read_tile(level, 0, t);
        std::uint64_t const columns =
            std::min<std::uint64_t>(std::uint64_t(tile.width), width - x0);
        for (std::ptrdiff_t y = 0; y < tile.height; ++y)
            rows.write_at(pixels.view().pixel(0, y), columns * pixel,
                          std::uint64_t(y) * row_bytes + x0 * pixel);
    }
    OutputFile output(path);
    RasterWriter writer(output.temporary_path(), output.path(), file, format,
                        Size{std::ptrdiff_t(width), tile.height});
    std::ptrdiff_t const band = std::clamp<std::ptrdiff_t>(
        std::ptrdiff_t((std::uint64_t(1) << 20) / std::max<std::uint64_t>(row_bytes, 1)), 1,
        tile.height);
    Image buffer(format, Size{std::ptrdiff_t(width), band});
    for (std::ptrdiff_t y = 0; y < tile.height; y += band) {
        check(cancel);
        std::ptrdiff_t const n = std::min(band, tile.height - y);
        rows.read_at(buffer.view().data, std::size_t(row_bytes) * std::size_t(n),
                     std::uint64_t(y) * row_bytes);
        writer.write_rows(std::as_const(buffer).view().crop(0, 0, std::ptrdiff_t(width), n));
    }
    writer.finish();
    output.commit();
}

void write_viewer(std::string const& folder, std::string const& description) {
    write_text_file(folder + "/tapestry.js",
                    "// The tapestry's description, for pages opened from disk.\n"
                    "var WEFTMAP_TAPESTRY_JSON = " +
                        script_string(description) + ";\n");
    write_text_file(folder + "/index.html", viewer_page);
}

}  // namespace WM::host::detail
