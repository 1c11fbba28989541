// Particle files in arrays of numpy, read as the command reads them.
#pragma once

#include "pipeline/files/errors.h"

#include <pybind11/pybind11.h>

#include <string>

namespace kelpapython {

/// Adds `Wanted`, `Frames` and the exceptions of reading; kelpa/files.py uses them.
void defineFiles(pybind11::module_& module);

/// What follows a text that has this hint, with the arguments that are meant.
std::string hintText(pipeline::Hint const& hint);

} // namespace kelpapython
