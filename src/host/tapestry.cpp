// A tapestry run: the plan (frame and tile sizes), the settings record that
// keeps a folder to one tapestry, the library's factory over the frames and
// the disk cache in the pixel type of the frames, then the whole pictures,
// the description and the viewer.
#include "disk_tile_cache.hpp"
#include "dispatch.hpp"
#include "library_errors.hpp"
#include "run_client.hpp"
#include "tapestry_files.hpp"
#include "tile_store.hpp"

#include <weftmap/frame/exceptions.hpp>
#include <weftmap/host/errors.hpp>
#include <weftmap/host/runtime.hpp>
#include <weftmap/host/synthesis.hpp>
#include <weftmap/host/tapestry.hpp>
#include <weftmap/tapestry/multi_tapestry_factory.hpp>
#include <weftmap/tapestry/tapestry_factory.hpp>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <list>
#include <sstream>

namespace WM::host {
namespace {

namespace fs = std::filesystem;
using Formulas = TapestryFactory<gray8_pixel_t>;

// The client of a tapestry run. The library never polls the cancel flag
// while it builds a level tile, so progress reports, which come several
// times a second from inside a tile, stop the run when it is raised.
template <class Pixel>
class TapestryClient : public detail::RunClient<Pixel> {
public:
    using detail::RunClient<Pixel>::RunClient;

    void updateProgress(float fraction) override {
        detail::RunClient<Pixel>::updateProgress(offset + scale * fraction);
        stop_if_asked();
    }
    void stop_if_asked() {
        if (this->checkAbort()) raise("WEFTMAP_USER_CANCELED");
    }

    // Where this phase lies in the whole job.
    float offset = 0.0f;
    float scale = 1.0f;
};

// The frames in the library's terms, a few recently used ones kept decoded.
template <class Pixel>
class SequenceSource : public TapestryFrameSource<Pixel> {
public:
    SequenceSource(FrameSequence const& frames, TapestryClient<Pixel>& client, unsigned seed,
                   std::size_t kept)
        : frames_(frames), client_(client), seed_(seed), kept_(std::max<std::size_t>(kept, 1)) {}

    int GetFrameCount() const override { return static_cast<int>(frames_.frame_count()); }
    Point GetFrameSize() const override {
        return Point(frames_.frame_size().width, frames_.frame_size().height);
    }
    void GetFramePixels(int frame, View<Pixel>& out, Point offset) const override {
        client_.stop_if_asked();
        detail::paste_clipped(detail::packed_view<Pixel>(std::as_const(decoded(frame)).view()), out,
                              offset);
        // A tile's synthesis follows the layout of its frames: its random
        // choices then depend on the tile alone, not on the run's history.
        detail::reseed(seed_, {frame, offset.x, offset.y});
    }

private:
    Image& decoded(int frame) const {
        auto const found = std::find_if(recent_.begin(), recent_.end(),
                                        [&](auto const& entry) { return entry.first == frame; });
        if (found != recent_.end()) {
            recent_.splice(recent_.begin(), recent_, found);
        } else {
            if (recent_.size() >= kept_) recent_.pop_back();
            Image pixels(detail::format_of<Pixel>(), frames_.frame_size());
            frames_.read_frame(frame, pixels.view());
            recent_.emplace_front(frame, std::move(pixels));
        }
        return recent_.front().second;
    }

    FrameSequence const& frames_;
    TapestryClient<Pixel>& client_;
    unsigned seed_;
    std::size_t kept_;
    mutable std::list<std::pair<int, Image>> recent_;
};

// The library's factory with its in-between count planned in, and an
// in-between pass that skips the tiles an earlier run finished.
template <class Pixel>
class ResumingFactory : public MultiTapestryFactory<Pixel> {
public:
    ResumingFactory(TapestryFrameSource<Pixel> const& source, ClientBase<Pixel>* client,
                    unsigned levels, int inbetweens)
        : MultiTapestryFactory<Pixel>(source, client, levels) {
        this->inbetweens = inbetweens;
        this->PrecomputeWidths(levels);
    }

    // The part of the whole job that the levels take.
    float level_share(unsigned tile_width) {
        this->PrepareProgressTable(tile_width, true, true);
        return this->progress_table.at(this->frame_lists.size());
    }

    void construct_inbetweens(MultiTapestryTileCache<Pixel>& cache) {
        unsigned const levels = static_cast<unsigned>(this->frame_lists.size());
        this->PrepareProgressTable(static_cast<unsigned>(cache.GetTileSize().x), true, true);
        for (unsigned l = 0; l < levels; ++l) this->AdvanceProgress();
        for (unsigned l = 1; l < levels; ++l)
            for (unsigned t = 0, n = cache.GetTileCount(l, 0); t < n; ++t) {
                if (!cache.AdjacentTileExists(l, t)) {
                    this->ConstructAnimationTiles(cache, l, t);
                    continue;
                }
                for (int i = 0; i <= this->inbetweens; ++i) this->AdvanceProgress();
            }
    }
};

// Another's sequence, borrowed, for the wrappers that own what they wrap.
class BorrowedFrames : public FrameSequence {
public:
    explicit BorrowedFrames(FrameSequence const& frames) : frames_(frames) {}
    std::ptrdiff_t frame_count() const override { return frames_.frame_count(); }
    Size frame_size() const override { return frames_.frame_size(); }
    PixelFormat format() const override { return frames_.format(); }
    void read_frame(std::ptrdiff_t index, ImageView const& out) const override {
        frames_.read_frame(index, out);
    }

private:
    FrameSequence const& frames_;
};

struct Plan {
    Size frame;
    Size tile;
    std::ptrdiff_t frames = 0;
    PixelFormat format;
    unsigned seed = 1;
};

std::string settings_text(Plan const& plan, TapestryOptions const& t) {
    std::ostringstream text;
    text << "frames " << plan.frames << ", frame " << size_text(plan.frame) << " "
         << format_name(plan.format) << ", tile " << size_text(plan.tile) << ", levels " << t.levels
         << ", in-betweens " << (t.levels > 1 ? t.inbetweens : 0) << ", index maps "
         << (t.index_map ? "yes" : "no");
    return text.str();
}

// A folder holds one tapestry: its settings are recorded before the first
// tile, and another run with other settings is refused.
void claim_folder(std::string const& folder, std::string const& settings) {
    std::string const path = folder + "/.tapestry-settings";
    std::ifstream in(path);
    std::string recorded;
    if (in && std::getline(in, recorded)) {
        if (recorded == settings) return;
        throw Error(ErrorCode::invalid_input,
                    "'" + folder + "' holds a tapestry made with other settings (" + recorded +
                        "; now " + settings +
                        "); remove the folder or choose another to start afresh");
    }
    detail::write_text_file(path, settings + "\n");
}

bool png_holds(PixelFormat format, std::ptrdiff_t width) {
    return format.depth != Depth::f32 && format.colour != Colour::cmyk && width <= max_side;
}

std::string picture_name(unsigned level, PixelFormat format, std::ptrdiff_t width) {
    std::string const stem = level == 0 ? "tapestry" : "tapestry-level-" + std::to_string(level);
    return stem + (png_holds(format, width) ? ".png" : ".tif");
}

template <class Pixel>
TapestryResult run(FrameSequence const& frames, std::string const& folder, Plan const& plan,
                   TapestryOptions const& t, Options const& options) {
    TapestryClient<Pixel> client(options);
    return client.run([&] {
        TapestryResult result;
        result.frame_size = plan.frame;
        result.tile_size = plan.tile;
        result.frames = plan.frames;

        std::ptrdiff_t const overlap = plan.frame.width / 4;
        // Frames under one tile and its margins in both rows, and a few more.
        std::size_t const kept =
            std::size_t(2 * ((plan.tile.width + 2 * overlap) / plan.frame.width + 2) + 2);
        SequenceSource<Pixel> source(frames, client, plan.seed, kept);
        unsigned const levels = static_cast<unsigned>(t.levels);
        ResumingFactory<Pixel> factory(source, &client, levels, t.levels > 1 ? t.inbetweens : 0);
        factory.generate_index_map = t.index_map;

        detail::TileStore store(folder + "/tiles", plan.format, plan.tile);
        detail::DiskTileCache<Pixel> cache(store, factory.widths);
        cache.seed_base = plan.seed;
        cache.info = {{"index_maps", t.index_map ? "true" : "false"},
                      {"inbetweens", std::to_string(t.levels > 1 ? t.inbetweens : 0)},
                      {"first_frame", std::to_string(t.first_frame)},
                      {"frame_step", std::to_string(t.frame_step)}};

        bool const animate = levels > 1 && t.inbetweens > 0;
        float const share = animate ? factory.level_share(unsigned(plan.tile.width)) : 1.0f;
        client.scale = share;
        factory.Construct(cache, true, false);
        client.scale = 1.0f;
        if (animate) factory.construct_inbetweens(cache);
        result.files_made = store.files_made();

        for (unsigned l = 0; l < levels; ++l) {
            std::uint32_t const width = factory.widths[l][0];
            result.level_sizes.push_back(Size{std::ptrdiff_t(width), plan.tile.height});
            std::string const name = picture_name(l, plan.format, width);
            result.pictures.push_back(name);
            std::string const path = folder + "/" + name;
            if (result.files_made == 0 && fs::exists(path)) continue;
            detail::assemble_level(
                store, l, width, path,
                png_holds(plan.format, width) ? FileFormat::png : FileFormat::tiff, options.cancel);
        }

        std::ostringstream description;
        factory.OutputJSON(description, &cache);
        detail::write_text_file(folder + "/tapestry.json", description.str());
        detail::write_viewer(folder, description.str());
        if (options.progress) options.progress(1.0f);
        return result;
    });
}

}  // namespace

std::ptrdiff_t tapestry_frame_height(std::ptrdiff_t tapestry_height) {
    return std::ptrdiff_t(Formulas::ComputeFrameHeight(std::uint32_t(tapestry_height)));
}

std::ptrdiff_t tapestry_height_of(std::ptrdiff_t frame_height) {
    return std::ptrdiff_t(Formulas::ComputeTapestryHeight(std::uint32_t(frame_height)));
}

TapestryResult make_tapestry(FrameSequence const& frames, std::string const& folder,
                             TapestryOptions const& t, Options const& options) {
    Size const original = frames.frame_size();
    if (frames.frame_count() < 1 || original.width < 1 || original.height < 1)
        throw Error(ErrorCode::invalid_input, "a tapestry needs at least one frame");
    if (frames.frame_count() > std::ptrdiff_t(1) << 30)
        throw Error(ErrorCode::invalid_input, "a tapestry takes at most 2^30 frames");
    if (t.levels < 1 || t.levels > 16)
        throw Error(ErrorCode::invalid_input,
                    "a tapestry has 1 to 16 levels, not " + std::to_string(t.levels));
    if (t.levels > 1 && (t.inbetweens < 0 || t.inbetweens > 100))
        throw Error(ErrorCode::invalid_input,
                    "0 to 100 in-betweens lead from one level to the next, not " +
                        std::to_string(t.inbetweens));

    Plan plan;
    plan.frames = frames.frame_count();
    plan.format = frames.format();
    std::ptrdiff_t const height =
        t.height > 0 ? tapestry_frame_height(t.height)
                     : std::min(original.height, TapestryOptions::default_frame_height);
    std::ptrdiff_t const width = std::max<std::ptrdiff_t>(
        1, std::ptrdiff_t(
               std::lround(double(original.width) * double(height) / double(original.height))));
    plan.frame = Size{width, height};
    if (height < 16 || width < 16)
        throw Error(ErrorCode::invalid_input,
                    "frames of " + size_text(plan.frame) +
                        " are too small for a tapestry; give a larger --height");
    std::ptrdiff_t const tapestry_height = tapestry_height_of(height);
    if (tapestry_height > max_side || width > max_side / 2)
        throw Error(ErrorCode::invalid_input,
                    "frames of " + size_text(plan.frame) + " are too large for a tapestry");
    std::ptrdiff_t const overlap = width / 4;
    std::ptrdiff_t const tile_width =
        t.tile_width > 0 ? t.tile_width : std::max(TapestryOptions::default_tile_width, overlap);
    if (tile_width < overlap || tile_width + 2 * overlap > max_side)
        throw Error(ErrorCode::invalid_input,
                    "tiles of width " + std::to_string(tile_width) +
                        " do not suit frames of width " + std::to_string(width) +
                        "; a tile is at least a quarter of a frame wide (" +
                        std::to_string(overlap) + ")");
    plan.tile = Size{tile_width, tapestry_height};
    if (options.seed)
        plan.seed = *options.seed != 0
                        ? static_cast<unsigned>(*options.seed)
                        : static_cast<unsigned>(
                              std::chrono::steady_clock::now().time_since_epoch().count());

    std::error_code error;
    fs::create_directories(folder, error);
    if (!fs::is_directory(folder))
        throw Error(ErrorCode::output_failed,
                    "cannot make the folder '" + folder + "': " + error.message());
    claim_folder(folder, settings_text(plan, t));

    detail::apply_process_settings(options);
    std::unique_ptr<FrameSequence> scaled;
    if (plan.frame != original)
        scaled = scale_frames(std::make_unique<BorrowedFrames>(frames), plan.frame);
    FrameSequence const& sized = scaled ? *scaled : frames;
    return detail::visit_format(plan.format, [&](auto tag) {
        using Pixel = typename decltype(tag)::type;
        return run<Pixel>(sized, folder, plan, t, options);
    });
}

}  // namespace WM::host
