// Arrays of numpy as the library takes them.
#pragma once

#include "kelpa/foundation/vector.h"

#include <pybind11/numpy.h>

namespace kelpapython {

template <class T> using Array = pybind11::array_t<T, pybind11::array::c_style>;

/// The rows of an array (..., 3), which is contiguous, so that three floats are a vector.
inline Kelpa::Vector const* vectorsOf(Array<float> const& array) {
    return reinterpret_cast<Kelpa::Vector const*>(array.data());
}

} // namespace kelpapython
