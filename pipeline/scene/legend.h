// What the colours of a scene mean.
#pragma once

#include "kelpa/foundation/vector.h"

#include "pipeline/files/particleset.h"
#include "pipeline/scene/appearance.h"

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace pipeline {

/// What the colours of a scene mean: numbers by a map, or kinds.
struct Legend {
    struct Kind {
        std::string name;
        Kelpa::Vector color; ///< linear
    };

    std::string title; ///< the column, or what the kinds are
    ColorMap map;      ///< of the range
    std::optional<std::array<float, 2>> range;
    std::vector<Kind> kinds;   ///< the first of them, if there is no range
    std::size_t moreKinds = 0; ///< left out
};

/// The legend of particles that have these colours. Throws `InputError` where they mean nothing:
/// all have the same, or the file's own.
Legend legendOf(ColorOptions const& options, ParticleSet const& particles,
                std::vector<Kelpa::Vector> const& colors,
                std::optional<std::array<float, 2>> const& range);

} // namespace pipeline
