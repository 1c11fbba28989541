// What Python's callers want of a file, set name by name.
#include "python/native/wanted.h"

#include <pybind11/stl.h>

#include <array>
#include <utility>

namespace py = pybind11;

namespace kelpapython {

namespace {

pipeline::Motion motionOf(std::string const& word) {
    if (word == "none")
        return pipeline::Still{};
    if (word == "velocity")
        return pipeline::AlongVelocities{};
    if (word == "next")
        return pipeline::ToNextFrame{};
    return pipeline::ToFile{word};
}

using WantedClass = py::class_<Wanted>;

void defineLooksWanted(WantedClass& wanted) {
    wanted
        .def_property(
            "radius", nullptr,
            [](Wanted& w, std::optional<float> radius) { w.scene.radius.radius = radius; })
        .def_property("radius_scale", nullptr,
                      [](Wanted& w, float scale) { w.scene.radius.scale = scale; })
        .def_property("covalent", nullptr,
                      [](Wanted& w, bool covalent) { w.scene.radius.covalent = covalent; })
        .def_property("radii_of_kinds", nullptr,
                      [](Wanted& w, std::vector<std::pair<std::string, float>> const& kinds) {
                          w.scene.radius.ofKinds.clear();
                          for (auto const& [kind, radius] : kinds)
                              w.scene.radius.ofKinds.push_back({kind, radius});
                      })
        .def_property(
            "colors_of_kinds", nullptr,
            [](Wanted& w, std::vector<std::pair<std::string, std::array<float, 3>>> const& kinds) {
                w.scene.color.ofKinds.clear();
                for (auto const& [kind, color] : kinds)
                    w.scene.color.ofKinds.push_back({kind, {color[0], color[1], color[2]}});
            })
        .def_property("colormap", nullptr,
                      [](Wanted& w, std::string const& name) {
                          w.scene.color.asKinds = name == "kinds";
                          w.scene.color.map.reset();
                          if (!name.empty() && name != "kinds")
                              w.scene.color.map = pipeline::ColorMap(name);
                      })
        .def_property("select", nullptr,
                      [](Wanted& w, std::string const& text) {
                          w.scene.selection.select.reset();
                          if (!text.empty())
                              w.scene.selection.select = pipeline::Expression(text);
                      })
        .def_property("slices", nullptr,
                      [](Wanted& w, std::vector<std::string> const& slices) {
                          w.scene.selection.slices.clear();
                          for (std::string const& slice : slices)
                              w.scene.selection.slices.push_back(pipeline::parseSlice(slice));
                      })
        .def_property("every", nullptr,
                      [](Wanted& w, std::uint64_t every) { w.scene.selection.every = every; })
        .def_property(
            "replicate", nullptr,
            [](Wanted& w, std::array<int, 3> counts) { w.scene.selection.replicate = counts; })
        .def_property("wrap", nullptr, [](Wanted& w, bool wrap) { w.scene.selection.wrap = wrap; })
        .def_property("points", nullptr, [](Wanted& w, bool points) { w.scene.points = points; })
        .def_property("color", nullptr,
                      [](Wanted& w, std::optional<std::array<float, 3>> color) {
                          w.scene.color.color.reset();
                          if (color)
                              w.scene.color.color = {(*color)[0], (*color)[1], (*color)[2]};
                      })
        .def_property("color_by", nullptr,
                      [](Wanted& w, std::string const& name) { w.scene.color.colorBy = name; })
        .def_property("range", nullptr, [](Wanted& w, std::optional<std::array<float, 2>> range) {
            w.scene.color.range = range;
        });
}

void defineMotionWanted(WantedClass& wanted) {
    wanted
        .def_property(
            "motion", nullptr,
            [](Wanted& w, std::string const& motion) { w.scene.motion.motion = motionOf(motion); })
        .def_property("times", nullptr,
                      [](Wanted& w, std::array<double, 2> times) { w.scene.motion.times = times; })
        .def_property("shutter", nullptr,
                      [](Wanted& w, std::optional<std::array<double, 2>> shutter) {
                          w.scene.motion.shutter = shutter;
                      })
        .def_property("dt", nullptr,
                      [](Wanted& w, std::optional<double> dt) { w.scene.motion.dt = dt; });
}

} // namespace

void defineWanted(py::module_& module) {
    WantedClass wanted(module, "Wanted");
    wanted.def(py::init<>())
        .def_readwrite("format", &Wanted::format)
        .def_readwrite("assembly", &Wanted::assembly)
        .def_readwrite("kinds", &Wanted::kinds)
        .def_readwrite("topology", &Wanted::topology)
        .def_readwrite("radius_from", &Wanted::radiusFrom)
        .def_readwrite("elements", &Wanted::elements)
        .def_readwrite("columns", &Wanted::columns);
    defineLooksWanted(wanted);
    defineMotionWanted(wanted);
}

} // namespace kelpapython
