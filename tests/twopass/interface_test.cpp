#include "support/test_client.hpp"
#include "twopass/test_access.hpp"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <tuple>

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

TEST(TwoPassSynthesisInterface, ModesParametersAbortAndProgressReachTheHeldObject) {
    test::HolePicture<Pixel> const in(Point(48, 40), 24, 20, 6);
    test::PyramidAccess<Pixel> access(in.picture, in.hole, 2);
    test::RecordingClient<Pixel> host;
    std::string const default_preset = parameters_of(Recomposer(nullptr, RecomposerModeDefault));
    std::string const fill_preset = parameters_of(Recomposer(nullptr, RecomposerModeHoleFill));
    ASSERT_NE(default_preset, fill_preset);

    // Keep: the default preset, reporting through the progress table.
    Interface keep(&access, &host, PatchCompareTranslate, RecomposerModeKeep);
    EXPECT_EQ(parameters_of(keep.synthesis->recomposer), default_preset);
    EXPECT_EQ(keep.synthesis->recomposer.client, keep.synthesis.get());
    EXPECT_EQ(keep.synthesis->GetClient(), &host);
    // Any other mode: its preset, reporting straight to the host, whatever
    // the comparator argument; a later mode change goes through the table.
    for (auto compare : {PatchCompareTranslate, PatchCompareGainBias}) {
        Interface fill(&access, &host, compare, RecomposerModeHoleFill);
        EXPECT_EQ(parameters_of(fill.synthesis->recomposer), fill_preset);
        EXPECT_EQ(fill.synthesis->recomposer.client, &host);
        fill.setSynthesisMode(RecomposerModeDefault);
        EXPECT_EQ(parameters_of(fill.synthesis->recomposer), default_preset);
        EXPECT_EQ(fill.synthesis->recomposer.client, fill.synthesis.get());
    }
    EXPECT_EQ(Interface(keep).synthesis, keep.synthesis) << "copies share the object";

    auto& r = keep.synthesis->recomposer;
    std::map<std::string, std::string> options{{"-coherent", ""}, {"-em_iters_max", "9"}};
    keep.setSynthesisParameters(options);
    EXPECT_EQ(std::make_pair(r.allow_coherent, r.em_iters_max), std::make_pair(true, 9));
    keep.setSynthesisParameters(SynthesisParameters{11, 20, true, 1.7, 4, 2, 30.0});
    EXPECT_EQ(
        std::make_tuple(r.half_search_window, r.coarse_size, r.const_coarse_size, r.hole_gamma,
                        r.em_iters_min, r.em_iters_final, r.directional_roifill_angle),
        std::make_tuple(11, 20, true, 1.7, 4, 2, 30.0));

    host.abort_when = [] { return true; };
    EXPECT_TRUE(keep.checkAbort());
    host.abort_when = nullptr;
    EXPECT_FALSE(keep.checkAbort());
    // Before a run there is no step to map onto: the fraction passes as is.
    keep.updateProgress(0.25f);
    EXPECT_EQ(host.progress, (std::vector<float>{0.25f}));

    // A job that fits whole is solved once at full size, without tiles.
    host.progress.clear();
    test::CaptureStdout out;
    keep.run();
    EXPECT_EQ(out.text(), "coarse scale 0\n");
    auto const& s = *keep.synthesis;
    EXPECT_EQ(std::make_tuple(access.deepest_scale, s.tiles.GetSize(), s.counter_buf.dimensions(),
                              s.temp_mask_buf.dimensions(), s.tile_output_buf.dimensions()),
              std::make_tuple(0, 0, Point(0, 0), Point(0, 0), Point(0, 0)));
    EXPECT_EQ(s.progress_table, (std::vector<float>{0.0f, 1.0f}));
    EXPECT_TRUE(host.monotone_to_one());
    EXPECT_EQ(access.calls_of("setOutputPixels").size(), 1u);
    EXPECT_EQ(access.violations, 0);
    EXPECT_TRUE(in.known_pixels_kept(access));
}

}  // namespace
}  // namespace WM
