// Particles that are shown: their scene, and what a picked one tells.
#pragma once

#include "pipeline/scene/bounds.h"
#include "pipeline/scene/scene.h"

#include "view/cut.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

namespace pipeline::view {

/// What is chosen about the particles, by one browser for all.
struct SceneChoice {
    std::optional<int> frame; ///< its number; unset: the first
    std::string colorBy;
    std::string colorMap;                      ///< or "kinds"; empty: the usual one
    std::optional<std::array<float, 2>> range; ///< unset: the usual one
    float radiusScale = 1.0F;
    std::optional<Cut> cut;

    bool operator==(SceneChoice const&) const = default;
    bool differsInColorsOnly(SceneChoice const& other) const {
        return frame == other.frame && radiusScale == other.radiusScale && cut == other.cut;
    }
};

/// What the page tells about the particles.
struct ShownFacts {
    std::string file;
    std::string format;
    std::size_t particles = 0;
    std::size_t ofParticles = 0;      ///< before the cut
    int frame = 0;                    ///< its number
    std::vector<std::string> columns; ///< that they can be coloured by
    std::vector<std::string> notes;
};

/// Colours for the particles of a scene, and where they come from.
struct Recoloring {
    std::vector<Kelpa::Vector> colors; ///< as `Scene` has them, and the following
    Kelpa::Vector color;
    std::string column;
    std::optional<std::array<float, 2>> range;
    std::vector<float> values;        ///< of the column, row by row
    std::vector<Kelpa::Vector> stops; ///< of the colour map
};

/// A scene with its tree, as all browsers see it. Nothing of it changes but the colours.
struct Shown {
    Scene scene;
    ShownFacts facts;
    SceneChoice choice;
    Kept kept;             ///< what the first frame decided, where this is another
    Bounds bounds{};       ///< of all centres, in the scene's coordinates
    Bounds extent{};       ///< of those before the cut, in the file's coordinates
    double diagonal = 0.0; ///< of the bounds, with the largest sphere at both ends
    double occlusionDistance = 0.0;
    std::vector<float> colored;       ///< row by row the values that give the colours, if any
    std::vector<Kelpa::Vector> stops; ///< the colour map, from its lower end to its upper
    mutable std::shared_mutex colors; ///< shared: they are looked at; held alone: they change
};

/// One particle's row of the file: names and values.
using Row = std::vector<std::pair<std::string, std::string>>;

} // namespace pipeline::view
