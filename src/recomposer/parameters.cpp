#include <weftmap/frame/exceptions.hpp>
#include <weftmap/recomposer/parameters.hpp>

#include <algorithm>
#include <cmath>

namespace WM {

RecomposerParameters::RecomposerParameters(RecomposerMode mode) {
    switch (mode) {
        case RecomposerModeHoleFill:
            hole_gamma = 1.3;
            nn_iters_max = 2;
            bidir = false;
            coarse_size = 25;
            pyramid_ratio = 0.7;
            do_weight = true;
            weigh_similarity = false;
            weigh_hole = true;
            last_upscale_step = 0.7;
            em_iters_gradres = 30;
            em_iters_max = 25;
            em_iters_min = 3;
            em_iters_step = 1.75;
            em_iters_final = 1;
            use_minnn = true;
            minnn_opt_levels = 3;
            minnn_optr_nn_iters = 2;
            minnn_optr_rs_max = 3;
            minnn_optp_nn_iters = 2;
            minnn_optp_rs_max = 1;
            break;
        case RecomposerModeTapestry:
            nn_iters_max = 2;
            bidir = true;
            coarse_size = 25;
            pyramid_ratio = 0.7;
            do_weight = false;
            weigh_similarity = false;
            weigh_hole = false;
            em_iters_gradres = 20;
            em_iters_max = 10;
            em_iters_min = 3;
            em_iters_step = 1.0;
            em_iters_final = 1;
            use_minnn = true;
            break;
        case RecomposerModeDefault:
        case RecomposerModeKeep:
            break;
    }
}

std::deque<double> build_scale_list(double s0, double pyramid_ratio, double last_upscale_step) {
    if (pyramid_ratio > 1.0 || pyramid_ratio < 0.0)
        raise("WEFTMAP_INVALID_PARAMETERS: Bad pyramid ratio %f", pyramid_ratio);
    double const d = std::max(std::sqrt(pyramid_ratio), 0.9);
    std::deque<double> scales;
    double v = 1.0;
    for (int n = 1; v > s0 / d; ++n) {
        if (n >= 100)
            raise("WEFTMAP_INVALID_PARAMETERS: Bad pyramid ratio %f or scale %f", pyramid_ratio,
                  s0);
        scales.push_front(v);
        v *= n == 1 ? last_upscale_step : pyramid_ratio;
    }
    scales.push_front(s0);
    return scales;
}

Point level_size(Point const& full_size, double scale) {
    return Point(static_cast<std::ptrdiff_t>(static_cast<double>(full_size.x) * scale + 0.5),
                 static_cast<std::ptrdiff_t>(static_cast<double>(full_size.y) * scale + 0.5));
}

Point next_gradual_size(Point const& current, Point const& goal, double ratio) {
    auto const step = [ratio](std::ptrdiff_t c, std::ptrdiff_t g) -> std::ptrdiff_t {
        if (g < c) return std::max(static_cast<std::ptrdiff_t>(static_cast<double>(c) * ratio), g);
        if (g > c)
            return std::min(static_cast<std::ptrdiff_t>(static_cast<double>(c) / ratio + 1.0), g);
        return c;
    };
    return Point(step(current.x, goal.x), step(current.y, goal.y));
}

}  // namespace WM
