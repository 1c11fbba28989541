// How particles look by what they are: elements, kinds, values of a column, distances.
#pragma once

#include <pybind11/pybind11.h>

namespace kelpapython {

/// Adds functions over whole arrays to the module; kelpa/_looks.py uses them.
void defineLooks(pybind11::module_& module);

} // namespace kelpapython
