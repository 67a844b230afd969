// The host kit's one exception: a readable sentence with a code a host can
// branch on. The library's tagged exceptions arrive translated into it.
#pragma once

#include <weftmap/host/export.hpp>

#include <stdexcept>
#include <string>

namespace WM::host {

enum class ErrorCode {
    invalid_input,   // a picture, mask, size or option that cannot be used
    hole_too_large,  // too little of the picture is left to take patches from
    memory_limit,    // the memory limit is too small for the run
    cancelled,       // the cancel flag was raised
    output_failed,   // a file could not be written
    internal         // the library failed in a way the caller cannot fix
};

// "invalid input", "hole too large", ...
WEFTMAP_HOST_API char const* error_code_name(ErrorCode code);

class WEFTMAP_HOST_API Error : public std::runtime_error {
public:
    // `library_message` is the library's own tagged text when it raised the
    // failure ("WEFTMAP_INVALID_PARAMETERS: ..."), empty when the kit did.
    Error(ErrorCode code, std::string const& message, std::string library_message = {});
    ErrorCode code() const noexcept { return code_; }
    std::string const& library_message() const noexcept { return library_message_; }

private:
    ErrorCode code_;
    std::string library_message_;
};

}  // namespace WM::host
