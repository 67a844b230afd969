// Pictures and checks of them for the kit's tests and the tool tests' probe:
// the test texture, discs, TIFF files in layouts the kit never writes
// (straight from the codec), and what a fill must keep.
#pragma once

#include "host/dispatch.hpp"
#include "support/helpers.hpp"

#include <weftmap/host/image.hpp>

#include <tiffio.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace WM::host::test {

// The test texture in `format`.
inline Image texture(PixelFormat format, Size size) {
    Image image(format, size);
    detail::visit_format(format, [&](auto tag) {
        using Pixel = typename decltype(tag)::type;
        WM::test::paint_texture(detail::packed_view<Pixel>(image.view()));
    });
    return image;
}

// 255 in a disc, 0 elsewhere, `edge` on its rim.
inline Image disc_mask(Size size, double cx, double cy, double r, unsigned char edge = 0) {
    Image mask(mask_format, size);
    WM::test::paint_disc(detail::packed_view<gray8_pixel_t>(mask.view()), cx, cy, r, edge);
    return mask;
}

// Whether every pixel outside `hole` came through unchanged.
inline bool known_pixels_kept(ConstImageView const& input, ConstImageView const& hole,
                              ConstImageView const& output) {
    for (std::ptrdiff_t y = 0; y < input.height; ++y)
        for (std::ptrdiff_t x = 0; x < input.width; ++x)
            if (*hole.pixel(x, y) == 0 &&
                std::memcmp(input.pixel(x, y), output.pixel(x, y), input.format.pixel_bytes()) != 0)
                return false;
    return true;
}

// The PSNR of `output` against `input` inside `hole`, in dB.
inline double psnr_in_hole(ConstImageView const& input, ConstImageView const& hole,
                           ConstImageView const& output) {
    return detail::visit_format(input.format, [&](auto tag) {
        using Pixel = typename decltype(tag)::type;
        return WM::test::psnr_where(detail::packed_view<Pixel>(input),
                                    detail::packed_view<Pixel>(output),
                                    detail::packed_view<gray8_pixel_t>(hole));
    });
}

struct TiffLayout {
    bool tiled = false;     // 16x16 tiles, else strips of 16 rows
    bool separate = false;  // a plane per sample
    bool alpha = false;     // an alpha sample after the colour
    bool big = false;       // the 64-bit offsets of large files
    bool signed_integer = false;
};

// `image` uncompressed in `layout`, without resolution tags. Padding of edge
// tiles and alpha get marks that must never reach a picture read back.
inline void write_tiff(std::string const& path, Image const& image, TiffLayout layout) {
    TIFF* tif = TIFFOpen(path.c_str(), layout.big ? "w8" : "w");
    if (tif == nullptr) throw std::runtime_error(path + ": cannot create");
    PixelFormat const f = image.format();
    int const colour = f.channels(), samples = colour + layout.alpha, bytes = f.channel_bytes();
    std::uint32_t const w = std::uint32_t(image.width()), h = std::uint32_t(image.height());
    TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, w);
    TIFFSetField(tif, TIFFTAG_IMAGELENGTH, h);
    TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, samples);
    TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 8 * bytes);
    TIFFSetField(tif, TIFFTAG_SAMPLEFORMAT,
                 layout.signed_integer   ? SAMPLEFORMAT_INT
                 : f.depth == Depth::f32 ? SAMPLEFORMAT_IEEEFP
                                         : SAMPLEFORMAT_UINT);
    TIFFSetField(tif, TIFFTAG_PHOTOMETRIC,
                 colour == 1   ? PHOTOMETRIC_MINISBLACK
                 : colour == 3 ? PHOTOMETRIC_RGB
                               : PHOTOMETRIC_SEPARATED);
    TIFFSetField(tif, TIFFTAG_PLANARCONFIG,
                 layout.separate ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
    if (layout.alpha) {
        std::uint16_t const kind = EXTRASAMPLE_ASSOCALPHA;
        TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, 1, &kind);
    }
    std::uint32_t const bw = layout.tiled ? 16 : w, bh = 16;
    TIFFSetField(tif, layout.tiled ? TIFFTAG_TILEWIDTH : TIFFTAG_ROWSPERSTRIP,
                 layout.tiled ? bw : bh);
    if (layout.tiled) TIFFSetField(tif, TIFFTAG_TILELENGTH, bh);
    int const planes = layout.separate ? samples : 1;
    int const block_samples = layout.separate ? 1 : samples;
    std::vector<unsigned char> block(std::size_t(bw) * bh * block_samples * bytes);
    for (int plane = 0; plane < planes; ++plane)
        for (std::uint32_t y0 = 0; y0 < h; y0 += bh)
            for (std::uint32_t x0 = 0; x0 < w; x0 += bw) {
                std::uint32_t const rows = layout.tiled ? bh : std::min(bh, h - y0);
                unsigned char* p = block.data();
                for (std::uint32_t y = y0; y < y0 + rows; ++y)
                    for (std::uint32_t x = x0; x < x0 + bw; ++x)
                        for (int s = 0; s < block_samples; ++s, p += bytes) {
                            int const sample = layout.separate ? plane : s;
                            if (x >= w || y >= h || sample >= colour)
                                std::memset(p, 0xA5, bytes);
                            else
                                std::memcpy(p, image.view().pixel(x, y) + sample * bytes, bytes);
                        }
                tmsize_t const size = p - block.data();
                tmsize_t const written =
                    layout.tiled ? TIFFWriteEncodedTile(tif, TIFFComputeTile(tif, x0, y0, 0, plane),
                                                        block.data(), size)
                                 : TIFFWriteEncodedStrip(tif, TIFFComputeStrip(tif, y0, plane),
                                                         block.data(), size);
                if (written != size) throw std::runtime_error(path + ": cannot write");
            }
    TIFFClose(tif);
}

}  // namespace WM::host::test
