#include "library_errors.hpp"

#include <weftmap/frame/exceptions.hpp>
#include <weftmap/image/inset_view.hpp>
#include <weftmap/image/memory.hpp>
#include <weftmap/image/recycled_image.hpp>

#include <cstring>
#include <new>
#include <string>
#include <utility>

namespace WM::host {

char const* error_code_name(ErrorCode code) {
    switch (code) {
        case ErrorCode::invalid_input:
            return "invalid input";
        case ErrorCode::hole_too_large:
            return "hole too large";
        case ErrorCode::memory_limit:
            return "memory limit";
        case ErrorCode::cancelled:
            return "cancelled";
        case ErrorCode::output_failed:
            return "output failed";
        case ErrorCode::internal:
            break;
    }
    return "internal";
}

Error::Error(ErrorCode code, std::string const& message, std::string library_message)
    : std::runtime_error(message), code_(code), library_message_(std::move(library_message)) {}

namespace detail {
namespace {

bool has_tag(char const* text, char const* tag) {
    return std::strncmp(text, tag, std::strlen(tag)) == 0;
}

char const* const hole_message =
    "the hole is too large: too little of the picture is left outside it to take patches from "
    "(make the hole smaller or give it more surroundings)";

std::string memory_message() {
    return "the memory limit of " + std::to_string(BaseLimitedByteMemoryAllocator::getLimit()) +
           " bytes is too small for this picture";
}

}  // namespace

[[noreturn]] void rethrow_as_error() {
    try {
        throw;
    } catch (Error const&) {
        throw;
    } catch (Exception const& e) {
        std::string text = e.message;
        while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
        if (dynamic_cast<ExceptionNotEnoughPatches const*>(&e) != nullptr ||
            has_tag(e.message, "WEFTMAP_HOLE_TOO_LARGE"))
            throw Error(ErrorCode::hole_too_large, hole_message, text);
        if (dynamic_cast<ExceptionMemoryLimit const*>(&e) != nullptr ||
            has_tag(e.message, "WEFTMAP_MEMORY_LIMIT") ||
            has_tag(e.message, "WEFTMAP_NOT_ENOUGH_MEMORY"))
            throw Error(ErrorCode::memory_limit, memory_message(), text);
        if (has_tag(e.message, "WEFTMAP_USER_CANCELED"))
            throw Error(ErrorCode::cancelled, "cancelled", text);
        ErrorCode const code = has_tag(e.message, "WEFTMAP_INVALID_PARAMETERS")
                                   ? ErrorCode::invalid_input
                                   : ErrorCode::internal;
        throw Error(code, "the library failed: " + text, text);
    } catch (std::bad_alloc const&) {
        throw Error(ErrorCode::memory_limit, "out of memory for this picture");
    } catch (std::exception const& e) {
        throw Error(ErrorCode::internal, std::string("the library failed: ") + e.what());
    }
}

}  // namespace detail
}  // namespace WM::host
