#include "errors.hpp"

#include <weftmap/host/errors.hpp>

#include <array>
#include <exception>

namespace weftmap_python {
namespace {

namespace py = pybind11;
namespace host = WM::host;

struct ErrorClass {
    host::ErrorCode code;
    char const* name;
    char const* builtin;  // also derived from this built-in class, if any
    char const* doc;
};

constexpr std::array<ErrorClass, 6> error_classes{{
    {host::ErrorCode::invalid_input, "InvalidInputError", "ValueError",
     "A picture, mask, size or option that cannot be used."},
    {host::ErrorCode::hole_too_large, "HoleTooLargeError", nullptr,
     "Too little of the picture is left outside the hole to take patches from."},
    {host::ErrorCode::memory_limit, "MemoryLimitError", "MemoryError",
     "The memory limit is too small for the run (see set_memory_limit)."},
    {host::ErrorCode::cancelled, "CancelledError", nullptr,
     "The run was cancelled. (Ctrl-C and an exception from the progress callback\n"
     "come out as themselves.)"},
    {host::ErrorCode::output_failed, "OutputError", "OSError", "A file could not be written."},
    {host::ErrorCode::internal, "InternalError", nullptr,
     "The library failed in a way the caller cannot fix."},
}};

// The classes, indexed like error_classes; they live as long as the process.
std::array<py::handle, error_classes.size()> g_classes;

py::handle class_of(host::ErrorCode code) {
    for (std::size_t i = 0; i < error_classes.size(); ++i)
        if (error_classes[i].code == code) return g_classes[i];
    return g_classes.back();
}

py::object new_class(py::module_ const& module, char const* name, py::tuple const& bases,
                     char const* doc, char const* code) {
    py::dict body;
    body["__module__"] = module.attr("__name__");
    body["__doc__"] = doc;
    body["code"] = code;
    body["library_message"] = "";
    return py::module_::import("builtins").attr("type")(name, bases, body);
}

}  // namespace

void register_errors(py::module_& module) {
    py::object const base = new_class(
        module, "Error", py::make_tuple(py::reinterpret_borrow<py::object>(PyExc_Exception)),
        "A failure of Weftmap. `code` names its kind (\"invalid input\", \"hole too\n"
        "large\", ...); `library_message` holds the library's own tagged text when\n"
        "the library raised it, and is empty otherwise.",
        "");
    module.attr("Error") = base;
    py::module_ const builtins = py::module_::import("builtins");
    for (std::size_t i = 0; i < error_classes.size(); ++i) {
        ErrorClass const& c = error_classes[i];
        py::tuple const bases = c.builtin != nullptr
                                    ? py::make_tuple(base, builtins.attr(c.builtin))
                                    : py::make_tuple(base);
        py::object const cls =
            new_class(module, c.name, bases, c.doc, host::error_code_name(c.code));
        module.attr(c.name) = cls;
        g_classes[i] = cls.inc_ref();
    }

    py::register_exception_translator([](std::exception_ptr failure) {
        try {
            if (failure) std::rethrow_exception(failure);
        } catch (host::Error const& e) {
            py::handle const cls = class_of(e.code());
            py::object const error = cls(e.what());
            error.attr("library_message") = e.library_message();
            PyErr_SetObject(cls.ptr(), error.ptr());
        }
    });
}

}  // namespace weftmap_python
