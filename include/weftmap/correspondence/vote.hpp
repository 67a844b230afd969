// Voting: the vocabulary shared by the correspondence object and its callers.
#pragma once

#include <weftmap/image/inset_view.hpp>
#include <weftmap/image/pixel_types.hpp>

#include <boost/mp11/algorithm.hpp>

namespace WM {

// The values of Weftmap::vote_algorithm.
enum VoteAlgorithm {
    VoteWeightedMean = 0,
    VoteCentroid = 1  // refused: not part of this build
};

// An accumulator pixel: one double per channel, then the shared weight.
struct vote_weight_t {};
template <class Pixel>
using accumulator_pixel_t = gil::pixel<
    double,
    gil::layout<boost::mp11::mp_push_back<typename Pixel::layout_t::color_space_t, vote_weight_t>>>;

// Weight maps looked up at patch centres, and the hole distance map.
using WeightView = View<weight_pixel_t>;
using WeightInsetView = inset_view<WeightView, 1>;
using DistanceInsetView = inset_view<IntView, 0>;

}  // namespace WM
