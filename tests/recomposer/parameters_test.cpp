#include "correspondence/recording_client.hpp"
#include "support/test_client.hpp"

#include <weftmap/correspondence/random.hpp>
#include <weftmap/image/resample.hpp>
#include <weftmap/recomposer/recomposer.hpp>

#include <gtest/gtest.h>

#include <algorithm>
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

TEST_F(RecomposerTest, OptionMapReadsFlagsByPresenceAndValuesIntoTheFieldsType) {
    Recomposer r(&client, RecomposerModeDefault);
    configure(r, "-bogus=1");
    EXPECT_FALSE(r.allow_coherent);
    // A flag acts by its presence, whatever its value; the positive key wins.
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

    // The search window is given whole and kept halved.
    configure(r,
              "-patch_w=9 -rs_ratio=0.25 -bidir=0 -coarse_size=40 -src_important_weight=2.5 "
              "-hole_search_window=-7 -upsample_mode=1");
    EXPECT_EQ(std::make_tuple(r.patch_w, r.rs_ratio, r.bidir, r.coarse_size, r.src_important_wt,
                              r.half_search_window, r.upsample_mode),
              std::make_tuple(9, 0.25, false, 40, 2.5, -3, 1));
    // Unreadable values leave fields alone; a bool is a number.
    configure(r, "-coarse_size=many -rs_ratio= -bidir=true -hole_search_window=x -upsample_mode=?");
    EXPECT_EQ(
        std::make_tuple(r.coarse_size, r.rs_ratio, r.bidir, r.half_search_window, r.upsample_mode),
        std::make_tuple(40, 0.25, false, -3, 1));

    // em_iters fills four fields, and the specific keys win over it.
    auto const em = [&] {
        return std::make_tuple(r.em_iters_gradres, r.em_iters_max, r.em_iters_min, r.em_iters_final,
                               r.em_iters_step);
    };
    configure(r, "-em_iters=8");
    EXPECT_EQ(em(), std::make_tuple(8, 8, 8, 8, 1.0));
    configure(r, "-em_iters=8 -em_iters_max=12 -em_iters_step=0.5 -em_iters_gradres=2");
    EXPECT_EQ(em(), std::make_tuple(2, 12, 8, 8, 0.5));

    RandomGenerator const saved = global_random();
    configure(r, "-rand=1");
    RandomGenerator const from_option = global_random();
    seed_random(1);
    EXPECT_EQ(std::make_pair(from_option.w, from_option.z),
              std::make_pair(global_random().w, global_random().z));
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
    // A copy starts without buffers.
    EXPECT_EQ(Recomposer(ran)._target_buf.width(), 0);
}

TEST_F(RecomposerTest, SerializePrintsTheBlockInItsLayout) {
    Recomposer const r(&client, RecomposerModeDefault);
    r.serialize();  // no output installed: nothing happens
    test::ScopedCapture capture;
    r.serialize();
    std::string const& text = capture.channel.written;
    // Names padded to one column; six decimals, words for flags, corners for boxes.
    EXPECT_EQ(text.rfind("patch_w:             7\nnn_iters_max:        5\n", 0), 0u);
    EXPECT_NE(text.find("\nrs_max:              2147483647\nrs_min:              1\n"
                        "rs_ratio:            0.500000\nrs_iters:            1.000000\n"
                        "do_propagate:        true\nmin_update_box:      (-1,-1)-(-1,-1)\n"),
              std::string::npos);
    std::string const tail =
        "\nsigma_affine:        0.600000\n\ndo_synthesis:        false\n\n"
        "synthesis_coarse_size: -1\n\ndirectional_roifill_angle: -1000.000000\n\n";
    EXPECT_EQ(text.find(tail), text.size() - tail.size());
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 52);
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
    EXPECT_EQ(std::make_pair(rs_max, nn_iters), std::make_pair(3, 2));
    r.use_minnn = false;
    r.adjust_level_parameters(1, Point(120, 80), {0.25, 0.5, 0.75, 1.0}, em, rs_max, nn_iters);
    EXPECT_EQ(std::make_pair(rs_max, nn_iters), std::make_pair(60, 2));
}

}  // namespace
}  // namespace WM
