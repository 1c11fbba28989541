#pragma once

#include "kelpa/foundation/vector.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kelpatool {

/// One named column of a particle file: a number per particle.
struct Attribute {
    std::string name;
    std::vector<float> values;
};

/// The range of one column as it stands in the file, for `kelpa info`.
struct AttributeSummary {
    std::string name; ///< as in the file
    std::string type; ///< as in the file, such as "float32"
    double min = 0.0; ///< over the finite values
    double max = 0.0;
    std::size_t notFinite = 0;
};

/// What a particle file holds, in the file's own units. Every array but `positions` is either empty
/// (the file has no such thing) or has one entry per particle.
struct ParticleSet {
    std::vector<Kelpa::Vector> positions;
    std::vector<float> radii;
    std::vector<Kelpa::Vector> colors;     ///< linear RGB, 0 to 1
    std::vector<Kelpa::Vector> velocities; ///< length per the file's own unit of time
    std::vector<std::int64_t> ids;
    std::vector<std::uint8_t> elements; ///< atomic numbers; 0: unknown
    std::vector<Attribute> attributes;  ///< those that the reader was asked for

    std::string format; ///< such as "PLY binary little-endian"
    std::string
        radiusSource;        ///< the column that `radii` came from, such as "psz" or "diameter / 2"
    std::string colorSource; ///< the columns that `colors` came from
    std::vector<AttributeSummary> columns;    ///< filled when asked for
    std::vector<std::string> unknownElements; ///< symbols that are in no table
    std::vector<std::string> notes;           ///< what the user should know, a line each
    int frameCount = 1; ///< frames in the file, as far as the reader had to count them
    char upAxis = 'z';  ///< 'y' for formats from film effects
};

} // namespace kelpatool
