#include <weftmap/host/errors.hpp>
#include <weftmap/host/output_file.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace WM::host {
namespace {

// The names of the temporary files alive, where a signal handler can reach
// them without allocating or locking: fixed slots, each claimed with an
// atomic state and holding its path as plain characters.
enum SlotState : int { slot_free, slot_busy, slot_ready };

struct TemporarySlot {
    std::atomic<int> state{slot_free};
    char path[PATH_MAX];
};
static_assert(std::atomic<int>::is_always_lock_free);

constexpr int slot_count = 16;
TemporarySlot g_slots[slot_count];

// The slot now holding `path`, or -1 when none is free (the file is then
// only removed by unwinding).
int remember_temporary(std::string const& path) noexcept {
    if (path.size() >= sizeof g_slots[0].path) return -1;
    for (int i = 0; i < slot_count; ++i) {
        int expected = slot_free;
        if (!g_slots[i].state.compare_exchange_strong(expected, slot_busy)) continue;
        std::memcpy(g_slots[i].path, path.c_str(), path.size() + 1);
        g_slots[i].state.store(slot_ready, std::memory_order_release);
        return i;
    }
    return -1;
}

void forget_temporary(int slot) noexcept {
    if (slot >= 0) g_slots[slot].state.store(slot_free, std::memory_order_release);
}

[[noreturn]] void refuse(std::string const& path, std::string const& why) {
    throw Error(ErrorCode::output_failed, "cannot write '" + path + "': " + why);
}

}  // namespace

void remove_temporary_outputs() noexcept {
    for (auto& slot : g_slots)
        if (slot.state.load(std::memory_order_acquire) == slot_ready) unlink(slot.path);
}

OutputFile::OutputFile(std::string path) : path_(std::move(path)) {
    struct stat existing = {};
    if (stat(path_.c_str(), &existing) == 0) {
        if (S_ISDIR(existing.st_mode)) refuse(path_, "it is a directory");
        // Renaming over a device or a pipe would replace it with a file.
        if (!S_ISREG(existing.st_mode))
            refuse(path_,
                   "it is not a regular file (a device, pipe or socket), and an output "
                   "would replace it; give the name of a file");
    }
    // A short hidden name in the same folder: the rename stays on one file
    // system, and a final name of any legal length leaves room for it.
    std::size_t const slash = path_.find_last_of('/');
    std::string const folder = slash == std::string::npos ? "" : path_.substr(0, slash + 1);
    std::string const pattern = folder + ".weftmap-XXXXXX";
    std::vector<char> name(pattern.begin(), pattern.end());
    name.push_back('\0');
    int const fd = mkstemp(name.data());
    if (fd < 0) refuse(path_, std::strerror(errno));
    temporary_ = name.data();
    slot_ = remember_temporary(temporary_);
    // mkstemp makes the file private; the result gets the usual permissions.
    mode_t const mask = umask(0);
    umask(mask);
    fchmod(fd, 0666 & ~mask);
    close(fd);
}

OutputFile::~OutputFile() {
    if (!committed_) std::remove(temporary_.c_str());
    forget_temporary(slot_);
}

void OutputFile::commit() {
    if (std::rename(temporary_.c_str(), path_.c_str()) != 0) refuse(path_, std::strerror(errno));
    committed_ = true;
    forget_temporary(slot_);
    slot_ = -1;
}

}  // namespace WM::host
