// Pages in the browser, served from within Python.
#pragma once

#include <pybind11/pybind11.h>

namespace kelpapython {

/// Adds `View` and `Show`; kelpa/view.py uses them.
void defineViews(pybind11::module_& module);

} // namespace kelpapython
