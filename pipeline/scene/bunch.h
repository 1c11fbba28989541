// Up to 64 rays that are asked together.
#pragma once

#include "kelpa/foundation/hosttypes.h"

#include "pipeline/scene/geometry.h"

namespace pipeline {

constexpr int lanesPerBunch = 64;

/// Up to 64 rays with their hits; the form in which the primitives take many.
struct Bunch {
    Kelpa::RayBunchExtParams rays;
    Kelpa::RayBunchCommonResult hits;
    double tMins[lanesPerBunch];
    double tMaxs[lanesPerBunch];
    unsigned char lanes[lanesPerBunch];
    unsigned long numLanes = 0;

    void clear() {
        numLanes = 0;
        hits.noHits = true;
    }
    /// Adds a ray in lane `lane`, to be searched from `tMin` to `tMax`.
    void add(unsigned char lane, double const (&origin)[3], Kelpa::Vector const& dir, double tMin,
             double tMax, float time, std::int64_t skipIndex) {
        rays.originX[lane] = origin[0];
        rays.originY[lane] = origin[1];
        rays.originZ[lane] = origin[2];
        rays.dirX[lane] = dir.x;
        rays.dirY[lane] = dir.y;
        rays.dirZ[lane] = dir.z;
        rays.time[lane] = time;
        rays.skipIndex[lane] = skipIndex;
        tMins[lane] = tMin; // by lane, but the ends by place in the list
        tMaxs[numLanes] = tMax;
        hits.hitT[lane] = tMax;
        hits.hit[lane] = 0;
        lanes[numLanes++] = lane;
    }
    /// Tells by lane which rays hit anything at all; the hits stay as they are.
    std::uint64_t occluded(RayTarget& target) const {
        return numLanes > 0 ? target.bunchOccluded(rays, tMins, tMaxs, lanes, numLanes) : 0;
    }
    void trace(RayTarget& target) {
        if (numLanes > 0)
            target.bunchIntersect(rays, hits, tMins, tMaxs, lanes, numLanes);
    }
};

} // namespace pipeline
