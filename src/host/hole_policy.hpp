// What the kit's fill policies that judge a hole's surroundings share.
#pragma once

#include <weftmap/host/errors.hpp>
#include <weftmap/host/image.hpp>

#include <string>

namespace WM::host::detail {

// A patch over a hole pixel this close to a side of the picture reaches past it.
inline constexpr std::ptrdiff_t patch_reach = 6;

// Throws Error (invalid_input) unless `mask` is an 8-bit gray mask.
inline void check_mask_format(ConstImageView const& mask) {
    if (mask.format != mask_format)
        throw Error(ErrorCode::invalid_input,
                    std::string("a hole or sampling mask must be an 8-bit gray mask, not ") +
                        format_name(mask.format));
}

inline void check_hole_of(ConstImageView const& image, ConstImageView const& hole) {
    if (hole.size() != image.size() || hole.format != mask_format)
        throw Error(ErrorCode::invalid_input,
                    "a hole mask must be an 8-bit gray mask of the picture's size " +
                        size_text(image.size()));
}

}  // namespace WM::host::detail
