#include "runs.hpp"

#include <weftmap/host/errors.hpp>

#include <map>
#include <string>
#include <utility>

namespace weftmap_python {
namespace {

[[noreturn]] void refuse(std::string const& text) {
    throw host::Error(host::ErrorCode::invalid_input, text);
}

}  // namespace

std::recursive_mutex& library_mutex() {
    // Never destroyed: arrays may still be freed while the interpreter exits.
    static auto* const mutex = new std::recursive_mutex;
    return *mutex;
}

void free_storage(std::unique_ptr<host::Image::Storage> storage) {
    std::unique_lock<std::recursive_mutex> turn(library_mutex(), std::try_to_lock);
    if (!turn) {
        // A run holds the turn and may need the GIL for its progress.
        py::gil_scoped_release release;
        turn.lock();
        storage.reset();
        return;
    }
    storage.reset();
}

std::map<std::string, std::string> recomposer_options(py::dict const& options) {
    std::map<std::string, std::string> result;
    for (auto const& [key, value] : options) {
        if (!py::isinstance<py::str>(key))
            refuse("option names must be strings, not " +
                   std::string(py::str(py::type::of(key).attr("__name__"))));
        std::string name = key.cast<std::string>();
        if (name.empty() || name[0] != '-') name.insert(0, 1, '-');
        if (value.is(py::bool_(false))) continue;
        result[name] = value.is_none() || value.is(py::bool_(true)) ? std::string()
                                                                    : std::string(py::str(value));
    }
    return result;
}

host::Options kit_options(RunKeywords const& keywords) {
    host::Options options;
    options.mode = host::parse_mode(keywords.mode);
    if (!options.mode)
        refuse("unknown mode '" + keywords.mode + "'; use 'hole-fill', 'default' or 'tapestry'");
    auto const comparator = host::parse_comparator(keywords.comparator);
    if (!comparator)
        refuse("unknown comparator '" + keywords.comparator + "'; use 'translate' or 'gain-bias'");
    options.comparator = *comparator;
    if (keywords.options) options.recomposer_options = recomposer_options(*keywords.options);
    options.seed = keywords.seed;
    if (keywords.memory_limit) {
        if (*keywords.memory_limit < 0)
            refuse("the memory limit is a number of bytes, not " +
                   std::to_string(*keywords.memory_limit));
        options.memory_limit = static_cast<unsigned long long>(*keywords.memory_limit);
    }
    if (keywords.bands) {
        if (*keywords.bands < 1)
            refuse("bands must be 1 or more, not " + std::to_string(*keywords.bands));
        options.bands = *keywords.bands;
    }
    options.scalar_kernels = keywords.scalar;

    // What a run ignores (an unknown option, say) as a UserWarning, which the
    // caller may silence or turn into an error that stops the run.
    options.warning = [](std::string const& text) {
        py::gil_scoped_acquire const gil;
        if (PyErr_WarnEx(PyExc_UserWarning, text.c_str(), 1) != 0) throw py::error_already_set();
    };
    // Always there, callback or not: it is where Ctrl-C is noticed.
    py::handle const callback = keywords.progress ? py::handle(*keywords.progress) : py::handle();
    options.progress = [callback](float fraction) {
        py::gil_scoped_acquire const gil;
        if (PyErr_CheckSignals() != 0) throw py::error_already_set();
        if (callback) callback(fraction);
    };
    return options;
}

}  // namespace weftmap_python
