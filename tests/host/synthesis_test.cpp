// The kit's fill and retarget: every format, no writes to the caller's
// pixels, strides, sampling areas, and each failure as its code.
#include "host/kit_helpers.hpp"

#include <weftmap/host/errors.hpp>
#include <weftmap/host/hole_mask.hpp>
#include <weftmap/host/runtime.hpp>
#include <weftmap/host/synthesis.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

namespace WM::host::test {
namespace {

PixelFormat const rgb8{Depth::u8, Colour::rgb};

// Reproducible runs: one search band and a fixed seed.
Options fixed_options() {
    Options options;
    options.bands = 1;
    options.seed = 5;
    return options;
}

template <class Pixel>
class KitFill : public ::testing::Test {};
TYPED_TEST_SUITE(KitFill, NinePixels);

TYPED_TEST(KitFill, KeepsKnownPixelsAndNeverWritesItsInputs) {
    PixelFormat const format = FormatOf<TypeParam>::value;
    Image const image = texture(format, {40, 32});
    Image const hole = disc_mask({40, 32}, 20, 15, 6);
    Image const image_before = image.clone(), hole_before = hole.clone();
    for (Comparator comparator : {Comparator::translate, Comparator::gain_bias}) {
        Options options = fixed_options();
        options.comparator = comparator;
        Image const result = fill(image.view(), hole.view(), options);
        ASSERT_EQ(result.format(), format);
        ASSERT_EQ(result.size(), image.size());
        EXPECT_TRUE(known_pixels_kept(image.view(), hole.view(), result.view()));
        // The periodic texture is continued into the hole. (The gain/bias
        // patch transform clamps at 255 for every depth, which spoils
        // 16-bit pictures, so only the plain comparator is judged.)
        if (comparator == Comparator::translate) {
            EXPECT_GT(psnr_in_hole(image.view(), hole.view(), result.view()), 20.0);
        }
    }
    // A narrowing retarget runs in two library runs over the same pixels.
    Image const narrow = retarget(image.view(), {30, 32}, fixed_options());
    EXPECT_EQ(narrow.format(), format);
    EXPECT_EQ(narrow.size(), (Size{30, 32}));
    // An empty hole gives a copy.
    Image const none(mask_format, image.size());
    EXPECT_TRUE(same_pixels(fill(image.view(), none.view()).view(), image.view()));
    EXPECT_TRUE(same_pixels(image.view(), image_before.view()));
    EXPECT_TRUE(same_pixels(hole.view(), hole_before.view()));
}

TEST(KitSynthesis, StridedInputGivesTheSameFillAsItsPackedCopy) {
    // The picture is every other column of a wider one, bottom row first.
    Image const wide = texture(rgb8, {96, 40});
    ConstImageView const w = wide.view();
    ConstImageView const slice(w.pixel(0, 39), rgb8, 48, 40, -w.row_stride, 2 * w.pixel_stride);
    Image const hole = disc_mask({48, 40}, 24, 20, 6);
    Image const packed = Image::copy_of(slice);
    Image const a = fill(slice, hole.view(), fixed_options());
    Image const b = fill(packed.view(), hole.view(), fixed_options());
    EXPECT_TRUE(same_pixels(a.view(), b.view()));
    EXPECT_TRUE(same_pixels(wide.view(), texture(rgb8, {96, 40}).view()));
}

TEST(KitSynthesis, SamplingAreaIsWhereTheFillTakesItsPatchesFrom) {
    // Left half red, right half blue, the hole deep in the blue half. With
    // only the red half to sample from, the hole turns red.
    Size const size{64, 40};
    Image image(rgb8, size);
    Image sample(mask_format, size);
    for (std::ptrdiff_t y = 0; y < size.height; ++y)
        for (std::ptrdiff_t x = 0; x < size.width; ++x) {
            bool const left = x < size.width / 2;
            image.view().pixel(x, y)[left ? 0 : 2] = 200;
            *sample.view().pixel(x, y) = left ? 255 : 0;
        }
    Image const hole = disc_mask(size, 48, 20, 5);
    Options options = fixed_options();
    options.sample = sample.view();
    Image const result = fill(image.view(), hole.view(), options);
    unsigned char const* centre = result.view().pixel(48, 20);
    EXPECT_GT(centre[0], 150);
    EXPECT_LT(centre[2], 50);
    // Pixels outside the sampling area are still fixed, not filled.
    EXPECT_TRUE(known_pixels_kept(image.view(), hole.view(), result.view()));
    // Without it, the blue around the hole fills it.
    Image const plain = fill(image.view(), hole.view(), fixed_options());
    EXPECT_GT(plain.view().pixel(48, 20)[2], 150);
}

TEST(KitSynthesis, GrownHoleIsTheDiscAroundItAndFillsReplaceIt) {
    Size const size{40, 30};
    Image hole(mask_format, size);
    *hole.view().pixel(10, 10) = 255;
    *hole.view().pixel(30, 20) = 90;  // partial values are kept
    Image const grown = grow_hole(hole.view(), 2);
    int count = 0;
    for (std::ptrdiff_t y = 0; y < size.height; ++y)
        for (std::ptrdiff_t x = 0; x < size.width; ++x) count += *grown.view().pixel(x, y) != 0;
    EXPECT_EQ(count, 2 * 13);  // dx*dx + dy*dy <= 4 holds for 13 offsets
    EXPECT_EQ(*grown.view().pixel(12, 10), 255);
    EXPECT_EQ(*grown.view().pixel(11, 11), 255);
    EXPECT_EQ(*grown.view().pixel(12, 11), 0);
    EXPECT_EQ(*grown.view().pixel(30, 20), 90);
    EXPECT_TRUE(same_pixels(grow_hole(hole.view(), 0).view(), hole.view()));
    EXPECT_THROW(grow_hole(hole.view(), -1), Error);
    EXPECT_THROW(grow_hole(hole.view(), max_hole_growth + 1), Error);
    Image const inverse = sampling_outside(hole.view());
    EXPECT_EQ(*inverse.view().pixel(10, 10), 0);
    EXPECT_EQ(*inverse.view().pixel(0, 0), 255);
    MaskBounds const bounds = mask_bounds(hole.view());
    EXPECT_EQ((std::array{bounds.left, bounds.top, bounds.right, bounds.bottom}),
              (std::array<std::ptrdiff_t, 4>{10, 10, 30, 20}));
    EXPECT_TRUE(mask_bounds(Image(mask_format, size).view()).empty());

    // A fill with a grown hole rebuilds the ring around the hole (here a
    // red halo, found nowhere else) and keeps everything beyond it.
    Image image = texture(rgb8, {48, 40});
    Image const disc = disc_mask({48, 40}, 24, 20, 5);
    for (int dx = 5; dx <= 7; ++dx) {
        unsigned char* halo = image.view().pixel(24 + dx, 20);
        halo[0] = 255, halo[1] = 0, halo[2] = 0;
    }
    Options options = fixed_options();
    options.grow = 3;
    Image const result = fill(image.view(), disc.view(), options);
    EXPECT_TRUE(known_pixels_kept(image.view(), grow_hole(disc.view(), 3).view(), result.view()));
    for (int dx = 6; dx <= 7; ++dx) EXPECT_NE(result.view().pixel(24 + dx, 20)[1], 0);
}

TEST(KitSynthesis, NarrowingRetargetRepeatsWithOneBandAndReportsProgressOnce) {
    // Narrowed, the picture is walked to its new size at the coarsest scale
    // in one library run and refined in a second: progress rises through
    // both as one job, and one band repeats the result.
    Image const image = texture(rgb8, {96, 64});
    std::vector<float> reports;
    Options options = fixed_options();
    options.progress = [&](float f) { reports.push_back(f); };
    Image const first = retarget(image.view(), {68, 64}, options);
    ASSERT_FALSE(reports.empty());
    EXPECT_TRUE(std::is_sorted(reports.begin(), reports.end()));
    EXPECT_LT(reports.front(), 0.1f);
    EXPECT_EQ(reports.back(), 1.0f);
    EXPECT_TRUE(same_pixels(retarget(image.view(), {68, 64}, options).view(), first.view()));
    // Narrower than a patch at the usual coarsest scale, the walk runs at
    // a larger one.
    EXPECT_EQ(retarget(image.view(), {12, 64}, fixed_options()).size(), (Size{12, 64}));
    // A caller's own -bidir keeps the library's single run, which differs.
    options.recomposer_options["-bidir"] = "1";
    EXPECT_FALSE(same_pixels(retarget(image.view(), {68, 64}, options).view(), first.view()));
}

// Pixels of a pure red, which the texture (every channel 12 or more) never
// has, nor any mean of votes that are not all red.
long long red_pixels(ConstImageView const& image) {
    long long count = 0;
    for (std::ptrdiff_t y = 0; y < image.height; ++y)
        for (std::ptrdiff_t x = 0; x < image.width; ++x) {
            unsigned char const* p = image.pixel(x, y);
            count += p[0] > 200 && p[1] < 8 && p[2] < 8;
        }
    return count;
}

TEST(KitSynthesis, RetargetTakesNothingFromTheRemovedRegion) {
    // A red band beside the texture. Narrowed, the run keeps some red
    // somewhere, since every part of the picture asks for a place; marked
    // for removal, the band leaves no red behind.
    Size const size{72, 40};
    Image image = texture(rgb8, size);
    Image remove(mask_format, size);
    for (std::ptrdiff_t y = 0; y < size.height; ++y)
        for (std::ptrdiff_t x = 0; x < 14; ++x) {
            unsigned char* p = image.view().pixel(x, y);
            p[0] = 255, p[1] = 0, p[2] = 0;
            *remove.view().pixel(x, y) = 128;  // any non-zero value removes
        }
    Image const remove_before = remove.clone();
    Image const plain = retarget(image.view(), {52, 40}, fixed_options());
    EXPECT_GT(red_pixels(plain.view()), 100);
    Options options = fixed_options();
    options.remove = remove.view();
    Image const without = retarget(image.view(), {52, 40}, options);
    EXPECT_EQ(without.size(), (Size{52, 40}));
    EXPECT_EQ(red_pixels(without.view()), 0);
    EXPECT_TRUE(same_pixels(remove.view(), remove_before.view()));

    // With a sampling mask as well, both forbid.
    Image sample(mask_format, size);
    for (std::ptrdiff_t y = 0; y < size.height; ++y)
        for (std::ptrdiff_t x = 0; x < size.width; ++x) *sample.view().pixel(x, y) = x < 60;
    options.sample = sample.view();
    EXPECT_EQ(red_pixels(retarget(image.view(), {52, 40}, options).view()), 0);

    // A mask of another size or format is refused before any work.
    Image const small(mask_format, {70, 40});
    options.sample.reset();
    options.remove = small.view();
    EXPECT_THROW(retarget(image.view(), {52, 40}, options), Error);
    options.remove = image.view();
    EXPECT_THROW(retarget(image.view(), {52, 40}, options), Error);
}

TEST(KitSynthesis, EachFailureComesOutWithItsCode) {
    Image const image = texture(rgb8, {48, 36});
    Image const hole = disc_mask({48, 36}, 24, 18, 5);
    Image const small_hole = disc_mask({40, 36}, 20, 18, 5);
    EXPECT_EQ(code_of([&] { fill(image.view(), small_hole.view()); }), ErrorCode::invalid_input);
    EXPECT_EQ(code_of([&] { fill(image.view(), image.view()); }), ErrorCode::invalid_input);
    EXPECT_EQ(code_of([&] {
                  fill(Image(rgb8, {0, 5}).view(), Image().view());
              }),
              ErrorCode::invalid_input);
    EXPECT_EQ(code_of([&] { retarget(image.view(), {0, 10}); }), ErrorCode::invalid_input);

    Image all(mask_format, image.size());
    std::memset(all.view().data, 255, 48 * 36);
    EXPECT_EQ(code_of([&] { fill(image.view(), all.view(), fixed_options()); }),
              ErrorCode::hole_too_large);

    // A value outside what an option takes is refused before the run.
    Options bad = fixed_options();
    bad.recomposer_options["-coarse_size"] = "0";
    EXPECT_EQ(code_of([&] { fill(image.view(), hole.view(), bad); }), ErrorCode::invalid_input);

    // A speck of a hole in a tiny picture: its coarsest level would be
    // narrower than a patch.
    Image const tiny = texture(rgb8, {8, 18});
    Image speck(mask_format, tiny.size());
    std::memset(speck.view().pixel(0, 3), 255, 3);
    try {
        fill(tiny.view(), speck.view(), fixed_options());
        ADD_FAILURE() << "no error";
    } catch (Error const& e) {
        EXPECT_EQ(e.code(), ErrorCode::invalid_input);
        EXPECT_NE(e.library_message().find("smaller than a 7x7 patch"), std::string::npos)
            << e.library_message();
    }

    unsigned long long const limit = memory_limit();
    Options tight = fixed_options();
    tight.memory_limit = memory_in_use() + 20000;
    EXPECT_EQ(code_of([&] { fill(image.view(), hole.view(), tight); }), ErrorCode::memory_limit);
    set_memory_limit(limit);
}

// The message of the Error that `run` throws, or "" when it throws none.
std::string message_of(std::function<void()> const& run) {
    try {
        run();
    } catch (Error const& e) {
        EXPECT_EQ(e.code(), ErrorCode::invalid_input) << e.what();
        return e.what();
    }
    return "";
}

TEST(KitSynthesis, OptionsAreCheckedBeforeAnyWorkAndNameWhatIsWrong) {
    std::vector<std::string> warnings;
    auto const with = [&](std::string const& key, std::string const& value) {
        Options options;
        options.recomposer_options[key] = value;
        options.warning = [&](std::string const& text) { warnings.push_back(text); };
        return message_of([&] { check_recomposer_options(options); });
    };
    // Unreadable, non-finite and out-of-range values name the option.
    EXPECT_EQ(with("-em_iters", "abc"),
              "the recomposer option -em_iters needs a whole number from 1 to 1000, got 'abc'");
    EXPECT_NE(with("-rs_ratio", "nan").find("-rs_ratio needs a number above 0 and below 1"),
              std::string::npos);
    using Setting = std::pair<std::string, std::string>;
    Setting const refused[] = {
        {"-patch_w", "-1"},   {"-patch_w", "0"},      {"-em_iters", "0"},
        {"-em_iters", "8.5"}, {"-coarse_size", "-1"}, {"-last_upscale_step", "2"},
        {"-hole_gamma", "1"}, {"-bidir", "yes"},      {"-src_important_weight", "1e-9"}};
    for (auto const& [key, value] : refused)
        EXPECT_NE(with(key, value).find(key + " needs"), std::string::npos) << key << "=" << value;
    // Values that work pass; unknown keys and values of flags are only told.
    Setting const taken[] = {{"-em_iters", "8"},
                             {"-rs_ratio", "0.25"},
                             {"-patch_w_refine", "0"},
                             {"-src_important_weight", "0"},
                             {"-bidir", "1"}};
    for (auto const& [key, value] : taken) EXPECT_EQ(with(key, value), "") << key << "=" << value;
    EXPECT_TRUE(warnings.empty());
    EXPECT_EQ(with("-frobnicate", "3"), "");
    EXPECT_EQ(with("-no_minnn", "1"), "");
    EXPECT_EQ(warnings,
              (std::vector<std::string>{
                  "the recomposer has no option '-frobnicate'; it is ignored",
                  "the recomposer option -no_minnn is a flag; its value '1' is ignored"}));

    // The gain-bias comparator only where the vote is one-way.
    Options gain_bias;
    gain_bias.comparator = Comparator::gain_bias;
    EXPECT_EQ(message_of([&] { check_comparator(gain_bias, false); }), "");
    EXPECT_NE(message_of([&] { check_comparator(gain_bias, true); }).find("retargeting"),
              std::string::npos);
    gain_bias.mode = Mode::general;
    EXPECT_NE(message_of([&] { check_comparator(gain_bias, false); }).find("-bidir to 0"),
              std::string::npos);
    gain_bias.recomposer_options["-bidir"] = "0";
    EXPECT_EQ(message_of([&] { check_comparator(gain_bias, false); }), "");

    // Retarget sizes: both ways up to the walk's reach. A side shrinks to
    // about a thirtieth, since the walk must end at least a patch wide. A
    // one-way vote, or the hole-fill preset, grows a side by two patches at
    // most: the first pixel beyond is refused by name, not by the library's
    // locked buffers.
    Options both_ways, hole_fill = fixed_options(), one_way;
    hole_fill.mode = Mode::hole_fill;
    one_way.mode = Mode::general;
    one_way.recomposer_options["-bidir"] = "0";
    std::tuple<Size, Options const*, char const*> const sizes[] = {
        {{448, 480}, &both_ways, ""},
        {{64, 480}, &both_ways, ""},
        {{1280, 960}, &both_ways, ""},
        {{20, 480}, &both_ways, "a thirtieth"},
        {{7, 7}, &both_ways, "a thirtieth"},
        {{19200, 14400}, &both_ways, "too far"},
        {{70000, 480}, &both_ways, "outside 1 to 65535"},
        {{654, 494}, &hole_fill, ""},
        {{655, 480}, &one_way, "with -bidir=0"},
        {{640, 495}, &hole_fill, "14 pixels a side, which mode hole-fill cannot"}};
    for (auto const& [size, options, refusal] : sizes) {
        std::string const message = message_of([&] {
            check_retarget_size({640, 480}, size, *options);
        });
        EXPECT_EQ(message.empty(), *refusal == 0)
            << size.width << "x" << size.height << " " << message;
        EXPECT_NE(message.find(refusal), std::string::npos) << message;
    }
    // And the entry points ask before they work.
    Image const image = texture(rgb8, {48, 36});
    EXPECT_EQ(code_of([&] {
                  retarget(image.view(), {48 * 30, 36 * 30});
              }),
              ErrorCode::invalid_input);
    EXPECT_EQ(code_of([&] {
                  retarget(image.view(), {40, 36}, gain_bias);
              }),
              ErrorCode::invalid_input);
    // The largest growth allowed one way does run.
    EXPECT_EQ(retarget(image.view(), {48 + 14, 36 + 14}, hole_fill).size(), (Size{62, 50}));
}

TEST(KitSynthesis, CancelFromAnotherThreadAndCallbackFailuresStopTheRun) {
    Image const image = texture(rgb8, {160, 120});
    Image const hole = disc_mask({160, 120}, 80, 60, 30);
    unsigned long long const held = memory_in_use();
    Options options = fixed_options();
    options.recomposer_options["-em_iters"] = "200";
    CancelFlag cancel;
    options.cancel = &cancel;
    std::atomic<bool> started{false};
    options.progress = [&](float) { started = true; };
    std::thread canceller([&] {
        while (!started) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        cancel.request();
    });
    EXPECT_EQ(code_of([&] { fill(image.view(), hole.view(), options); }), ErrorCode::cancelled);
    canceller.join();

    // The host's own exception comes out of the run as it is.
    options.cancel = nullptr;
    options.progress = [](float f) {
        if (f > 0.0f) throw std::domain_error("stop here");
    };
    EXPECT_THROW(fill(image.view(), hole.view(), options), std::domain_error);
    EXPECT_EQ(memory_in_use(), held);
}

}  // namespace
}  // namespace WM::host::test
