// The library's failures, told in the kit's terms.
#pragma once

#include <weftmap/host/errors.hpp>

#include <exception>

namespace WM::host::detail {

// Inside a catch block: throws the current exception as an Error. An Error
// passes unchanged, the library's tagged exceptions get their code, and
// anything else is internal.
[[noreturn]] void rethrow_as_error();

// Runs `f`, its failures coming out as Error.
template <class F>
decltype(auto) translating_errors(F&& f) {
    try {
        return f();
    } catch (...) {
        rethrow_as_error();
    }
}

}  // namespace WM::host::detail
