// What the fuzz targets share: a working folder, a memory limit, a cancel
// flag raised when a run takes too long, and checks that abort (a finding)
// when a promise is broken.
#pragma once

#include <weftmap/host.hpp>
#include <weftmap/host/image_file.hpp>

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <thread>

namespace weftmap_fuzz {

namespace host = WM::host;

[[noreturn]] inline void fail(char const* what) {
    std::fprintf(stderr, "weftmap fuzz: %s\n", what);
    std::abort();
}

// Image memory each input may use: files claiming more are refused.
constexpr unsigned long long memory_limit = 256ull << 20;

struct Setup {
    Setup() {
        host::set_memory_limit(memory_limit);
        char pattern[] = "/tmp/weftmap-fuzz-XXXXXX";
        if (mkdtemp(pattern) == nullptr) fail("no working folder");
        folder = pattern;
        held = host::memory_in_use();
    }
    ~Setup() {
        std::remove(file("input").c_str());
        std::remove(file("copy").c_str());
        rmdir(folder.c_str());
    }
    std::string file(char const* name) const { return folder + "/" + name; }

    std::string folder;
    unsigned long long held = 0;
};

inline void write_file(std::string const& path, void const* data, std::size_t size) {
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) fail("cannot write the input file");
    if (size != 0 && std::fwrite(data, 1, size, f) != size) fail("cannot write the input file");
    std::fclose(f);
}

inline void expect_codes(host::Error const& e, std::initializer_list<host::ErrorCode> codes) {
    for (host::ErrorCode code : codes)
        if (e.code() == code) return;
    std::fprintf(stderr, "weftmap fuzz: unexpected %s error: %s\n", host::error_code_name(e.code()),
                 e.what());
    std::abort();
}

// Every image of an input is gone when it is done.
inline void expect_no_images_held(Setup const& setup) {
    if (host::memory_in_use() != setup.held) fail("image memory is still held after an input");
}

// Raises a cancel flag once a run has taken longer than its time, from a
// thread of its own, so that a slow run (huge option values) is cut short
// wherever its time goes.
class Watchdog {
public:
    Watchdog() : thread_([this] { watch(); }) { thread_.detach(); }

    // Starts the clock of a run; its cancel flag is `flag()`.
    void start(std::chrono::milliseconds budget) {
        flag_.reset();
        deadline_.store((clock::now() + budget).time_since_epoch().count());
    }
    void stop() { deadline_.store(never); }
    host::CancelFlag const& flag() const { return flag_; }

private:
    using clock = std::chrono::steady_clock;
    static constexpr clock::rep never = clock::duration::max().count();

    void watch() {
        for (;;) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            if (clock::now().time_since_epoch().count() > deadline_.load()) flag_.request();
        }
    }

    host::CancelFlag flag_;
    std::atomic<clock::rep> deadline_{never};
    std::thread thread_;
};

}  // namespace weftmap_fuzz
