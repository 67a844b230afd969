#include "support/test_client.hpp"
#include "twopass/test_access.hpp"

#include <gtest/gtest.h>

#include <map>
#include <string>

namespace WM {
namespace {

using Pixel = rgb8_pixel_t;
using Interface = TwoPassSynthesisInterface<Pixel>;
using Recomposer = WeftmapRecomposer<TranslatePatchCompare<Pixel>>;

// The printed parameter block: equal texts, equal settings.
std::string parameters_of(Recomposer const& r) {
    test::ScopedCapture capture(false);
    r.serialize();
    return capture.channel.written;
}

struct Host {
    Host() : in(Point(48, 40), 24, 20, 6), access(in.picture, in.hole, 2) {}
    test::HolePicture<Pixel> in;
    test::PyramidAccess<Pixel> access;
    test::HostClient<Pixel> client;
};

TEST(TwoPassSynthesisInterface, TheModeChoosesThePresetAndWhomTheRecomposerReportsTo) {
    Host host;
    std::string const default_preset = parameters_of(Recomposer(nullptr, RecomposerModeDefault));
    std::string const fill_preset = parameters_of(Recomposer(nullptr, RecomposerModeHoleFill));
    ASSERT_NE(default_preset, fill_preset);

    Interface keep(&host.access, &host.client, PatchCompareTranslate, RecomposerModeKeep);
    EXPECT_EQ(parameters_of(keep.synthesis->recomposer), default_preset);
    EXPECT_EQ(keep.synthesis->recomposer.client, keep.synthesis.get());
    EXPECT_EQ(keep.synthesis->GetClient(), &host.client);

    // Any other mode: its preset, reporting straight to the host. The
    // comparator argument changes nothing.
    for (auto compare : {PatchCompareTranslate, PatchCompareGainBias}) {
        Interface fill(&host.access, &host.client, compare, RecomposerModeHoleFill);
        EXPECT_EQ(parameters_of(fill.synthesis->recomposer), fill_preset);
        EXPECT_EQ(fill.synthesis->recomposer.client, &host.client);
    }

    // A later mode change routes the recomposer through the progress table again.
    Interface fill(&host.access, &host.client, PatchCompareTranslate, RecomposerModeHoleFill);
    fill.setSynthesisMode(RecomposerModeDefault);
    EXPECT_EQ(parameters_of(fill.synthesis->recomposer), default_preset);
    EXPECT_EQ(fill.synthesis->recomposer.client, fill.synthesis.get());
    keep.setSynthesisMode(RecomposerModeHoleFill);
    EXPECT_EQ(parameters_of(keep.synthesis->recomposer), fill_preset);
    EXPECT_EQ(keep.synthesis->recomposer.client, keep.synthesis.get());

    // Copies share the object.
    Interface const copy = keep;
    EXPECT_EQ(copy.synthesis.get(), keep.synthesis.get());
}

TEST(TwoPassSynthesisInterface, ParametersAbortAndProgressReachTheHeldObject) {
    Host host;
    Interface front(&host.access, &host.client, PatchCompareTranslate, RecomposerModeKeep);
    auto& r = front.synthesis->recomposer;

    std::map<std::string, std::string> options{{"-coherent", ""}, {"-em_iters_max", "9"}};
    front.setSynthesisParameters(options);
    EXPECT_TRUE(r.allow_coherent);
    EXPECT_EQ(r.em_iters_max, 9);

    front.setSynthesisParameters(SynthesisParameters{11, 20, true, 1.7, 4, 2, 30.0});
    EXPECT_EQ(r.half_search_window, 11);
    EXPECT_EQ(r.coarse_size, 20);
    EXPECT_TRUE(r.const_coarse_size);
    EXPECT_EQ(r.hole_gamma, 1.7);
    EXPECT_EQ(r.em_iters_min, 4);
    EXPECT_EQ(r.em_iters_final, 2);
    EXPECT_EQ(r.directional_roifill_angle, 30.0);

    EXPECT_FALSE(front.checkAbort());
    host.client.abort_when = [] { return true; };
    EXPECT_TRUE(front.checkAbort());
    host.client.abort_when = nullptr;

    // Before a run there is no step to map onto: the fraction passes as is.
    front.updateProgress(0.25f);
    EXPECT_EQ(host.client.progress, (std::vector<float>{0.25f}));

    // A whole run through the front.
    test::CaptureStdout out;
    front.run();
    EXPECT_EQ(out.text(), "coarse scale 0\n");
    EXPECT_TRUE(test::monotone_to_one(
        std::vector<float>(host.client.progress.begin() + 1, host.client.progress.end())));
    EXPECT_EQ(host.access.calls_of("setOutputPixels").size(), 1u);
}

}  // namespace
}  // namespace WM
