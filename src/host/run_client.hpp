// The client of one run: it hands progress to the host's callback, answers
// the library's cancel polls from the host's flag, and makes sure that an
// exception thrown by the callback comes out of the run as it is.
#pragma once

#include "library_errors.hpp"

#include <weftmap/correspondence/weftmap.hpp>
#include <weftmap/host/options.hpp>

#include <atomic>
#include <exception>

namespace WM::host::detail {

// Applies the process-wide settings of `options`: search bands, kernels and
// the memory limit.
void apply_process_settings(Options const& options);

template <class Pixel>
class RunClient : public ClientBase<Pixel> {
public:
    explicit RunClient(Options const& options) : options_(options) {}

    // On the calling thread.
    void updateProgress(float fraction) override {
        if (!options_.progress || failed_.load(std::memory_order_acquire)) return;
        try {
            options_.progress(span_begin_ + (span_end_ - span_begin_) * fraction);
        } catch (...) {
            failure_ = std::current_exception();
            failed_.store(true, std::memory_order_release);
        }
    }

    // A job of several library runs reports each run's progress as the part
    // from `begin` to `end` of the job's.
    void set_progress_span(float begin, float end) {
        span_begin_ = begin;
        span_end_ = end;
    }

    // On any thread.
    bool checkAbort() override {
        return failed_.load(std::memory_order_acquire) ||
               (options_.cancel != nullptr && options_.cancel->requested());
    }

    // Runs `f`; failures come out as Error, or as the callback's own
    // exception when it was the cause.
    template <class F>
    decltype(auto) run(F&& f) {
        try {
            return f();
        } catch (...) {
            if (failed_.load(std::memory_order_acquire)) std::rethrow_exception(failure_);
            rethrow_as_error();
        }
    }

private:
    Options const& options_;
    std::exception_ptr failure_;
    std::atomic<bool> failed_{false};
    float span_begin_ = 0.0f;
    float span_end_ = 1.0f;
};

}  // namespace WM::host::detail
