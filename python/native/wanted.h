// What Python's callers want of a file.
#pragma once

#include "pipeline/files/readoptions.h"
#include "pipeline/scene/scene.h"

#include <pybind11/pybind11.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kelpapython {

/// What is wanted of a file, in the words of the command's options.
struct Wanted {
    std::string format;
    std::string assembly;
    std::vector<std::string> kinds;
    std::string topology;
    std::string radiusFrom;
    std::vector<std::uint8_t> elements;              ///< atomic numbers of types 1, 2 and so on
    std::optional<std::vector<std::string>> columns; ///< further ones to keep; unset: all
    pipeline::SceneOptions scene;

    bool keeps(std::string const& column) const {
        return !columns || std::find(columns->begin(), columns->end(), column) != columns->end();
    }

    pipeline::ReadOptions readOptions(pipeline::PhaseProgress const& progress) const {
        pipeline::ReadOptions read;
        read.format = format;
        read.assembly = assembly;
        read.radiusFrom = radiusFrom;
        read.allAttributes = !columns || !columns->empty();
        if (columns)
            read.attributes = *columns; // which refuses those that are not there
        for (std::string const& name : pipeline::columnsOf(scene))
            read.attributes.push_back(name);
        read.kinds = kinds;
        read.topology = topology;
        read.forMotion = pipeline::hasSecondSnapshot(scene.motion.motion);
        read.progress = progress;
        return read;
    }
};

/// Defines the class `Wanted`.
void defineWanted(pybind11::module_& module);

} // namespace kelpapython
