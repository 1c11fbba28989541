// Particle files in arrays of numpy, read as the command reads them.
#pragma once

#include <pybind11/pybind11.h>

namespace kelpapython {

/// Adds `Wanted`, `Frames` and the exceptions of reading; kelpa/files.py uses them.
void defineFiles(pybind11::module_& module);

} // namespace kelpapython
