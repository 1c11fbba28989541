// Light, as it falls on the whole scene.
#pragma once

#include "kelpa/foundation/vector.h"

#include "pipeline/picture/camera.h"
#include "pipeline/picture/look.h"
#include "pipeline/scene/scene.h"

namespace pipeline {

struct Lighting {
    Kelpa::Vector towardsKey; ///< unit
    Kelpa::Vector up;
    // Together at most about 1: what is white keeps its shape instead of turning into a white
    // patch.
    float key = 0.64F;    ///< where it falls straight onto a surface
    float sky = 0.45F;    ///< from above ...
    float ground = 0.18F; ///< ... and from below
    LightOptions::Shade shade = LightOptions::Shade::ao;
    Kelpa::Vector right; ///< the camera's axes
    Kelpa::Vector back;
    bool hasKey = true;
    bool hasShadows = true;
    int occlusionRays = 0; ///< per camera ray
    double occlusionDistance = 0.0;
};

/// How far occlusion reaches unless somebody says so: a look at all particles.
double usualOcclusionDistance(Scene const& scene);

Lighting makeLighting(LightOptions const& options, Camera const& camera, Scene const& scene);

} // namespace pipeline
