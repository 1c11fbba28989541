// Which particles trees take. Builds ask the same questions, so a host that counts or frames its
// particles beforehand has exactly those that can be hit.
#pragma once

#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/vector.h"

#include <cmath>
#include <cstdint>
#include <limits>

namespace Kelpa {

/// Smaller particles are left out of trees.
inline constexpr float leastUsableRadius = 1e-15F;

/// The comparison fails for NaN.
inline bool isUsableRadius(float radius) {
    return radius >= leastUsableRadius && radius <= std::numeric_limits<float>::max();
}

inline bool isFinite(Vector const& v) {
    return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

/// Whether a tree over still particles takes this one: it has a centre and a radius, and both are
/// of use. `index` is 0 or more.
inline bool isUsable(ParticleData const& snapshot, std::int32_t index) {
    return index < snapshot.numParticles && index < snapshot.numRadii &&
           isUsableRadius(snapshot.radii[index]) && isFinite(snapshot.positions[index]);
}

/// Steps per unit of time from a snapshot at one time to one at another. Two at one time are no
/// motion: the particles stand where the first has them.
inline float ratePerTime(float time0, float time1) {
    return time1 == time0 ? 0.0F : 1.0F / (time1 - time0);
}

/// Velocity from one place to another at a rate of steps per unit of time.
inline Vector velocityBetween(Vector const& from, Vector const& to, float rate) {
    return {(to.x - from.x) * rate, (to.y - from.y) * rate, (to.z - from.z) * rate};
}

/// Whether a tree over moving particles takes this one: both snapshots have it, it is of use in
/// both, and so is what happens between them. `index` is 0 or more.
inline bool isUsable(ParticleData const& first, ParticleData const& second, std::int32_t index) {
    auto const time0 = static_cast<float>(first.sampleTime);
    auto const time1 = static_cast<float>(second.sampleTime);
    if (!std::isfinite(time0) || !std::isfinite(time1) || !isUsable(first, index) ||
        !isUsable(second, index))
        return false;
    float const rate = ratePerTime(time0, time1);
    return isFinite(velocityBetween(first.positions[index], second.positions[index], rate)) &&
           std::isfinite((second.radii[index] - first.radii[index]) * rate);
}

} // namespace Kelpa
