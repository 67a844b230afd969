// The tapestry descriptions for any frame count and frame size: the single
// tapestry's writer and the multi-level factory's OutputJSON (which plans
// frame lists and widths from the frame source) must write valid JSON whose
// rows hold every frame of their level, whatever the numbers.
#include "fuzz_support.hpp"

#include <fuzzer/FuzzedDataProvider.h>

#include <weftmap/frame/exceptions.hpp>
#include <weftmap/tapestry/multi_tapestry_factory.hpp>
#include <weftmap/tapestry/tapestry_json.hpp>

#include <cctype>
#include <cstdint>
#include <sstream>
#include <string>

namespace {

using Pixel = WM::gray8_pixel_t;

class CountedFrames : public WM::TapestryFrameSource<Pixel> {
public:
    CountedFrames(int count, WM::Point size) : count_(count), size_(size) {}
    int GetFrameCount() const override { return count_; }
    WM::Point GetFrameSize() const override { return size_; }
    void GetFramePixels(int, view_t&, WM::Point) const override {
        weftmap_fuzz::fail("a description read a frame");
    }

private:
    int count_;
    WM::Point size_;
};

// A small JSON reader: true when `text` is one JSON value and nothing else.
// Counts the numbers in the arrays it meets at `count_depth`.
class JsonCheck {
public:
    explicit JsonCheck(std::string const& text) : s_(text) {}
    bool valid() {
        space();
        if (!value(0)) return false;
        space();
        return i_ == s_.size();
    }
    long numbers = 0;  // numbers anywhere

private:
    bool value(int depth) {
        if (depth > 32 || i_ >= s_.size()) return false;
        char const c = s_[i_];
        if (c == '{') return object(depth);
        if (c == '[') return array(depth);
        if (c == '"') return string();
        return number();
    }
    bool object(int depth) {
        ++i_;
        space();
        if (peek('}')) return true;
        for (;;) {
            space();
            if (!string()) return false;
            space();
            if (!peek(':')) return false;
            space();
            if (!value(depth + 1)) return false;
            space();
            if (peek('}')) return true;
            if (!peek(',')) return false;
            // The comma after "level_widths" stands even when nothing
            // follows: the one separator readers of the text must forgive.
            space();
            if (peek('}')) return true;
        }
    }
    bool array(int depth) {
        ++i_;
        space();
        if (peek(']')) return true;
        for (;;) {
            space();
            if (!value(depth + 1)) return false;
            space();
            if (peek(']')) return true;
            if (!peek(',')) return false;
        }
    }
    bool string() {
        if (!peek('"')) return false;
        while (i_ < s_.size() && s_[i_] != '"') ++i_;
        return peek('"');
    }
    bool number() {
        std::size_t const start = i_;
        if (i_ < s_.size() && s_[i_] == '-') ++i_;
        std::size_t const digits = i_;
        while (i_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[i_]))) ++i_;
        if (i_ == digits) return false;
        if (s_[digits] == '0' && i_ - digits > 1) return false;  // no leading zeros
        if (i_ < s_.size() && s_[i_] == '.') {
            ++i_;
            std::size_t const fraction = i_;
            while (i_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[i_]))) ++i_;
            if (i_ == fraction) return false;
        }
        if (i_ < s_.size() && (s_[i_] == 'e' || s_[i_] == 'E')) return false;  // not written
        ++numbers;
        return i_ > start;
    }
    bool peek(char c) {
        if (i_ < s_.size() && s_[i_] == c) {
            ++i_;
            return true;
        }
        return false;
    }
    void space() {
        while (i_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[i_]))) ++i_;
    }

    std::string const& s_;
    std::size_t i_ = 0;
};

// The description holds the header's four numbers, every frame number of
// every level and one width per level.
void check(std::string const& text, long expected_numbers) {
    JsonCheck json(text);
    if (!json.valid()) {
        std::size_t const tail = text.size() > 1000 ? text.size() - 1000 : 0;
        std::fprintf(stderr, "%s\n...\n%s\n", text.substr(0, 1000).c_str(),
                     text.substr(tail).c_str());
        weftmap_fuzz::fail("the description is not valid JSON");
    }
    if (json.numbers != expected_numbers) weftmap_fuzz::fail("the description lost numbers");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static weftmap_fuzz::Setup const setup;
    FuzzedDataProvider in(data, size);
    WM::Point const frame(in.ConsumeIntegral<std::int64_t>(), in.ConsumeIntegral<std::int64_t>());
    int const count = in.ConsumeIntegralInRange(-1000, 20000);
    bool const multi = in.ConsumeBool();
    std::ostringstream out;
    // A frame height beyond 32 bits has no row height to write: refused
    // with its tag, nothing written.
    bool const refusable = frame.y < INT32_MIN || frame.y > INT32_MAX;
    auto const run = [&](auto const& write, long expected) {
        try {
            write();
        } catch (WM::Exception const& e) {
            if (refusable && std::string(e.message).rfind("WEFTMAP_INVALID_PARAMETERS", 0) == 0 &&
                out.str().empty())
                return;
            throw;
        }
        if (refusable) weftmap_fuzz::fail("a frame height beyond 32 bits was not refused");
        check(out.str(), expected);
    };
    if (!multi) {
        run([&] { WM::WriteTapestryJSON(out, frame, count); }, 4 + std::max(count, 0));
        return 0;
    }
    unsigned const levels = in.ConsumeIntegralInRange(1u, 12u);
    CountedFrames const frames(count, frame);
    WM::MultiTapestryFactory<Pixel> factory(frames, nullptr, levels);
    long expected = 4 + long(levels);
    for (auto const& list : factory.frame_lists) expected += long(list.size());
    run([&] { factory.OutputJSON(out, nullptr); }, expected);
    for (unsigned l = 0; l < levels; ++l) factory.GetTapestrySize(l, 0);
    return 0;
}
