// Notices a cancel from inside a long task. A search pass normally asks the
// client once per task, at its end; a task that runs for minutes (a huge
// picture, a huge -rs_iters) would then keep a cancelled run going. The
// watch asks again once a quarter second has passed, reading the clock only
// every few thousand units of work, so short tasks never ask twice.
#pragma once

#include <weftmap/frame/client.hpp>

#include <atomic>
#include <chrono>

namespace WM::detail {

template <class Client>
class AbortWatch {
public:
    AbortWatch(Client* client, std::atomic<bool>* raised) : client_(client), raised_(raised) {}

    // Counts `units` of work; true once the run is to stop (this task or
    // another one heard the cancel).
    bool stop_after(unsigned units) {
        pending_ += units;
        if (pending_ < units_between_clock_reads) return stopped_;
        pending_ = 0;
        if (stopped_ || raised_->load(std::memory_order_relaxed)) return stopped_ = true;
        auto const now = Clock::now();
        if (now - last_ < interval) return false;
        last_ = now;
        if (client_ != nullptr && client_->checkAbort()) {
            raised_->store(true, std::memory_order_relaxed);
            stopped_ = true;
        }
        return stopped_;
    }

private:
    using Clock = std::chrono::steady_clock;
    static constexpr unsigned units_between_clock_reads = 4096;
    static constexpr auto interval = std::chrono::milliseconds(250);

    Client* client_;
    std::atomic<bool>* raised_;
    Clock::time_point last_ = Clock::now();
    unsigned pending_ = 0;
    bool stopped_ = false;
};

}  // namespace WM::detail
