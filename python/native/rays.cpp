// Rays and hits between arrays and bunches.
#include "python/native/rays.h"

#include "pipeline/scene/bunch.h"

#include <algorithm>
#include <limits>

namespace kelpapython {

namespace {

// Particles report numbers from 0 up.
constexpr std::int64_t noParticle = -1;

/// Primitives compare the low 32 bits: what lies beyond must not name a particle by them.
std::int64_t checkedSkip(std::int64_t skip) {
    bool const isNumber = skip >= 0 && skip <= std::numeric_limits<std::int32_t>::max();
    return isNumber ? skip : noParticle;
}

void moveOrigin(Rays const& rays, std::size_t i, double (&origin)[3]) {
    Kelpa::Vector const given = rays.origins[i];
    for (int axis = 0; axis < 3; ++axis)
        origin[axis] = static_cast<double>(given[axis]) - rays.from[static_cast<std::size_t>(axis)];
}

void storeMiss(Hits const& hits, std::size_t ray) {
    hits.t[ray] = std::numeric_limits<float>::infinity();
    hits.indices[ray] = noParticle;
    hits.normals[ray] = {0.0F, 0.0F, 0.0F};
    hits.types[ray] = 0;
}

void closestHit(pipeline::Geometry& geometry, Rays const& rays, std::size_t i, Hits const& hits) {
    Kelpa::RSRay ray{};
    moveOrigin(rays, i, ray.origin);
    ray.dir = rays.directions[i];
    ray.intervalMin = ray.clipMin = rays.tMins[i];
    ray.intervalMax = ray.clipMax = ray.hitT = rays.tMaxs[i];
    ray.time = rays.times[i];
    ray.skipIndex = checkedSkip(rays.skips[i]);
    int const type = geometry.intersect(ray);
    if (type == 0)
        return storeMiss(hits, i);
    hits.t[i] = static_cast<float>(ray.hitT); // exact: hits are found in single precision
    hits.indices[i] = ray.hitIndex;
    hits.normals[i] = ray.hitNormal;
    hits.types[i] = static_cast<std::uint8_t>(type);
}

} // namespace

void closestHits(pipeline::Geometry& geometry, Rays const& rays, std::size_t begin, std::size_t end,
                 bool useLists, Hits const& hits) {
    if (!useLists) {
        for (std::size_t i = begin; i < end; ++i)
            closestHit(geometry, rays, i, hits);
        return;
    }
    pipeline::Bunch bunch;
    for (std::size_t first = begin; first < end; first += pipeline::lanesPerBunch) {
        bunch.clear();
        for (std::size_t i = first; i < std::min(first + pipeline::lanesPerBunch, end); ++i) {
            double origin[3];
            moveOrigin(rays, i, origin);
            bunch.add(static_cast<unsigned char>(i - first), origin, rays.directions[i],
                      rays.tMins[i], rays.tMaxs[i], rays.times[i], checkedSkip(rays.skips[i]));
        }
        bunch.trace(geometry);
        for (std::size_t lane = 0; lane < bunch.numLanes; ++lane) {
            std::size_t const i = first + lane;
            auto const& found = bunch.hits;
            if (found.hit[lane] == 0) {
                storeMiss(hits, i);
                continue;
            }
            hits.t[i] = static_cast<float>(found.hitT[lane]);
            hits.indices[i] = found.hitIndex[lane];
            hits.normals[i] = {found.hitNormalX[lane], found.hitNormalY[lane],
                               found.hitNormalZ[lane]};
            hits.types[i] = found.hit[lane];
        }
    }
}

} // namespace kelpapython
