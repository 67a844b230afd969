// The kit's failures as Python exceptions: weftmap.Error and one subclass
// per error code, some also under the built-in class a caller would catch.
#pragma once

#include <pybind11/pybind11.h>

namespace weftmap_python {

// Adds the exception classes to `module` and translates the kit's Error
// into them wherever it leaves a call.
void register_errors(pybind11::module_& module);

}  // namespace weftmap_python
