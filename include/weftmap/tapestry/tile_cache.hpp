// Where a tapestry's result goes: tile caches written by the host, the
// library's small adapters over them, and the reverse index map encoding.
// Tiles are vertical strips of equal width over the full picture height,
// numbered from the left; tile coordinates are pixels of the finished picture.
#pragma once

#include <weftmap/frame/export.hpp>
#include <weftmap/image/pixel_types.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <cstdint>
#include <iosfwd>
#include <vector>

namespace WM {

using IndexMapView = View<rgb8_pixel_t>;
using IndexMapImage = RecycledImage<rgb8_pixel_t>;

// A reverse index map pixel holds the frame number plus one (0: no frame),
// little-endian over red, green and blue.
inline rgb8_pixel_t IndexMapPixel(std::uint32_t value) {
    return rgb8_pixel_t(static_cast<unsigned char>(value & 255u),
                        static_cast<unsigned char>((value & 65535u) / 256u),
                        static_cast<unsigned char>(value / 65536u));
}
inline std::uint32_t IndexMapValue(rgb8_pixel_t const& p) {
    return std::uint32_t(p[0]) | std::uint32_t(p[1]) << 8 | std::uint32_t(p[2]) << 16;
}

// One picture in tiles, written by the host. In GetPixels, SetPixels and
// SetIndexMapPixels `position` is where the view's top-left lies in the
// tile's coordinates; it may be negative, and the part of the view outside
// the tile is left alone. SetPixels makes the tile exist. TileExists should
// answer false for negative numbers.
template <class Pixel>
class TapestryTileCache {
public:
    using view_t = View<Pixel>;

    virtual ~TapestryTileCache() = default;
    virtual Point GetTileSize() const = 0;
    virtual bool TileExists(int tile) const = 0;
    virtual bool ReverseMapTileExists(int tile) { return (void)tile, false; }
    virtual void GetPixels(int tile, view_t& out, Point position) const = 0;
    virtual void SetPixels(int tile, view_t const& in, Point position) = 0;
    virtual void SetIndexMapPixels(unsigned tile, IndexMapView& in, Point position) {
        (void)tile, (void)in, (void)position;
    }
    virtual void OutputJSON(std::ostream& out) const { (void)out; }
};

// A whole picture held as one tile in a borrowed image: the in-memory form
// of a single tapestry.
template <class Pixel>
class WEFTMAP_API OneTileCache : public TapestryTileCache<Pixel> {
public:
    using view_t = View<Pixel>;

    explicit OneTileCache(RecycledImage<Pixel>* image, IndexMapImage* index_map = nullptr)
        : image(image), index_map(index_map) {}

    Point GetTileSize() const override;
    bool TileExists(int tile) const override;
    bool ReverseMapTileExists(int tile) override;
    void GetPixels(int tile, view_t& out, Point position) const override;
    // Any tile number marks the one tile as existing.
    void SetPixels(int tile, view_t const& in, Point position) override;
    void SetIndexMapPixels(unsigned tile, IndexMapView& in, Point position) override;
    void OutputJSON(std::ostream& out) const override;
    virtual unsigned GetTileCount() const;  // 1
    virtual unsigned GetTileWidth() const;  // the image's width

    bool has_tile = false;
    bool has_index_map = false;
    RecycledImage<Pixel>* image;  // borrowed
    IndexMapImage* index_map;     // borrowed, may be null
};

// Levels, each with its in-betweens, each in tiles, written by the host.
// In-between 0 of a level is the level's own tapestry; in-betweens 1 to n
// lead towards the next level. The index map exists per level only.
template <class Pixel>
class WEFTMAP_API MultiTapestryTileCache {
public:
    using view_t = View<Pixel>;

    virtual ~MultiTapestryTileCache() = default;
    virtual Point GetTileSize() const = 0;
    virtual unsigned GetTileCount(unsigned level, unsigned inbetween) const = 0;
    virtual bool TileExists(unsigned level, unsigned inbetween, unsigned tile) const = 0;
    virtual bool IndexMapTileExists(unsigned level, unsigned tile) const = 0;
    // Whether the in-betweens of that level tile are built; true at least
    // after MarkAnimationTile(level, tile).
    virtual bool AdjacentTileExists(unsigned level, unsigned tile) const = 0;
    virtual void MarkAnimationTile(unsigned level, unsigned tile) = 0;
    virtual void ReadTile(unsigned level, unsigned inbetween, unsigned tile, view_t& out,
                          Point position) const = 0;
    virtual void ReadIndexMapTile(unsigned level, unsigned tile, IndexMapView& out,
                                  Point position) const = 0;
    virtual void WriteTile(unsigned level, unsigned inbetween, unsigned tile, view_t const& in,
                           Point position) = 0;
    virtual void WriteIndexMapTile(unsigned level, unsigned tile, IndexMapView const& in,
                                   Point position) = 0;
    // The body of the "tile_info" object of the JSON description.
    virtual void OutputJSON(std::ostream& out) const { (void)out; }

    // Picture-wide access across tiles, `origin` the view's top-left in the
    // picture (not negative). A missing tile reads as zeros, with a warning
    // on the diagnostic channel; writes go to every tile touched.
    void GetPixels(unsigned level, unsigned inbetween, view_t& out, Point origin) const;
    void SetPixels(unsigned level, unsigned inbetween, view_t const& in, Point origin);
    void GetIndexMapPixels(unsigned level, IndexMapView& out, Point origin) const;
    void SetIndexMapPixels(unsigned level, IndexMapView& in, Point origin);
};

// One level and in-between of a multi cache seen as a plain cache.
template <class Pixel>
class WEFTMAP_API MultiTileCacheAdaptor : public TapestryTileCache<Pixel> {
public:
    using view_t = View<Pixel>;

    MultiTileCacheAdaptor(unsigned level, unsigned inbetween, MultiTapestryTileCache<Pixel>* cache)
        : level(level), inbetween(inbetween), cache(cache) {}

    Point GetTileSize() const override;
    bool TileExists(int tile) const override;
    void GetPixels(int tile, view_t& out, Point position) const override;
    void SetPixels(int tile, view_t const& in, Point position) override;
    void SetIndexMapPixels(unsigned tile, IndexMapView& in, Point position) override;
    virtual void GetIndexMapPixels(unsigned tile, IndexMapView& out, Point position) const;

    std::uint32_t level;
    std::uint32_t inbetween;
    MultiTapestryTileCache<Pixel>* cache;  // borrowed
};

// All levels of a multi-level tapestry in memory: levels[l][0] is level l,
// levels[l][i] its in-between i; one reverse index map per level.
template <class Pixel>
struct UntiledMultiTapestry {
    std::vector<std::vector<RecycledImage<Pixel>>> levels;
    std::vector<IndexMapImage> index_maps;
};

// A common base for a host's store of index map tables: a list of frame
// numbers and one number of the host's choosing. The library never uses it.
class WEFTMAP_API TapestryIndexMapBase {
public:
    TapestryIndexMapBase();
    TapestryIndexMapBase(std::vector<std::uint32_t> frame_numbers, std::int32_t level);
    TapestryIndexMapBase(TapestryIndexMapBase const& other);
    TapestryIndexMapBase& operator=(TapestryIndexMapBase const& other);
    virtual ~TapestryIndexMapBase();

    std::vector<std::uint32_t> frame_numbers;
    std::int32_t level = 0;
};

}  // namespace WM
