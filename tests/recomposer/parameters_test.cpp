#include "correspondence/recording_client.hpp"
#include "support/test_client.hpp"

#include <weftmap/correspondence/random.hpp>
#include <weftmap/image/resample.hpp>
#include <weftmap/recomposer/recomposer.hpp>

#include <gtest/gtest.h>

#include <sstream>
#include <tuple>

namespace WM {
namespace {

using Pixel = rgb8_pixel_t;
using Recomposer = WeftmapRecomposer<TranslatePatchCompare<Pixel>>;
using Options = std::map<std::string, std::string>;

// Configures `r` from an option map of blank-separated words "key=value",
// or "key" alone for an empty value.
void configure(Recomposer& r, std::string const& words) {
    Options map;
    std::istringstream in(words);
    for (std::string word; in >> word;) {
        auto const eq = word.find('=');
        map[word.substr(0, eq)] = eq == std::string::npos ? "" : word.substr(eq + 1);
    }
    r.setParameters(map);
}

struct RecomposerTest : ::testing::Test {
    test::RecordingClient<Pixel> client;
};

TEST_F(RecomposerTest, PresetsOfTheModes) {
    Recomposer const plain(&client, RecomposerModeDefault);
    EXPECT_EQ(
        std::make_tuple(plain.half_search_window, plain.bidir, plain.coarse_size, plain.use_minnn),
        std::make_tuple(0, true, 35, false));
    Recomposer const hole(&client, RecomposerModeHoleFill);
    EXPECT_EQ(
        std::make_tuple(hole.half_search_window, hole.allow_coherent, hole.bidir, hole.do_weight,
                        hole.weigh_hole, hole.last_upscale_step, hole.em_iters_max,
                        hole.em_iters_step, hole.minnn_optr_rs_max, hole.use_minnn),
        std::make_tuple(-500, true, false, true, true, 0.7, 25, 1.75, 3, true));
    Recomposer const tapestry(&client, RecomposerModeTapestry);
    EXPECT_EQ(std::make_tuple(tapestry.half_search_window, tapestry.allow_coherent, tapestry.bidir,
                              tapestry.em_iters_max, tapestry.last_upscale_step),
              std::make_tuple(0, true, true, 10, 0.5));
    EXPECT_EQ(Recomposer(&client, RecomposerModeKeep).coarse_size, 35);
}

TEST_F(RecomposerTest, FlagsActByPresenceAndThePositiveKeyWins) {
    Recomposer r(&client, RecomposerModeDefault);
    configure(r, "");
    configure(r, "-bogus=1");
    EXPECT_FALSE(r.allow_coherent);

    configure(r,
              "-coherent -no_coherent -minnn=0 -no_minnn -no_propagate "
              "-do_propagate=no -const_coarse_size -generate_index_map");
    EXPECT_EQ(std::make_tuple(r.allow_coherent, r.use_minnn, r.do_propagate, r.const_coarse_size,
                              r.generate_index_map),
              std::make_tuple(true, true, true, true, true));

    r.weigh_hole = r.weigh_similarity = true;
    configure(r, "-no_coherent -no_minnn -no_propagate -no_hole_weight -no_sim_weight");
    EXPECT_EQ(std::make_tuple(r.allow_coherent, r.use_minnn, r.do_propagate, r.weigh_hole,
                              r.weigh_similarity),
              std::make_tuple(false, false, false, false, false));
}

TEST_F(RecomposerTest, ValuesAreReadIntoTheFieldsType) {
    Recomposer r(&client, RecomposerModeDefault);
    configure(r,
              "-patch_w=9 -nn_iters_max=4 -rs_max_max=300 -rs_min=2 -rs_ratio=0.25 -rs_iters=1.5 "
              "-last_upscale_step=0.6 -patch_w_refine=7 -coherence_w_refine=0.2 "
              "-complete_w_refine=0.3 -minnn_opt_levels=5 -minnn_optr_nn_iters=6 "
              "-minnn_optr_rs_max=7 -minnn_optp_nn_iters=8 -minnn_optp_rs_max=9 -bidir=0 "
              "-coarse_size=40 -min_hole_width=1.25 -pyramid_ratio=0.8 -coherence_weight=0.7 "
              "-complete_weight=0.1 -hole_gamma=1.5 -src_important_weight=2.5 "
              "-directional_roifill_angle=0.5 -upsample_mode=1");
    EXPECT_EQ(std::make_tuple(r.patch_w, r.nn_iters_max, r.rs_max_max, r.rs_min, r.rs_ratio,
                              r.rs_iters, r.last_upscale_step, r.patch_w_refine,
                              r.coherence_w_refine, r.complete_w_refine, r.minnn_opt_levels,
                              r.minnn_optr_nn_iters, r.minnn_optr_rs_max),
              std::make_tuple(9, 4, 300, 2, 0.25, 1.5, 0.6, 7, 0.2, 0.3, 5, 6, 7));
    EXPECT_EQ(std::make_tuple(r.minnn_optp_nn_iters, r.minnn_optp_rs_max, r.bidir, r.coarse_size,
                              r.min_hole_width, r.pyramid_ratio, r.coherence_weight,
                              r.complete_weight, r.hole_gamma, r.src_important_wt,
                              r.directional_roifill_angle, r.upsample_mode),
              std::make_tuple(8, 9, false, 40, 1.25, 0.8, 0.7, 0.1, 1.5, 2.5, 0.5, 1));

    // Unreadable values leave fields alone; a bool is a number.
    configure(r, "-coarse_size=many -rs_ratio= -bidir=true -hole_search_window=x -upsample_mode=?");
    EXPECT_EQ(
        std::make_tuple(r.coarse_size, r.rs_ratio, r.bidir, r.half_search_window, r.upsample_mode),
        std::make_tuple(40, 0.25, false, 0, 1));
}

TEST_F(RecomposerTest, EmItersFillsFourFieldsAndSpecificKeysWin) {
    Recomposer r(&client, RecomposerModeDefault);
    auto const em = [&] {
        return std::make_tuple(r.em_iters_gradres, r.em_iters_max, r.em_iters_min, r.em_iters_final,
                               r.em_iters_step);
    };
    configure(r, "-em_iters=8");
    EXPECT_EQ(em(), std::make_tuple(8, 8, 8, 8, 1.0));
    configure(r,
              "-em_iters=8 -em_iters_max=12 -em_iters_step=0.5 "
              "-em_iters_gradres=2 -em_iters_min=1 -em_iters_final=3");
    EXPECT_EQ(em(), std::make_tuple(2, 12, 1, 3, 0.5));
}

TEST_F(RecomposerTest, HoleSearchWindowIsHalvedAndRandSeeds) {
    Recomposer r(&client, RecomposerModeDefault);
    configure(r, "-hole_search_window=7");
    EXPECT_EQ(r.half_search_window, 3);
    configure(r, "-hole_search_window=-7");
    EXPECT_EQ(r.half_search_window, -3);

    RandomGenerator const saved = global_random();
    configure(r, "-rand=1");
    RandomGenerator const from_option = global_random();
    seed_random(1);
    EXPECT_EQ(from_option.w, global_random().w);
    EXPECT_EQ(from_option.z, global_random().z);
    global_random() = saved;
}

TEST_F(RecomposerTest, AssignmentCopiesTheBlockButNotBuffersOrRunState) {
    Recomposer ran(&client, RecomposerModeDefault);
    ran._target_buf.recreate(Point(10, 10));
    ran.first_synthesis_level = 4;
    ran.min_sample_patches = 9;
    ran.current_hole_gamma = 2.0;
    test::RecordingClient<Pixel> other_client;
    Recomposer fresh(&other_client, RecomposerModeHoleFill);
    fresh.first_synthesis_level = 1;
    ran = fresh;
    EXPECT_EQ(std::make_tuple(ran.half_search_window, ran.bidir, ran._target_buf.width(),
                              ran.first_synthesis_level, ran.min_sample_patches,
                              ran.current_hole_gamma, ran.client),
              std::make_tuple(-500, false, 10, 4, 9, 2.0, &client));

    Recomposer const copy(ran);
    EXPECT_EQ(std::make_tuple(copy._target_buf.width(), copy.half_search_window, copy.client),
              std::make_tuple(0, -500, &client));
}

TEST_F(RecomposerTest, SerializePrintsTheDefaultBlockExactly) {
    Recomposer const r(&client, RecomposerModeDefault);
    r.serialize();  // no output installed: nothing happens
    test::ScopedCapture capture;
    r.serialize();
    EXPECT_EQ(capture.channel.written,
              "patch_w:             7\n"
              "nn_iters_max:        5\n"
              "rs_max:              2147483647\n"
              "rs_min:              1\n"
              "rs_ratio:            0.500000\n"
              "rs_iters:            1.000000\n"
              "do_propagate:        true\n"
              "min_update_box:      (-1,-1)-(-1,-1)\n"
              "prefer_coherent:     false\n"
              "allow_coherent:      false\n"
              "half_search_window:  0\n"
              "current_em_iters:    -1\n"
              "bidir:               true\n"
              "coarse_size:         35\n"
              "const_coarse_size:   false\n"
              "min_hole_width:      0.750000\n"
              "pyramid_ratio:       0.700000\n"
              "coherence_weight:    0.500000\n"
              "complete_weight:     0.500000\n"
              "do_weight:           false\n"
              "weigh_similarity:    false\n"
              "weigh_hole:          false\n"
              "last_upscale_step:   0.500000\n"
              "em_iters_gradres:    20\n"
              "em_iters_max:        6\n"
              "em_iters_min:        3\n"
              "em_iters_step:       1.000000\n"
              "em_iters_final:      1\n"
              "patch_w_refine:      -1\n"
              "coherence_w_refine:  -1.000000\n"
              "complete_w_refine:   -1.000000\n"
              "minnn:               false\n"
              "minnn_opt_levels:    3\n"
              "minnn_optr_nn_iters: 2\n"
              "minnn_optr_rs_max:   1\n"
              "minnn_optp_nn_iters: 2\n"
              "minnn_optp_rs_max:   1\n"
              "line_correct_rad:    2\n"
              "line_move_rad:       8.000000\n"
              "hole_gamma:          1.300000\n"
              "reshuffle_gamma:     1.050000\n"
              "src_important_wt:    0.000000\n"
              "lines_are_free:      false\n"
              "sigma_line:          0.500000\n"
              "sigma_affine:        0.600000\n\n"
              "do_synthesis:        false\n\n"
              "synthesis_coarse_size: -1\n\n"
              "directional_roifill_angle: -1000.000000\n\n");
}

std::vector<std::ptrdiff_t> level_widths(Point const& full, int coarse, double ratio, double last) {
    long long w = -1, h = -1;
    double s0 = 0;
    get_resample_size(full, coarse, w, h, s0);
    std::vector<std::ptrdiff_t> widths;
    for (double s : build_scale_list(s0, ratio, last)) widths.push_back(level_size(full, s).x);
    return widths;
}

TEST(ScaleList, WorkedExamples) {
    EXPECT_EQ(level_widths(Point(1000, 800), 25, 0.7, 0.7),
              (std::vector<std::ptrdiff_t>{31, 40, 58, 82, 118, 168, 240, 343, 490, 700, 1000}));
    EXPECT_EQ(level_widths(Point(1000, 800), 35, 0.7, 0.5),
              (std::vector<std::ptrdiff_t>{44, 59, 84, 120, 171, 245, 350, 500, 1000}));
    // A coarse size above the short side: the list holds s0 alone.
    EXPECT_EQ(build_scale_list(1.2, 0.7, 0.5), (std::deque<double>{1.2}));
    EXPECT_THROW(build_scale_list(0.1, 1.5, 0.5), Exception);
    EXPECT_THROW(build_scale_list(0.001, 1.0, 0.5), Exception);  // never gets there
}

TEST(GradualWalk, EachAxisStepsTowardsItsGoal) {
    EXPECT_EQ(next_gradual_size(Point(100, 50), Point(70, 50), 0.98), Point(98, 50));
    EXPECT_EQ(next_gradual_size(Point(71, 60), Point(70, 80), 0.98), Point(70, 62));
    EXPECT_EQ(next_gradual_size(Point(70, 80), Point(70, 80), 0.98), Point(70, 80));
}

TEST_F(RecomposerTest, IterationSchedulesOfTheThreeModes) {
    std::deque<double> const ten(10, 1.0);
    auto const schedule = [&](RecomposerMode mode) {
        Recomposer r(&client, mode);
        std::vector<double> result;
        for (unsigned level = 0; level < 10; ++level) {
            double em = 0;
            int rs_max = 0, nn_iters = 0;
            r.adjust_level_parameters(level, Point(100, 100), ten, em, rs_max, nn_iters);
            result.push_back(em);
        }
        return result;
    };
    EXPECT_EQ(schedule(RecomposerModeHoleFill),
              (std::vector<double>{30, 20, 16.5, 13, 10, 8.25, 6.5, 4.75, 3, 1}));
    EXPECT_EQ(schedule(RecomposerModeTapestry),
              (std::vector<double>{20, 10, 9, 8, 7, 6, 5, 4, 3, 1}));
    EXPECT_EQ(schedule(RecomposerModeDefault),
              (std::vector<double>{20, 6, 6, 6, 6, 6, 5, 4, 3, 1}));

    // The finest levels use the reduced sweeps when minimisation is on.
    Recomposer r(&client, RecomposerModeHoleFill);
    double em = 0;
    int rs_max = 0, nn_iters = 0;
    r.adjust_level_parameters(8, Point(100, 100), ten, em, rs_max, nn_iters);
    EXPECT_EQ(rs_max, 3);
    EXPECT_EQ(nn_iters, 2);
    std::deque<double> const scales{0.25, 0.5, 0.75, 1.0};
    r.use_minnn = false;
    r.adjust_level_parameters(1, Point(120, 80), scales, em, rs_max, nn_iters);
    EXPECT_EQ(rs_max, 60);
    EXPECT_EQ(nn_iters, 2);
}

TEST_F(RecomposerTest, ProgressTableRisesToItsEnd) {
    for (RecomposerMode mode : {RecomposerModeHoleFill, RecomposerModeTapestry}) {
        Recomposer r(&client, mode);
        r.progress_table = {0.0f};
        r.progress_cursor = 0;
        r.prepare_progress_table(Point(640, 480), 1, 0);
        EXPECT_FLOAT_EQ(r.progress_table.back(), 0.1f);  // before synthesis
        ASSERT_FALSE(r.progress_table.empty());

        r.progress_cursor = 3;
        r.do_synthesis = true;
        r.first_synthesis_level = 2;
        float const start = r.progress_table[3];
        r.prepare_progress_table(Point(640, 480), 5, 2);
        EXPECT_EQ(r.progress_cursor, 0u);
        EXPECT_GE(r.progress_table.front(), start);
        EXPECT_FLOAT_EQ(r.progress_table.back(), 1.0f);
        for (std::size_t i = 1; i < r.progress_table.size(); ++i)
            EXPECT_LE(r.progress_table[i - 1], r.progress_table[i]);
    }
}

}  // namespace
}  // namespace WM
