// Pinhole and parallel rays through points of the picture.
#include "pipeline/picture/camera.h"

namespace pipeline {

Kelpa::TraceRay Camera::ray(double pixelX, double pixelY) const {
    Vec const from = isParallel ? parallelOrigin(pixelX, pixelY) : eye;
    Vec const along = isParallel ? forward : pinholeDirection(pixelX, pixelY);
    return {
        {from.x, from.y, from.z},
        {static_cast<float>(along.x), static_cast<float>(along.y), static_cast<float>(along.z)}};
}

} // namespace pipeline
