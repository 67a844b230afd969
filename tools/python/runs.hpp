// How a call from Python reaches the library: the kit's options from the
// keywords, the GIL released while the library works, Ctrl-C and the
// progress callback on the way back, and one call into the library at a time.
#pragma once

#include <weftmap/host/image.hpp>
#include <weftmap/host/options.hpp>

#include <pybind11/pybind11.h>

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace weftmap_python {

namespace py = pybind11;
namespace host = WM::host;

// The library's settings and its count of memory held are process-wide and
// unguarded, so its calls from several Python threads take turns. Recursive:
// a progress callback may drop the last reference to a result.
std::recursive_mutex& library_mutex();

// Runs `f` without the GIL, holding the library's turn.
template <class F>
decltype(auto) without_gil(F&& f) {
    py::gil_scoped_release release;
    std::lock_guard<std::recursive_mutex> const turn(library_mutex());
    return f();
}

// Frees a result's pixels when its array goes, in the library's turn.
void free_storage(std::unique_ptr<host::Image::Storage> storage);

// The keywords shared by fill and retarget, as Python gave them.
struct RunKeywords {
    std::string mode;
    std::string comparator;
    std::optional<py::dict> options;
    std::optional<long long> seed;
    std::optional<long long> memory_limit;
    std::optional<int> bands;
    bool scalar = false;
    std::optional<py::function> progress;
};

// The kit's options for `keywords`. Its progress function takes the GIL,
// lets Python handle pending signals (Ctrl-C) and calls the callback; a
// Python error leaves it as error_already_set, which cancels the run and
// comes out of the kit as it is. Throws Error (invalid_input) for a value
// that cannot be used. The result refers to `keywords`.
host::Options kit_options(RunKeywords const& keywords);

// {"-em_iters": "8"} from {"em_iters": 8}: a dash added where missing,
// values as str(), None or True a bare flag, False left out.
std::map<std::string, std::string> recomposer_options(py::dict const& options);

}  // namespace weftmap_python
