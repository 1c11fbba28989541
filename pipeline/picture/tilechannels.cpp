// What a picture tells of the first samples of its pixels, beside light.
#include "pipeline/picture/tilepasses.h"
#include "pipeline/scene/vec.h"

#include <cstddef>

namespace pipeline {

/// What `depth` tells of a hit.
double TilePasses::depthOf(double t, Vec const& along) const {
    return plan.isDepthPlanar ? t * dot(along, plan.camera.forward) : t;
}

void TilePasses::storeFirstHits(Image& image) const {
    if (image.depth.empty() && image.normal.empty() && image.position.empty() && image.id.empty())
        return;
    Scene const& scene = plan.scene;
    if (!image.depth.empty())
        for (RodHit const& rod : rodHits)
            if (rod.sample == 0)
                image.depth[pixels[rod.pixel].index] = static_cast<float>(rod.depth);
    double const origin[3] = {scene.origin.x, scene.origin.y, scene.origin.z};
    for (std::size_t i = 0; i < surfaces.count; ++i) {
        if (surfaces.sample[i] != 0)
            continue;
        std::size_t const at = pixels[surfaces.pixel[i]].index;
        if (!image.depth.empty())
            image.depth[at] = static_cast<float>(depthOf(
                surfaces.t[i], wide({surfaces.dir.x[i], surfaces.dir.y[i], surfaces.dir.z[i]})));
        if (!image.id.empty())
            image.id[at] = scene.idOf(surfaces.particle[i]);
        float const normal[3] = {surfaces.normal.x[i], surfaces.normal.y[i], surfaces.normal.z[i]};
        double const place[3] = {surfaces.place.x[i], surfaces.place.y[i], surfaces.place.z[i]};
        for (std::size_t axis = 0; axis < 3; ++axis) {
            if (!image.normal.empty())
                image.normal[3 * at + axis] = normal[axis];
            if (!image.position.empty())
                image.position[3 * at + axis] = static_cast<float>(place[axis] + origin[axis]);
        }
    }
}

} // namespace pipeline
