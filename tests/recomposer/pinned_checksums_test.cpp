// Pins every diagnostic checksum of small fixed runs: one search band, a
// fixed seed, checksums on. Speed work on the engine must leave results
// exactly as they are, and any pass that moves a single pixel, field entry
// or distance changes the sequence. On a mismatch the test prints the new
// count and hash, and the first lines, to compare against a run of the
// previous commit.
#include "recomposer/recomposer_fixture.hpp"
#include "support/test_client.hpp"

#include <weftmap/recomposer/recomposer.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <sstream>
#include <string>

namespace WM {
namespace {

// A texture with mild noise, so that no two patches are alike.
template <class Pixel>
RecycledImage<Pixel> noisy_texture(Point const& size, unsigned seed) {
    RecycledImage<Pixel> image(size);
    test::paint_texture(view(image));
    std::mt19937 rng(seed);
    double const top = test::channel_top<Pixel>();
    for (auto& p : view(image))
        for (int c = 0; c < num_channels_v<Pixel>; ++c) {
            double const v = double(channel_value(p, c)) +
                             std::uniform_real_distribution<double>(-0.06, 0.06)(rng) * top;
            set_channel(p, c, static_cast<channel_base_t<Pixel>>(std::clamp(v, 0.0, top)));
        }
    return image;
}

// An irregular hole: two overlapping discs.
RecycledImage<gray8_pixel_t> two_disc_hole(Point const& size) {
    auto hole = test::disc_hole(size, size.x * 0.45, size.y * 0.5, size.y * 0.16);
    auto const second = test::disc_hole(size, size.x * 0.58, size.y * 0.4, size.y * 0.11);
    for (std::ptrdiff_t y = 0; y < size.y; ++y)
        for (std::ptrdiff_t x = 0; x < size.x; ++x)
            view(hole)(x, y)[0] = std::max(view(hole)(x, y)[0], const_view(second)(x, y)[0]);
    return hole;
}

// What a run leaves on the channel: the count of checksum lines, a 64-bit
// hash of them in order, and the first few for a readable failure.
struct Fingerprint {
    Fingerprint() = default;
    Fingerprint(std::size_t lines, std::uint64_t hash) : lines(lines), hash(hash) {}

    std::size_t lines = 0;
    std::uint64_t hash = 0;
    std::string head;

    bool operator==(Fingerprint const& o) const { return lines == o.lines && hash == o.hash; }
};

std::ostream& operator<<(std::ostream& os, Fingerprint const& f) {
    return os << "{" << f.lines << ", 0x" << std::hex << f.hash << std::dec << "}\n" << f.head;
}

Fingerprint fingerprint(std::string const& written) {
    Fingerprint f;
    std::uint64_t h = 1469598103934665603ull;  // FNV-1a
    std::istringstream in(written);
    for (std::string line; std::getline(in, line);) {
        auto const at = line.find("CHECKSUM");
        if (at == std::string::npos) continue;
        for (char const ch : line.substr(at)) {
            h ^= static_cast<unsigned char>(ch);
            h *= 1099511628211ull;
        }
        h ^= '\n';
        h *= 1099511628211ull;
        if (++f.lines <= 6) f.head += line.substr(at) + "\n";
    }
    f.hash = h;
    return f;
}

// One band, seed 5, the given kernels, checksums captured; restored after.
struct PinnedRun : test::Reproducible {
    explicit PinnedRun(bool vector_kernels = true) : Reproducible(5, vector_kernels) {}
    test::ScopedCapture capture;
};

template <class Compare>
Fingerprint pinned_fill(bool vector_kernels = true) {
    using Pixel = typename Compare::pixel_t;
    Point const size(72, 60);
    auto image = noisy_texture<Pixel>(size, 3);
    auto hole = two_disc_hole(size);
    PinnedRun run(vector_kernels);
    test::RecordingClient<Pixel> client;
    WeftmapRecomposer<Compare> r(&client, RecomposerModeHoleFill);
    OutputDebugChecksum("pinned result: ", const_view(test::fill(r, image, hole)));
    return fingerprint(run.capture.channel.written);
}

template <class Pixel>
Fingerprint pinned_retarget() {
    Point const size(80, 56);
    auto image = noisy_texture<Pixel>(size, 4);
    PinnedRun run;
    test::RecordingClient<Pixel> client;
    WeftmapRecomposer<TranslatePatchCompare<Pixel>> r(&client, RecomposerModeTapestry);
    OutputDebugChecksum("pinned result: ",
                        const_view(test::retarget(r, image, Point(size.x * 7 / 10, size.y))));
    return fingerprint(run.capture.channel.written);
}

TEST(PinnedChecksums, HoleFillsRepeatEveryIntermediateResult) {
    EXPECT_EQ(pinned_fill<TranslatePatchCompare<rgb8_pixel_t>>(),
              (Fingerprint{536, 0x376aa39a28d18c4full}));
    EXPECT_EQ(pinned_fill<TranslatePatchCompare<rgb8_pixel_t>>(false),
              (Fingerprint{536, 0x376aa39a28d18c4full}));
    EXPECT_EQ(pinned_fill<TranslatePatchCompare<gray8_pixel_t>>(),
              (Fingerprint{536, 0xb746a07aac1a5e51ull}));
    EXPECT_EQ(pinned_fill<TranslatePatchCompare<rgb16_pixel_t>>(),
              (Fingerprint{536, 0x94c0169ccdadceb2ull}));
    EXPECT_EQ(pinned_fill<TranslatePatchCompare<rgb32f_pixel_t>>(),
              (Fingerprint{536, 0x56738d67cfe0eda8ull}));
    EXPECT_EQ(pinned_fill<TranslatePatchCompare<gray32f_pixel_t>>(false),
              (Fingerprint{536, 0xed1a29efc51a7dc5ull}));
    EXPECT_EQ(pinned_fill<GainBiasPatchCompare<rgb8_pixel_t>>(),
              (Fingerprint{536, 0x8a6174a22e091827ull}));
}

TEST(PinnedChecksums, RetargetsRepeatEveryIntermediateResult) {
    EXPECT_EQ(pinned_retarget<rgb8_pixel_t>(), (Fingerprint{2915, 0x32a6cac699372f8bull}));
    EXPECT_EQ(pinned_retarget<cmyk16_pixel_t>(), (Fingerprint{2915, 0x6512d411e3f700c8ull}));
    EXPECT_EQ(pinned_retarget<gray32f_pixel_t>(), (Fingerprint{2915, 0xc21b912ce7cca103ull}));
}

}  // namespace
}  // namespace WM
