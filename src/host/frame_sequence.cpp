// Frame sequences: numbered pictures in a folder, a selection of them,
// frames scaled on the way, and videos decoded by the ffmpeg program.
#include "dispatch.hpp"
#include "library_errors.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/raster_file.hpp>
#include <weftmap/host/tapestry.hpp>
#include <weftmap/image/resample.hpp>

#include <boost/gil/algorithm.hpp>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>
#include <thread>

extern char** environ;

namespace WM::host {

FrameSequence::~FrameSequence() = default;

namespace {

namespace fs = std::filesystem;

bool is_picture_name(std::string const& name) {
    std::string extension = fs::path(name).extension().string();
    for (char& c : extension) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return extension == ".png" || extension == ".jpg" || extension == ".jpeg" ||
           extension == ".tif" || extension == ".tiff";
}

// The last run of digits in a name ("frame_0012.png" -> 12), -1 without one.
long long number_in(std::string const& name) {
    std::size_t end = name.find_last_of("0123456789");
    if (end == std::string::npos) return -1;
    std::size_t begin = end;
    while (begin > 0 && std::isdigit(static_cast<unsigned char>(name[begin - 1]))) --begin;
    std::string const digits = name.substr(begin, std::min<std::size_t>(end + 1 - begin, 18));
    return std::stoll(digits);
}

class FolderFrames : public FrameSequence {
public:
    explicit FolderFrames(std::string const& folder) {
        std::error_code error;
        if (!fs::is_directory(folder, error))
            throw Error(ErrorCode::invalid_input, "'" + folder + "' is not a folder");
        for (auto const& entry : fs::directory_iterator(folder, error)) {
            std::string const name = entry.path().filename().string();
            if (name.empty() || name[0] == '.' || !is_picture_name(name)) continue;
            if (!entry.is_regular_file(error)) continue;
            paths_.push_back(entry.path().string());
        }
        if (error)
            throw Error(ErrorCode::invalid_input,
                        "cannot list '" + folder + "': " + error.message());
        if (paths_.empty())
            throw Error(ErrorCode::invalid_input,
                        "'" + folder + "' holds no PNG, JPEG or TIFF frames");
        std::sort(paths_.begin(), paths_.end(), [](std::string const& a, std::string const& b) {
            long long const na = number_in(fs::path(a).filename().string());
            long long const nb = number_in(fs::path(b).filename().string());
            return na != nb ? na < nb : a < b;
        });
        RasterReader const first(paths_.front());
        size_ = first.size();
        format_ = first.format();
    }

    std::ptrdiff_t frame_count() const override { return std::ptrdiff_t(paths_.size()); }
    Size frame_size() const override { return size_; }
    PixelFormat format() const override { return format_; }

    void read_frame(std::ptrdiff_t index, ImageView const& out) const override {
        std::string const& path = paths_.at(static_cast<std::size_t>(index));
        RasterReader reader(path);
        if (reader.size() != size_)
            throw Error(ErrorCode::invalid_input, "'" + path + "' is " + size_text(reader.size()) +
                                                      " but '" + paths_.front() + "' is " +
                                                      size_text(size_) +
                                                      "; all frames must have one size");
        reader.read_rows(out);
    }

private:
    std::vector<std::string> paths_;
    Size size_;
    PixelFormat format_;
};

class SelectedFrames : public FrameSequence {
public:
    SelectedFrames(std::unique_ptr<FrameSequence> frames, FrameSelection s)
        : frames_(std::move(frames)), selection_(s) {
        std::ptrdiff_t const n = frames_->frame_count();
        std::ptrdiff_t const end = s.end < 0 ? n : std::min(s.end, n);
        if (s.first < 0 || s.step < 1 || s.first >= end)
            throw Error(ErrorCode::invalid_input,
                        "the frame selection " + std::to_string(s.first) + ":" +
                            (s.end < 0 ? std::string() : std::to_string(s.end)) + ":" +
                            std::to_string(s.step) + " picks no frame of " + std::to_string(n));
        count_ = (end - s.first + s.step - 1) / s.step;
    }
    std::ptrdiff_t frame_count() const override { return count_; }
    Size frame_size() const override { return frames_->frame_size(); }
    PixelFormat format() const override { return frames_->format(); }
    void read_frame(std::ptrdiff_t index, ImageView const& out) const override {
        frames_->read_frame(selection_.first + index * selection_.step, out);
    }

private:
    std::unique_ptr<FrameSequence> frames_;
    FrameSelection selection_;
    std::ptrdiff_t count_ = 0;
};

class ScaledFrames : public FrameSequence {
public:
    ScaledFrames(std::unique_ptr<FrameSequence> frames, Size size)
        : frames_(std::move(frames)), size_(size) {
        if (size.width < 1 || size.height < 1)
            throw Error(ErrorCode::invalid_input, "frames cannot be scaled to " + size_text(size));
    }
    std::ptrdiff_t frame_count() const override { return frames_->frame_count(); }
    Size frame_size() const override { return size_; }
    PixelFormat format() const override { return frames_->format(); }
    void read_frame(std::ptrdiff_t index, ImageView const& out) const override {
        Image original(frames_->format(), frames_->frame_size());
        frames_->read_frame(index, original.view());
        detail::visit_format(frames_->format(), [&](auto tag) {
            using Pixel = typename decltype(tag)::type;
            RecycledImage<Pixel> scaled;
            detail::translating_errors([&] {
                resample<Pixel>(detail::packed_view<Pixel>(std::as_const(original).view()), scaled,
                                Point(size_.width, size_.height), ResampleBilinear, -1);
            });
            ImageView const from(scaled.memory(), frames_->format(), scaled.width(),
                                 scaled.height());
            convert(from, out);
        });
    }

private:
    std::unique_ptr<FrameSequence> frames_;
    Size size_;
};

bool executable_on_path(std::string const& program) {
    char const* path = std::getenv("PATH");
    std::stringstream folders(path != nullptr ? path : "/usr/bin:/bin");
    std::string folder;
    while (std::getline(folders, folder, ':'))
        if (!folder.empty() && access((folder + "/" + program).c_str(), X_OK) == 0) return true;
    return false;
}

std::string selection_text(FrameSelection s) {
    return std::to_string(s.first) + ":" + std::to_string(s.end) + ":" + std::to_string(s.step);
}

// Runs `argv`, its standard error into `log`; stops it when `cancel` is
// raised. Returns its exit status, or -1 when cancelled.
int run_program(std::vector<std::string> const& argv, std::string const& log,
                CancelFlag const* cancel) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char*> args;
    for (auto const& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    pid_t child = 0;
    int const spawned = posix_spawnp(&child, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0) return 127;
    int status = 0;
    bool stopped = false;
    for (;;) {
        pid_t const done = waitpid(child, &status, WNOHANG);
        if (done == child) break;
        if (done < 0 && errno != EINTR) return 127;
        if (!stopped && cancel != nullptr && cancel->requested()) {
            kill(child, SIGTERM);
            stopped = true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (stopped) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string first_line_of(std::string const& path) {
    std::ifstream in(path);
    std::string line, last;
    while (std::getline(in, line))
        if (!line.empty()) last = line;
    return last;
}

}  // namespace

std::unique_ptr<FrameSequence> open_frame_folder(std::string const& folder) {
    return std::make_unique<FolderFrames>(folder);
}

std::unique_ptr<FrameSequence> select_frames(std::unique_ptr<FrameSequence> frames,
                                             FrameSelection selection) {
    return std::make_unique<SelectedFrames>(std::move(frames), selection);
}

std::unique_ptr<FrameSequence> scale_frames(std::unique_ptr<FrameSequence> frames, Size size) {
    if (frames->frame_size() == size) return frames;
    return std::make_unique<ScaledFrames>(std::move(frames), size);
}

bool video_decoder_available() {
    return executable_on_path("ffmpeg");
}

void decode_video(std::string const& video, std::string const& folder, FrameSelection selection,
                  Options const& options) {
    std::error_code error;
    if (!fs::is_regular_file(video, error))
        throw Error(ErrorCode::invalid_input, "'" + video + "' is neither a folder nor a file");
    if (!video_decoder_available())
        throw Error(ErrorCode::invalid_input,
                    "reading the video '" + video +
                        "' needs the ffmpeg program, which is not installed (on Debian or "
                        "Ubuntu: apt-get install ffmpeg); or give a folder of numbered frames");
    // A finished decoding of the same selection is kept.
    std::string const done_marker = folder + "/.decoded";
    std::string const wanted = selection_text(selection) + " " + video;
    {
        std::ifstream done(done_marker);
        std::string line;
        if (done && std::getline(done, line) && line == wanted) return;
    }
    fs::remove_all(folder, error);
    fs::create_directories(folder, error);
    if (error)
        throw Error(ErrorCode::output_failed,
                    "cannot make the frame folder '" + folder + "': " + error.message());

    std::vector<std::string> argv{"ffmpeg", "-nostdin", "-hide_banner", "-loglevel",
                                  "error",  "-i",       video};
    if (selection.first != 0 || selection.end >= 0 || selection.step != 1) {
        std::string filter = "select='gte(n\\," + std::to_string(selection.first) + ")";
        if (selection.end >= 0) filter += "*lt(n\\," + std::to_string(selection.end) + ")";
        if (selection.step != 1)
            filter += "*not(mod(n-" + std::to_string(selection.first) + "\\," +
                      std::to_string(selection.step) + "))";
        argv.insert(argv.end(), {"-vf", filter + "'", "-vsync", "0"});
    }
    // Lossless frames, quick to write.
    argv.insert(argv.end(), {"-compression_level", "1", "-f", "image2", folder + "/%07d.png"});
    std::string const log = folder + "/.ffmpeg.log";
    int const status = run_program(argv, log, options.cancel);
    if (status < 0) {
        fs::remove_all(folder, error);
        throw Error(ErrorCode::cancelled, "cancelled while decoding '" + video + "'");
    }
    std::ptrdiff_t frames = 0;
    for (auto const& entry : fs::directory_iterator(folder, error))
        frames += is_picture_name(entry.path().filename().string());
    if (status != 0 || frames == 0) {
        std::string const why = first_line_of(log);
        throw Error(ErrorCode::invalid_input,
                    "ffmpeg cannot read '" + video + "'" +
                        (why.empty() ? (frames == 0 && status == 0
                                            ? std::string(": the selection holds no frame")
                                            : std::string())
                                     : ": " + why));
    }
    std::ofstream(done_marker) << wanted << "\n";
}

}  // namespace WM::host
