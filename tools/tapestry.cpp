#include "tapestry.hpp"

#include "errors.hpp"
#include "interrupt.hpp"
#include "progress.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/tapestry.hpp>

#include <sys/stat.h>

#include <cstdio>

namespace weftmap_tool {
namespace {

namespace host = WM::host;

bool is_folder(std::string const& path) {
    struct stat s = {};
    return stat(path.c_str(), &s) == 0 && S_ISDIR(s.st_mode);
}

bool selects_all(host::FrameSelection const& s) {
    return s.first == 0 && s.end < 0 && s.step == 1;
}

}  // namespace

int run_tapestry(Arguments const& args) {
    std::string const& input = args.files[0];
    std::string const& folder = args.files[1];
    TapestryArguments const& t = args.tapestry;
    if (!args.options.empty() || args.mode || args.comparator != host::Comparator::translate)
        warn("--set, --mode and --comparator do not apply to tapestries; they are ignored");

    host::Options options;
    options.seed = args.seed;
    options.bands = args.threads;
    options.scalar_kernels = args.scalar;
    options.cancel = &interrupt_flag();

    try {
        std::unique_ptr<host::FrameSequence> frames;
        if (is_folder(input)) {
            frames = host::open_frame_folder(input);
            if (!selects_all(t.frames)) frames = host::select_frames(std::move(frames), t.frames);
        } else {
            if (!args.quiet)
                std::fprintf(stderr, "weftmap: decoding '%s' with ffmpeg\n", input.c_str());
            host::decode_video(input, folder + "/frames", t.frames, options);
            frames = host::open_frame_folder(folder + "/frames");
        }
        host::TapestryOptions tapestry = t.tapestry;
        tapestry.first_frame = t.frames.first;
        tapestry.frame_step = t.frames.step;

        host::TapestryResult result;
        {
            ProgressDisplay progress("tapestry", !args.quiet);
            options.progress = [&progress](float fraction) { progress.update(fraction); };
            result = host::make_tapestry(*frames, folder, tapestry, options);
        }
        if (!args.quiet) {
            std::fprintf(stderr,
                         "weftmap: %td frames of %s in %zu level(s), tiles of %s, %zu file(s) "
                         "made now\n",
                         result.frames, host::size_text(result.frame_size).c_str(),
                         result.level_sizes.size(), host::size_text(result.tile_size).c_str(),
                         result.files_made);
            for (std::size_t l = 0; l < result.pictures.size(); ++l)
                std::fprintf(stderr, "weftmap: level %zu: %s/%s (%s)\n", l, folder.c_str(),
                             result.pictures[l].c_str(),
                             host::size_text(result.level_sizes[l]).c_str());
            std::fprintf(stderr, "weftmap: viewer: %s/index.html\n", folder.c_str());
        }
        return exit_ok;
    } catch (host::Error const& e) {
        if (e.code() != host::ErrorCode::cancelled && !interrupt_requested()) throw;
        std::fprintf(stderr,
                     "weftmap: cancelled; the finished tiles stay in '%s' and the same command "
                     "resumes from them\n",
                     folder.c_str());
        return 128 + (interrupt_signal() != 0 ? interrupt_signal() : 2);
    }
}

}  // namespace weftmap_tool
