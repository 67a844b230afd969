// The library's one way to fail: an exception whose text starts with a tag
// such as "WEFTMAP_INTERNAL_ERROR". The text lives inside the object, so an
// exception can be copied even when the heap is exhausted.
#pragma once

#include <weftmap/frame/export.hpp>

#include <boost/format.hpp>
#include <sstream>
#include <string>

namespace WM {

class WEFTMAP_API Exception {
public:
    explicit Exception(char const* text);
    explicit Exception(std::string text);
    explicit Exception(std::ostringstream const& text);
    explicit Exception(boost::format const& text);
    Exception(Exception const& other);
    Exception& operator=(Exception const& other);
    virtual ~Exception();

    virtual operator char const*() const;

    // Longest text kept; longer texts are cut.
    static constexpr int max_length = 255;

    char message[max_length + 1];
};

// A source image without enough patches to sample from.
class WEFTMAP_API ExceptionNotEnoughPatches : public Exception {
public:
    using Exception::Exception;
    ExceptionNotEnoughPatches(ExceptionNotEnoughPatches const& other) = default;
    ExceptionNotEnoughPatches& operator=(ExceptionNotEnoughPatches const& other) = default;
};

// The process-wide memory limit was reached.
class WEFTMAP_API ExceptionMemoryLimit : public Exception {
public:
    using Exception::Exception;
    ExceptionMemoryLimit(ExceptionMemoryLimit const& other) = default;
    ExceptionMemoryLimit& operator=(ExceptionMemoryLimit const& other) = default;
};

enum class ErrorClass { General, NotEnoughPatches, MemoryLimit };

// Out of line so that the templates below stay small.
[[noreturn]] WEFTMAP_API void throw_error(ErrorClass error_class, char const* text);
[[noreturn]] WEFTMAP_API void throw_error(ErrorClass error_class, boost::format const& text);

// Throws an exception of the given class with a message formed from `format`
// and `args`, e.g. raise("WEFTMAP_INTERNAL_ERROR: size %dx%d", w, h).
template <class... Args>
[[noreturn]] void raise_as(ErrorClass error_class, char const* format, Args const&... args) {
    if constexpr (sizeof...(Args) == 0) {
        throw_error(error_class, format);
    } else {
        boost::format text(format);
        (text % ... % args);
        throw_error(error_class, text);
    }
}

template <class... Args>
[[noreturn]] void raise(char const* format, Args const&... args) {
    raise_as(ErrorClass::General, format, args...);
}

}  // namespace WM
