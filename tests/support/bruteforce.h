// The judge of everything: the closest hit, found by asking every particle.
#pragma once

#include "kelpa/foundation/iray.h"

#include "tests/support/clouds.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

namespace kelpatest {

/// A particle of a cloud.
struct ParticleId {
    int system = -1;
    int index = -1;
    bool operator==(ParticleId const&) const = default;
};

/// What a ray is asked.
struct Query {
    TraceRay ray{};
    double tMin = 0.0;
    double tMax = 1e30;
    ParticleId start; ///< the particle on which the ray starts, if any
    float time = 0.0F;
};

struct Sphere {
    Vector center;
    float radius;
};

/// Where a still particle is; a moving one takes the time, too.
inline Sphere sphereAt(Cloud const& cloud, ParticleId id) {
    System const& system = cloud.systems[static_cast<std::size_t>(id.system)];
    auto const i = static_cast<std::size_t>(id.index);
    return {system.positions[i], system.radii[i]};
}

/// Calls `visit(id)` for every particle that a tree should take.
template <class Visit> void forUsable(Cloud const& cloud, Visit visit) {
    for (int s = 0; s < static_cast<int>(cloud.systems.size()); ++s) {
        ParticleData const& data = cloud.systems[static_cast<std::size_t>(s)].data;
        for (int i = 0; i < std::min(data.numParticles, data.numRadii); ++i) {
            auto const [c, r] = sphereAt(cloud, {s, i});
            if (r >= 1e-15F && r <= std::numeric_limits<float>::max() && std::isfinite(c.x) &&
                std::isfinite(c.y) && std::isfinite(c.z))
                visit(ParticleId{s, i});
        }
    }
}

struct Answer {
    int code = 0; ///< 0: none, 1: on a sphere, 2: on a point
    double t = 0.0;
    ParticleId on;
};

/// The hit of a ray on one particle alone.
inline Answer askParticle(Cloud const& cloud, ParticleId id, Query const& query) {
    auto const [center, radius] = sphereAt(cloud, id);
    bool const starts = id == query.start;
    IRay ray(query.ray, query.tMin, std::min(query.tMax, static_cast<double>(1e30F)));
    switch (cloud.systems[static_cast<std::size_t>(id.system)].data.particleType) {
    case 0:
        return {intersectSphere(center, radius, ray, starts ? 1 : 0), ray.tMax, id};
    case 1:
        return {starts ? 0 : 2 * intersectPoint(center, radius, ray), ray.tMax, id};
    default:
        return {};
    }
}

/// The closest hit of all; of equally near ones the first.
inline Answer bruteForce(Cloud const& cloud, Query const& query) {
    Answer closest;
    forUsable(cloud, [&](ParticleId id) {
        Answer const hit = askParticle(cloud, id, query);
        if (hit.code != 0 && (closest.code == 0 || hit.t < closest.t))
            closest = hit;
    });
    return closest;
}

} // namespace kelpatest
