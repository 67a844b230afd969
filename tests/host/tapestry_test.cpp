// The kit's tapestry: the disk tile cache (positions across tiles, what a
// fresh cache on the same folder sees, writes that never leave a partial
// file) and whole runs that resume from the tiles an interrupted one left.
#include "host/disk_tile_cache.hpp"
#include "host/kit_helpers.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/image_file.hpp>
#include <weftmap/host/runtime.hpp>
#include <weftmap/host/tapestry.hpp>

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace WM::host::test {
namespace {

namespace fs = std::filesystem;
using Gray = gray8_pixel_t;

RecycledImage<Gray> ramp(Point size, int seed) {
    RecycledImage<Gray> image(size);
    for (std::ptrdiff_t y = 0; y < size.y; ++y)
        for (std::ptrdiff_t x = 0; x < size.x; ++x)
            view(image)(x, y)[0] = static_cast<unsigned char>(seed + 7 * x + 3 * y);
    return image;
}

TEST(DiskTileCache, PicturesSpanTilesAndAFreshCacheSeesWhatWasWritten) {
    TempFolder folder;
    Size const tile{10, 6};
    std::vector<std::vector<std::uint32_t>> const widths{{35, 30}, {20}};
    auto picture = ramp(Point(23, 4), 5);
    View<Gray> const written = view(picture);
    {
        detail::TileStore store(folder.path, mask_format, tile);
        detail::DiskTileCache<Gray> cache(store, widths);
        EXPECT_EQ(std::make_tuple(cache.GetTileCount(0, 0), cache.GetTileCount(0, 1),
                                  cache.GetTileCount(1, 0), cache.GetTileCount(2, 0)),
                  std::make_tuple(4u, 3u, 2u, 0u));
        // Columns 7 to 29, rows 1 to 4 of level 0: tiles 0, 1 and 2.
        cache.SetPixels(0, 0, written, Point(7, 1));
        EXPECT_TRUE(cache.TileExists(0, 0, 0) && cache.TileExists(0, 0, 2));
        EXPECT_FALSE(cache.TileExists(0, 0, 3) || cache.TileExists(0, 1, 0) ||
                     cache.TileExists(0, 0, ~0u));
        cache.MarkAnimationTile(1, 1);
        RecycledImage<rgb8_pixel_t> map(Point(4, 6));
        gil::fill_pixels(view(map), IndexMapPixel(70001));
        IndexMapView const map_view = view(map);
        cache.WriteIndexMapTile(1, 0, map_view, Point(8, 0));  // two columns reach the tile
    }
    EXPECT_EQ(folder.names(), (std::vector<std::string>{"0-0-0.png", "0-0-1.png", "0-0-2.png",
                                                        "animated-1-1", "index-1-0.png"}));

    detail::TileStore store(folder.path, mask_format, tile);
    detail::DiskTileCache<Gray> cache(store, widths);
    RecycledImage<Gray> back(Point(23, 4));
    View<Gray> back_view = view(back);
    cache.GetPixels(0, 0, back_view, Point(7, 1));
    EXPECT_TRUE(gil::equal_pixels(back_view, written));
    // A read of one tile at a position: column 7 of tile 1 is picture column 10.
    RecycledImage<Gray> one = WM::test::filled(Point(2, 2), Gray(9));
    View<Gray> one_view = view(one);
    cache.ReadTile(0, 0, 1, one_view, Point(7, 2));
    EXPECT_EQ(one_view(0, 0), written(10, 1));
    // Outside the picture written: zeros, in a tile that exists.
    cache.ReadTile(0, 0, 0, one_view, Point(0, 0));
    EXPECT_EQ(one_view(1, 1), Gray(0));
    EXPECT_TRUE(cache.AdjacentTileExists(1, 1) && !cache.AdjacentTileExists(1, 0));
    EXPECT_TRUE(cache.IndexMapTileExists(1, 0) && !cache.IndexMapTileExists(0, 0));
    RecycledImage<rgb8_pixel_t> map_back(Point(10, 6));
    IndexMapView map_back_view = view(map_back);
    cache.ReadIndexMapTile(1, 0, map_back_view, Point(0, 0));
    EXPECT_EQ(IndexMapValue(map_back_view(8, 3)), 70001u);
    EXPECT_EQ(IndexMapValue(map_back_view(7, 3)), 0u);

    // The description names the files and counts the tiles.
    std::ostringstream info;
    cache.OutputJSON(info);
    EXPECT_NE(info.str().find("\"file_pattern\": \"tiles/{level}-{inbetween}-{tile}.png\""),
              std::string::npos);
    EXPECT_NE(info.str().find("\"tile_counts\": [[4, 3], [2]]"), std::string::npos) << info.str();
}

TEST(DiskTileCache, WritesAreWholeOrNotAtAllAndFloatTilesRoundTrip) {
    TempFolder folder;
    Size const tile{64, 64};
    PixelFormat const rgb32f{Depth::f32, Colour::rgb};
    detail::TileStore store(folder.path, rgb32f, tile);
    EXPECT_EQ(store.tile_name(2, 3, 4), "2-3-4.tif");  // PNG would round the floats
    Image pixels = texture(rgb32f, tile);
    store.write_tile(0, 0, 0, pixels.view());
    EXPECT_TRUE(same_pixels(store.read_tile(0, 0, 0).view(), pixels.view()));

    // A file-size limit fails the next write half way: the tile keeps its
    // old pixels and no temporary file stays.
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit saved = {};
    getrlimit(RLIMIT_FSIZE, &saved);
    rlimit small = saved;
    small.rlim_cur = 4096;
    setrlimit(RLIMIT_FSIZE, &small);
    Image other = texture(rgb32f, tile);
    std::memset(other.view().data, 0x3c, 16);
    ErrorCode const code = code_of([&] { store.write_tile(0, 0, 0, other.view()); });
    setrlimit(RLIMIT_FSIZE, &saved);
    std::signal(SIGXFSZ, SIG_DFL);
    EXPECT_EQ(code, ErrorCode::output_failed);
    EXPECT_EQ(folder.names(), std::vector<std::string>{"0-0-0.tif"});
    EXPECT_TRUE(same_pixels(store.read_tile(0, 0, 0).view(), pixels.view()));

    // A temporary file that a killed process left is cleared, never a tile.
    std::ofstream(folder.path + "/.weftmap-abc123") << "half a tile";
    detail::TileStore again(folder.path, rgb32f, tile);
    EXPECT_EQ(folder.names(), std::vector<std::string>{"0-0-0.tif"});
    EXPECT_TRUE(again.has_tile(0, 0, 0) && !again.has_tile(0, 0, 1));
}

// A pan over the test texture: frame i starts `step` columns further on.
class PanFrames : public FrameSequence {
public:
    PanFrames(PixelFormat format, Size size, std::ptrdiff_t count, std::ptrdiff_t step)
        : scene_(texture(format, Size{size.width + count * step, size.height})),
          size_(size),
          count_(count),
          step_(step) {}
    std::ptrdiff_t frame_count() const override { return count_; }
    Size frame_size() const override { return size_; }
    PixelFormat format() const override { return scene_.format(); }
    void read_frame(std::ptrdiff_t index, ImageView const& out) const override {
        ++reads;
        convert(scene_.view().crop(index * step_, 0, size_.width, size_.height), out);
    }
    mutable int reads = 0;

private:
    Image scene_;
    Size size_;
    std::ptrdiff_t count_, step_;
};

TEST(Tapestry, AnInterruptedRunResumesToTheSamePicture) {
    TempFolder whole, stopped;
    PanFrames const frames({Depth::u8, Colour::rgb}, Size{32, 24}, 9, 5);
    TapestryOptions t;
    t.tile_width = 24;
    t.index_map = true;
    Options options;
    options.bands = 1;
    auto const result = make_tapestry(frames, whole.path, t, options);
    EXPECT_EQ(result.level_sizes, (std::vector<Size>{Size{160, 36}}));
    EXPECT_EQ(result.tile_size, (Size{24, 36}));
    EXPECT_EQ(result.pictures, std::vector<std::string>{"tapestry.png"});
    EXPECT_EQ(result.files_made, 14u);  // 7 tiles and their index maps
    // Frames are read a few times each, not once per tile and frame.
    EXPECT_LE(frames.reads, 2 * 9);

    // Stop the second run once half the progress is reported.
    CancelFlag cancel;
    options.cancel = &cancel;
    options.progress = [&](float f) {
        if (f > 0.5f) cancel.request();
    };
    EXPECT_EQ(code_of([&] { make_tapestry(frames, stopped.path, t, options); }),
              ErrorCode::cancelled);
    std::size_t const kept = stopped.names("tiles").size();
    EXPECT_GT(kept, 0u);
    EXPECT_LT(kept, 14u);
    EXPECT_FALSE(fs::exists(stopped.path + "/tapestry.png"));

    cancel.reset();
    options.progress = nullptr;
    auto const resumed = make_tapestry(frames, stopped.path, t, options);
    EXPECT_EQ(resumed.files_made + kept, 14u);
    for (auto const& name : whole.names("tiles"))
        EXPECT_TRUE(same_pixels(read_image_file(whole.path + "/tiles/" + name).image.view(),
                                read_image_file(stopped.path + "/tiles/" + name).image.view()))
            << name;
    EXPECT_TRUE(same_pixels(read_image_file(whole.path + "/tapestry.png").image.view(),
                            read_image_file(stopped.path + "/tapestry.png").image.view()));
}

TEST(Tapestry, LevelsAndInbetweensResumeAndDescribeTheirTiles) {
    TempFolder folder;
    PanFrames const frames({Depth::u8, Colour::gray}, Size{32, 24}, 8, 6);
    TapestryOptions t;
    t.tile_width = 40;
    t.levels = 2;
    t.inbetweens = 2;
    Options options;
    options.bands = 1;
    auto const result = make_tapestry(frames, folder.path, t, options);
    // 144 and 80 wide: 4 and 2 tiles; the in-betweens 122 and 101 wide get
    // 4 and 3; each tile of level 1 is marked.
    EXPECT_EQ(result.level_sizes, (std::vector<Size>{{144, 36}, {80, 36}}));
    auto const names = folder.names("tiles");
    for (char const* name : {"0-1-3.png", "0-2-2.png", "1-0-1.png", "animated-1-0", "animated-1-1"})
        EXPECT_NE(std::find(names.begin(), names.end(), name), names.end()) << name;
    std::ifstream json(folder.path + "/tapestry.json");
    std::string const text((std::istreambuf_iterator<char>(json)),
                           std::istreambuf_iterator<char>());
    EXPECT_NE(text.find("\"widths\": [[144, 122, 101], [80]]"), std::string::npos) << text;
    EXPECT_NE(text.find("\"level_widths\": [144, 80],"), std::string::npos);
    EXPECT_TRUE(fs::exists(folder.path + "/index.html") &&
                fs::exists(folder.path + "/tapestry.js"));

    // Without the mark of tile 1 only its in-betweens are made again.
    fs::remove(folder.path + "/tiles/animated-1-1");
    auto const level_tile = fs::last_write_time(folder.path + "/tiles/1-0-1.png");
    auto const again = make_tapestry(frames, folder.path, t, options);
    EXPECT_EQ(again.files_made, 1u);
    EXPECT_EQ(fs::last_write_time(folder.path + "/tiles/1-0-1.png"), level_tile);
    EXPECT_TRUE(fs::exists(folder.path + "/tiles/animated-1-1"));
    EXPECT_EQ(make_tapestry(frames, folder.path, t, options).files_made, 0u);
}

}  // namespace
}  // namespace WM::host::test
