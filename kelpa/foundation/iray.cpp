// Prepares rays, and tests them with boxes and single particles.
#include "kelpa/foundation/iray.h"

#include "kelpa/foundation/hitkernels.h"

#include <cmath>

namespace Kelpa {

namespace {

// Large enough to stand for infinity, small enough that its product with a coordinate is finite.
constexpr float largestReciprocal = 1e18F;

float clampedReciprocal(float component) {
    float q = 1.0F / component;
    // The comparison is false for NaN, so a NaN component becomes +1e18 and no box test ever sees a
    // NaN reciprocal.
    q = q < largestReciprocal ? q : largestReciprocal;
    return q > -largestReciprocal ? q : -largestReciprocal;
}

} // namespace

IRay::IRay(TraceRay const& ray, double intervalMin, double intervalMax)
    : origin{ray.origin[0], ray.origin[1], ray.origin[2]},
      dir(ray.dir), invDir{clampedReciprocal(dir.x), clampedReciprocal(dir.y),
                           clampedReciprocal(dir.z)},
      dirSign{std::signbit(dir.x) ? 1 : 0, std::signbit(dir.y) ? 1 : 0,
              std::signbit(dir.z) ? 1 : 0},
      tMin(intervalMin), tMax(intervalMax) {
}

int intersectSphere(Vector const& center, float const& radius, IRay& ray, int sameSphere) {
    return hitSphere(center, radius, ray, sameSphere != 0);
}

int intersectPoint(Vector const& center, float const& radius, IRay& ray) {
    return hitPoint(center, radius, ray);
}

} // namespace Kelpa
