// The optional inputs a host offers, asked in one call.
#pragma once

#include <weftmap/twopass/pixel_access.hpp>

namespace WM::detail {

struct WhichInputs {
    bool hole = false;
    bool init = false;
    bool valid = false;
    bool a_constraint = false;
    bool b_weight = false;
    bool a_constraint_mask = false;
};

// Asked anew wherever the answer is used: a host may answer differently at
// each scale.
template <class Pixel>
WhichInputs which_inputs(MultiScalePixelAccessBase<Pixel> const& access) {
    WhichInputs in;
    access.getWhichInputs(in.hole, in.init, in.valid, in.a_constraint, in.b_weight,
                          in.a_constraint_mask);
    return in;
}

}  // namespace WM::detail
