// The light that options, camera and scene ask for.
#include "pipeline/picture/light.h"

#include "pipeline/scene/vec.h"

#include <algorithm>

namespace pipeline {

double usualOcclusionDistance(Scene const& scene) {
    FramedSpheres const framed = scene.framed();
    double const diagonal = framed.bounds().diagonal();
    double const radius = static_cast<double>(framed.largestRadius());
    return std::max(0.5 * diagonal, 2.0 * radius);
}

Lighting makeLighting(LightOptions const& options, Camera const& camera, Scene const& scene) {
    Lighting light;
    light.up = narrow(camera.up);
    // From behind the viewer's left shoulder, well above.
    light.right = narrow(camera.right);
    light.back = narrow(camera.forward) * -1.0F;
    light.towardsKey = unit(light.right * -0.55F + light.up * 0.8F + light.back * 0.6F);
    light.shade = options.shade;
    light.hasKey =
        options.shade == LightOptions::Shade::ao || options.shade == LightOptions::Shade::lit;
    light.hasShadows =
        light.hasKey && options.shadows.value_or(options.shade == LightOptions::Shade::ao);
    light.occlusionRays = options.shade == LightOptions::Shade::ao ? options.aoSamples : 0;
    if (light.occlusionRays > 0) // only then is it worth a look at all particles
        light.occlusionDistance =
            options.aoDistance ? *options.aoDistance : usualOcclusionDistance(scene);
    return light;
}

} // namespace pipeline
