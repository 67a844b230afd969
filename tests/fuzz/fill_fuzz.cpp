// A whole small fill or retarget through the kit, with a fuzzed picture, a
// fuzzed hole and fuzzed recomposer option strings: every run either works
// (a fill keeps every pixel outside the hole, a retarget has the size asked
// for) or fails with Error, and runs that take too long are cancelled and
// must stop.
#include "fuzz_support.hpp"

#include <fuzzer/FuzzedDataProvider.h>

#include <weftmap/host.hpp>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace host = WM::host;

namespace {

// Keys the recomposer reads, so that most fuzzed options reach it.
char const* const keys[] = {"-no_sim_weight",
                            "-no_hole_weight",
                            "-coherent",
                            "-no_coherent",
                            "-minnn",
                            "-no_minnn",
                            "-const_coarse_size",
                            "-generate_index_map",
                            "-do_propagate",
                            "-no_propagate",
                            "-patch_w",
                            "-nn_iters_max",
                            "-rs_max_max",
                            "-rs_min",
                            "-rs_ratio",
                            "-rs_iters",
                            "-last_upscale_step",
                            "-em_iters",
                            "-em_iters_gradres",
                            "-em_iters_max",
                            "-em_iters_min",
                            "-em_iters_step",
                            "-em_iters_final",
                            "-patch_w_refine",
                            "-coherence_w_refine",
                            "-complete_w_refine",
                            "-minnn_opt_levels",
                            "-minnn_optr_nn_iters",
                            "-minnn_optr_rs_max",
                            "-minnn_optp_nn_iters",
                            "-minnn_optp_rs_max",
                            "-bidir",
                            "-coarse_size",
                            "-min_hole_width",
                            "-pyramid_ratio",
                            "-coherence_weight",
                            "-complete_weight",
                            "-hole_gamma",
                            "-src_important_weight",
                            "-directional_roifill_angle",
                            "-upsample_mode",
                            "-hole_search_window",
                            "-rand"};

// Values near the edges of what the options take.
char const* const values[] = {"0",   "1",    "-1",  "2",    "7",   "0.5",        "0.99",
                              "1.5", "1e9",  "nan", "inf",  "abc", "2147483647", "-2147483648",
                              "3",   "1000", "",    "0.01", "25",  "1.00001"};

host::PixelFormat const formats[] = {
    {host::Depth::u8, host::Colour::gray},  {host::Depth::u8, host::Colour::rgb},
    {host::Depth::u8, host::Colour::cmyk},  {host::Depth::u16, host::Colour::gray},
    {host::Depth::u16, host::Colour::rgb},  {host::Depth::u16, host::Colour::cmyk},
    {host::Depth::f32, host::Colour::gray}, {host::Depth::f32, host::Colour::rgb},
    {host::Depth::f32, host::Colour::cmyk}};

// A picture with some texture (stripes of a fuzzed period), then raw
// fuzzed bytes over its first rows; float channels may get any bits,
// NaN and infinity included.
host::Image picture(FuzzedDataProvider& in, host::PixelFormat format, host::Size size) {
    host::Image image(format, size);
    int const period = in.ConsumeIntegralInRange(2, 9);
    host::ImageView const v = image.view();
    for (std::ptrdiff_t y = 0; y < size.height; ++y)
        for (std::ptrdiff_t x = 0; x < size.width; ++x) {
            unsigned char* p = v.pixel(x, y);
            double const t = ((x + 2 * y) % period) / double(period);
            for (int c = 0; c < format.channels(); ++c) {
                double const value = std::fmod(t + 0.3 * c, 1.0);
                if (format.depth == host::Depth::u8)
                    p[c] = static_cast<unsigned char>(value * 255);
                else if (format.depth == host::Depth::u16) {
                    auto const s = static_cast<std::uint16_t>(value * 65535);
                    std::memcpy(p + 2 * c, &s, 2);
                } else {
                    auto const f = static_cast<float>(value);
                    std::memcpy(p + 4 * c, &f, 4);
                }
            }
        }
    std::vector<std::uint8_t> const raw =
        in.ConsumeBytes<std::uint8_t>(in.ConsumeIntegralInRange<std::size_t>(0, 256));
    std::size_t const row = std::size_t(size.width) * format.pixel_bytes();
    for (std::size_t i = 0; i < raw.size() && i / row < std::size_t(size.height); ++i)
        v.pixel(0, std::ptrdiff_t(i / row))[i % row] = raw[i];
    return image;
}

// A disc, a rectangle or scattered bytes, of any strength.
host::Image hole_mask(FuzzedDataProvider& in, host::Size size) {
    host::Image mask(host::mask_format, size);
    host::ImageView const v = mask.view();
    int const kind = in.ConsumeIntegralInRange(0, 2);
    std::uint8_t const strength = in.ConsumeIntegral<std::uint8_t>();
    std::ptrdiff_t const cx = in.ConsumeIntegralInRange<std::ptrdiff_t>(0, size.width - 1);
    std::ptrdiff_t const cy = in.ConsumeIntegralInRange<std::ptrdiff_t>(0, size.height - 1);
    std::ptrdiff_t const r = in.ConsumeIntegralInRange<std::ptrdiff_t>(0, 40);
    for (std::ptrdiff_t y = 0; y < size.height; ++y)
        for (std::ptrdiff_t x = 0; x < size.width; ++x) {
            bool const inside = kind == 0   ? (x - cx) * (x - cx) + (y - cy) * (y - cy) <= r * r
                                : kind == 1 ? std::abs(x - cx) <= r && std::abs(y - cy) <= r / 2
                                            : false;
            *v.pixel(x, y) = inside ? strength : 0;
        }
    if (kind == 2) {
        std::vector<std::uint8_t> const raw =
            in.ConsumeBytes<std::uint8_t>(std::size_t(size.width * size.height));
        for (std::size_t i = 0; i < raw.size(); ++i)
            *v.pixel(std::ptrdiff_t(i) % size.width, std::ptrdiff_t(i) / size.width) = raw[i];
    }
    return mask;
}

void add_options(FuzzedDataProvider& in, host::Options& options) {
    int const count = in.ConsumeIntegralInRange(0, 4);
    for (int i = 0; i < count; ++i) {
        std::string const key =
            in.ConsumeBool() ? keys[in.ConsumeIntegralInRange<std::size_t>(0, std::size(keys) - 1)]
                             : in.ConsumeRandomLengthString(12);
        std::string const value =
            in.ConsumeBool()
                ? values[in.ConsumeIntegralInRange<std::size_t>(0, std::size(values) - 1)]
                : in.ConsumeRandomLengthString(12);
        options.recomposer_options[key] = value;
    }
}

bool same_outside_hole(host::ConstImageView const& a, host::ConstImageView const& b,
                       host::ConstImageView const& hole) {
    std::size_t const bytes = std::size_t(a.format.pixel_bytes());
    for (std::ptrdiff_t y = 0; y < a.height; ++y)
        for (std::ptrdiff_t x = 0; x < a.width; ++x)
            if (*hole.pixel(x, y) == 0 && std::memcmp(a.pixel(x, y), b.pixel(x, y), bytes) != 0)
                return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    static weftmap_fuzz::Setup const setup;
    static weftmap_fuzz::Watchdog watchdog;
    {
        FuzzedDataProvider in(data, size);
        host::PixelFormat const format =
            formats[in.ConsumeIntegralInRange<std::size_t>(0, std::size(formats) - 1)];
        host::Size const picture_size{in.ConsumeIntegralInRange<std::ptrdiff_t>(1, 48),
                                      in.ConsumeIntegralInRange<std::ptrdiff_t>(1, 48)};
        bool const retarget = in.ConsumeBool();
        host::Options options;
        int const mode = in.ConsumeIntegralInRange(0, 3);
        if (mode < 3) options.mode = static_cast<host::Mode>(mode);
        if (in.ConsumeBool()) options.comparator = host::Comparator::gain_bias;
        options.bands = in.ConsumeIntegralInRange(1, 3);
        options.seed = in.ConsumeIntegralInRange<long long>(1, 1000);
        host::Size const target{in.ConsumeIntegralInRange<std::ptrdiff_t>(1, 96),
                                in.ConsumeIntegralInRange<std::ptrdiff_t>(1, 96)};
        add_options(in, options);
        host::Image const image = picture(in, format, picture_size);
        host::Image const hole = hole_mask(in, picture_size);

        options.cancel = &watchdog.flag();
        watchdog.start(std::chrono::milliseconds(1500));
        try {
            if (retarget) {
                host::Image const result = host::retarget(image.view(), target, options);
                if (result.size() != target || result.format() != format)
                    weftmap_fuzz::fail("a retarget gave another size or format");
            } else {
                host::Image const result = host::fill(image.view(), hole.view(), options);
                if (result.size() != picture_size || result.format() != format)
                    weftmap_fuzz::fail("a fill gave another size or format");
                if (!same_outside_hole(result.view(), image.view(), hole.view()))
                    weftmap_fuzz::fail("a fill changed a pixel outside the hole");
            }
        } catch (host::Error const& e) {
            // Internal failures are findings: every refusal must say what is wrong.
            if (e.code() == host::ErrorCode::internal) {
                std::fprintf(stderr, "%s %lldx%lld -> %lldx%lld, mode %d, bands %d, options:",
                             retarget ? "retarget" : "fill", (long long)picture_size.width,
                             (long long)picture_size.height, (long long)target.width,
                             (long long)target.height, mode, options.bands);
                for (auto const& [key, value] : options.recomposer_options)
                    std::fprintf(stderr, " %s=%s", key.c_str(), value.c_str());
                std::fprintf(stderr, "\n");
                // The inputs as files, to run again with the command-line host.
                if (char const* folder = std::getenv("WEFTMAP_FUZZ_DUMP")) {
                    std::string const base = std::string(folder) + "/";
                    host::write_image_file(base + "picture.tif", base + "picture.tif",
                                           host::FileFormat::tiff, image.view());
                    host::write_image_file(base + "hole.png", base + "hole.png",
                                           host::FileFormat::png, hole.view());
                }
            }
            weftmap_fuzz::expect_codes(
                e, {host::ErrorCode::invalid_input, host::ErrorCode::hole_too_large,
                    host::ErrorCode::memory_limit, host::ErrorCode::cancelled});
        }
        watchdog.stop();
    }
    weftmap_fuzz::expect_no_images_held(setup);
    return 0;
}
