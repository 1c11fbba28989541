// The pipeline's radii and colours, as arrays.
#include "python/native/looks.h"

#include "pipeline/files/colornames.h"
#include "pipeline/files/elements.h"
#include "pipeline/files/progress.h"
#include "pipeline/files/srgb.h"
#include "pipeline/scene/colormap.h"
#include "pipeline/scene/spacing.h"

#include "python/native/arrays.h"

#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace py = pybind11;

namespace kelpapython {

namespace {

constexpr py::ssize_t elementCount = 119; // 0 stands for an unknown one

template <class T> std::vector<T> vectorOf(Array<T> const& array) {
    return {array.data(), array.data() + array.size()};
}

Array<float> arrayOf(std::vector<Kelpa::Vector> const& vectors) {
    Array<float> result({static_cast<py::ssize_t>(vectors.size()), py::ssize_t{3}});
    std::copy(vectors.begin(), vectors.end(),
              reinterpret_cast<Kelpa::Vector*>(result.mutable_data()));
    return result;
}

Array<float> elementRadii(bool covalent) {
    Array<float> radii(elementCount);
    for (py::ssize_t i = 0; i < elementCount; ++i)
        radii.mutable_at(i) = pipeline::elementRadius(static_cast<std::uint8_t>(i), covalent);
    return radii;
}

Array<float> elementColors() {
    std::vector<Kelpa::Vector> colors;
    for (py::ssize_t i = 0; i < elementCount; ++i)
        colors.push_back(pipeline::elementColor(static_cast<std::uint8_t>(i)));
    return arrayOf(colors);
}

float radiusFromSpacing(Array<float> const& positions) {
    Kelpa::Vector const* const begin = vectorsOf(positions);
    return pipeline::radiusFromSpacing({begin, begin + positions.shape(0)},
                                       [](double, std::uint64_t) {});
}

Array<float> mapColors(Array<float> const& values, std::optional<std::array<float, 2>> const& range,
                       std::string const& name) {
    return arrayOf(pipeline::mapColors(vectorOf(values), range, pipeline::ColorMap(name)));
}

Array<float> mapTypes(Array<std::int64_t> const& types) {
    return arrayOf(pipeline::mapTypes(vectorOf(types)));
}

Array<float> lightOfCodes() {
    Array<float> light(256);
    std::copy_n(pipeline::linearOfCode().begin(), 256, light.mutable_data());
    return light;
}

/// The lights from which on codes 1 to 255 are the nearest.
Array<float> codeBorders() {
    Array<float> borders(255);
    for (int code = 1; code < 256; ++code)
        borders.mutable_at(code - 1) = pipeline::linearFromSrgb((code - 0.5) / 255.0);
    return borders;
}

} // namespace

void defineLooks(py::module_& module) {
    module.def("atomic_number",
               [](std::string const& symbol) { return pipeline::atomicNumberOf(symbol); });
    module.def("element_radii", &elementRadii);
    module.def("element_colors", &elementColors);
    module.def("radius_from_spacing", &radiusFromSpacing);
    module.def("map_colors", &mapColors);
    module.def("color_map_names", &pipeline::colorMapNames);
    module.def("shows_kinds", [](std::string const& column) { return pipeline::areKinds(column); });
    module.def("map_types", &mapTypes);
    module.def("light_of_codes", &lightOfCodes);
    module.def("code_borders", &codeBorders);
    module.def("parse_color", [](std::string const& text) {
        Kelpa::Vector const color = pipeline::parseColor(text);
        return py::make_tuple(color.x, color.y, color.z);
    });
}

} // namespace kelpapython
