#include "correspondence/recording_client.hpp"
#include "support/test_client.hpp"

#include <weftmap/correspondence/random.hpp>
#include <weftmap/image/resample.hpp>
#include <weftmap/recomposer/recomposer.hpp>

#include <gtest/gtest.h>

namespace WM {
namespace {

using Pixel = rgb8_pixel_t;
using Recomposer = WeftmapRecomposer<TranslatePatchCompare<Pixel>>;
using Options = std::map<std::string, std::string>;

struct RecomposerTest : ::testing::Test {
    test::RecordingClient<Pixel> client;
};

TEST_F(RecomposerTest, PresetsOfTheModes) {
    Recomposer const plain(&client, RecomposerModeDefault);
    EXPECT_EQ(plain.half_search_window, 0);
    EXPECT_TRUE(plain.bidir);
    EXPECT_EQ(plain.coarse_size, 35);
    EXPECT_FALSE(plain.use_minnn);

    Recomposer const hole(&client, RecomposerModeHoleFill);
    EXPECT_EQ(hole.half_search_window, -500);
    EXPECT_TRUE(hole.allow_coherent);
    EXPECT_FALSE(hole.bidir);
    EXPECT_TRUE(hole.do_weight);
    EXPECT_TRUE(hole.weigh_hole);
    EXPECT_EQ(hole.last_upscale_step, 0.7);
    EXPECT_EQ(hole.em_iters_max, 25);
    EXPECT_EQ(hole.em_iters_step, 1.75);
    EXPECT_EQ(hole.minnn_optr_rs_max, 3);
    EXPECT_TRUE(hole.use_minnn);

    Recomposer const tapestry(&client, RecomposerModeTapestry);
    EXPECT_EQ(tapestry.half_search_window, 0);
    EXPECT_TRUE(tapestry.allow_coherent);
    EXPECT_TRUE(tapestry.bidir);
    EXPECT_EQ(tapestry.em_iters_max, 10);
    EXPECT_EQ(tapestry.last_upscale_step, 0.5);

    Recomposer const keep(&client, RecomposerModeKeep);
    EXPECT_EQ(keep.coarse_size, 35);
}

TEST_F(RecomposerTest, FlagsActByPresenceAndThePositiveKeyWins) {
    Recomposer r(&client, RecomposerModeDefault);
    Options none;
    Options unknown{{"-bogus", "1"}};
    r.setParameters(none);
    r.setParameters(unknown);
    EXPECT_FALSE(r.allow_coherent);

    Options both{{"-coherent", ""},          {"-no_coherent", ""},       {"-minnn", "0"},
                 {"-no_minnn", ""},          {"-no_propagate", ""},      {"-do_propagate", "no"},
                 {"-const_coarse_size", ""}, {"-generate_index_map", ""}};
    r.setParameters(both);
    EXPECT_TRUE(r.allow_coherent);
    EXPECT_TRUE(r.use_minnn);
    EXPECT_TRUE(r.do_propagate);
    EXPECT_TRUE(r.const_coarse_size);
    EXPECT_TRUE(r.generate_index_map);

    Options off{{"-no_coherent", ""},
                {"-no_minnn", ""},
                {"-no_propagate", ""},
                {"-no_hole_weight", ""},
                {"-no_sim_weight", ""}};
    r.weigh_hole = r.weigh_similarity = true;
    r.setParameters(off);
    EXPECT_FALSE(r.allow_coherent);
    EXPECT_FALSE(r.use_minnn);
    EXPECT_FALSE(r.do_propagate);
    EXPECT_FALSE(r.weigh_hole);
    EXPECT_FALSE(r.weigh_similarity);
}

TEST_F(RecomposerTest, ValuesAreReadIntoTheFieldsType) {
    Recomposer r(&client, RecomposerModeDefault);
    Options values{{"-patch_w", "9"},
                   {"-nn_iters_max", "4"},
                   {"-rs_max_max", "300"},
                   {"-rs_min", "2"},
                   {"-rs_ratio", "0.25"},
                   {"-rs_iters", "1.5"},
                   {"-last_upscale_step", "0.6"},
                   {"-patch_w_refine", "7"},
                   {"-coherence_w_refine", "0.2"},
                   {"-complete_w_refine", "0.3"},
                   {"-minnn_opt_levels", "5"},
                   {"-minnn_optr_nn_iters", "6"},
                   {"-minnn_optr_rs_max", "7"},
                   {"-minnn_optp_nn_iters", "8"},
                   {"-minnn_optp_rs_max", "9"},
                   {"-bidir", "0"},
                   {"-coarse_size", "40"},
                   {"-min_hole_width", "1.25"},
                   {"-pyramid_ratio", "0.8"},
                   {"-coherence_weight", "0.7"},
                   {"-complete_weight", "0.1"},
                   {"-hole_gamma", "1.5"},
                   {"-src_important_weight", "2.5"},
                   {"-directional_roifill_angle", "0.5"},
                   {"-upsample_mode", "1"}};
    r.setParameters(values);
    EXPECT_EQ(r.patch_w, 9);
    EXPECT_EQ(r.nn_iters_max, 4);
    EXPECT_EQ(r.rs_max_max, 300);
    EXPECT_EQ(r.rs_min, 2);
    EXPECT_EQ(r.rs_ratio, 0.25);
    EXPECT_EQ(r.rs_iters, 1.5);
    EXPECT_EQ(r.last_upscale_step, 0.6);
    EXPECT_EQ(r.patch_w_refine, 7);
    EXPECT_EQ(r.coherence_w_refine, 0.2);
    EXPECT_EQ(r.complete_w_refine, 0.3);
    EXPECT_EQ(r.minnn_opt_levels, 5);
    EXPECT_EQ(r.minnn_optr_nn_iters, 6);
    EXPECT_EQ(r.minnn_optr_rs_max, 7);
    EXPECT_EQ(r.minnn_optp_nn_iters, 8);
    EXPECT_EQ(r.minnn_optp_rs_max, 9);
    EXPECT_FALSE(r.bidir);
    EXPECT_EQ(r.coarse_size, 40);
    EXPECT_EQ(r.min_hole_width, 1.25);
    EXPECT_EQ(r.pyramid_ratio, 0.8);
    EXPECT_EQ(r.coherence_weight, 0.7);
    EXPECT_EQ(r.complete_weight, 0.1);
    EXPECT_EQ(r.hole_gamma, 1.5);
    EXPECT_EQ(r.src_important_wt, 2.5);
    EXPECT_EQ(r.directional_roifill_angle, 0.5);
    EXPECT_EQ(r.upsample_mode, 1);

    // Unreadable values leave fields alone; a bool is a number.
    Options bad{{"-coarse_size", "many"},
                {"-rs_ratio", ""},
                {"-bidir", "true"},
                {"-hole_search_window", "x"},
                {"-upsample_mode", "?"}};
    r.setParameters(bad);
    EXPECT_EQ(r.coarse_size, 40);
    EXPECT_EQ(r.rs_ratio, 0.25);
    EXPECT_FALSE(r.bidir);
    EXPECT_EQ(r.half_search_window, 0);
    EXPECT_EQ(r.upsample_mode, 1);
}

TEST_F(RecomposerTest, EmItersFillsFourFieldsAndSpecificKeysWin) {
    Recomposer r(&client, RecomposerModeDefault);
    Options general{{"-em_iters", "8"}};
    r.setParameters(general);
    EXPECT_EQ(r.em_iters_gradres, 8);
    EXPECT_EQ(r.em_iters_max, 8);
    EXPECT_EQ(r.em_iters_min, 8);
    EXPECT_EQ(r.em_iters_final, 8);
    EXPECT_EQ(r.em_iters_step, 1.0);

    Options mixed{{"-em_iters", "8"},         {"-em_iters_max", "12"}, {"-em_iters_step", "0.5"},
                  {"-em_iters_gradres", "2"}, {"-em_iters_min", "1"},  {"-em_iters_final", "3"}};
    r.setParameters(mixed);
    EXPECT_EQ(r.em_iters_gradres, 2);
    EXPECT_EQ(r.em_iters_max, 12);
    EXPECT_EQ(r.em_iters_min, 1);
    EXPECT_EQ(r.em_iters_final, 3);
    EXPECT_EQ(r.em_iters_step, 0.5);
}

TEST_F(RecomposerTest, HoleSearchWindowIsHalvedAndRandSeeds) {
    Recomposer r(&client, RecomposerModeDefault);
    Options seven{{"-hole_search_window", "7"}};
    r.setParameters(seven);
    EXPECT_EQ(r.half_search_window, 3);
    Options minus{{"-hole_search_window", "-7"}};
    r.setParameters(minus);
    EXPECT_EQ(r.half_search_window, -3);

    RandomGenerator const saved = global_random();
    Options one{{"-rand", "1"}};
    r.setParameters(one);
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
    EXPECT_EQ(ran.half_search_window, -500);
    EXPECT_FALSE(ran.bidir);
    EXPECT_EQ(ran._target_buf.width(), 10);
    EXPECT_EQ(ran.first_synthesis_level, 4);
    EXPECT_EQ(ran.min_sample_patches, 9);
    EXPECT_EQ(ran.current_hole_gamma, 2.0);
    EXPECT_EQ(ran.client, &client);

    Recomposer const copy(ran);
    EXPECT_EQ(copy._target_buf.width(), 0);
    EXPECT_EQ(copy.half_search_window, -500);
    EXPECT_EQ(copy.client, &client);
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
