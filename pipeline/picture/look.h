// What a picture shows, and in which light.
#pragma once

#include "kelpa/foundation/vector.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace pipeline {

/// One of several parts that a picture is rendered in.
struct PictureTile {
    int number = 1; ///< 1 to `count`
    int count = 1;
};

struct ImageOptions {
    int width = 1280;
    int height = 720;
    int samples = 16;
    std::uint64_t seed = 0;                  ///< of the sample patterns
    std::optional<Kelpa::Vector> background; ///< linear
    bool transparent = false;
    std::optional<Kelpa::Vector> rodColor; ///< linear; unset: what stands out from the background
    std::optional<std::array<int, 4>> crop;
    std::optional<PictureTile> tile; ///< of the crop, or of everything; no more than it has rows
    std::array<double, 2> shutter = {0.0, 1.0}; ///< the part of the particles' way that is seen
    bool depth = false, normal = false, id = false, position = false;
    bool isDepthPlanar = false;       ///< along the camera's axis instead of along the ray
    bool velocity = false;            ///< across the picture, while the shutter is open
    std::vector<std::string> columns; ///< of the particles; those that the scene has are shown

    bool hasAovs() const {
        return depth || normal || id || position || velocity || !columns.empty();
    }
};

struct LightOptions {
    enum class Shade {
        ao,
        lit,
        flat,
        headlight, ///< from the eye
        normals,   ///< as colours, in the camera's axes
    };

    Shade shade = Shade::ao;
    int aoSamples = 2;
    std::optional<double> aoDistance;
    std::optional<bool> shadows; ///< unset: with ambient occlusion only
};

} // namespace pipeline
