// Hands out answers that have come, and writes down the rays that wait for theirs.
#include "pipeline/scene/raytape.h"

#include <algorithm>

namespace pipeline {

namespace {

TravellingRay rayInLane(Kelpa::RayBunchExtParams const& rays, unsigned lane, double tMin,
                        double end, Wanted wanted) {
    TravellingRay ray{};
    ray.origin[0] = rays.originX[lane];
    ray.origin[1] = rays.originY[lane];
    ray.origin[2] = rays.originZ[lane];
    ray.tMin = tMin;
    ray.end = end;
    ray.dir = {rays.dirX[lane], rays.dirY[lane], rays.dirZ[lane]};
    ray.time = rays.time[lane];
    ray.block = -1;
    ray.setOut(rays.skipIndex[lane], wanted);
    return ray;
}

} // namespace

void RayTape::clear() {
    asked.clear();
    hits.clear();
    distances.clear();
    occluded.clear();
    rewind(0);
}

void RayTape::rewind(std::size_t mostNew) {
    asked.clear();
    std::fill_n(next, wantedKinds, 0);
    known[static_cast<std::size_t>(Wanted::hit)] = hits.size();
    known[static_cast<std::size_t>(Wanted::distance)] = distances.size();
    known[static_cast<std::size_t>(Wanted::yesOrNo)] = occluded.size();
    most = mostNew;
    isLacking = false;
}

bool RayTape::bunchIntersect(Kelpa::RayBunchExtParams const& rays,
                             Kelpa::RayBunchCommonResult& found, double* tMins, double* tMaxs,
                             unsigned char const* lanes, unsigned long numLanes) {
    auto const kind = static_cast<std::size_t>(wanted);
    bool anyHit = false;
    for (unsigned long k = 0; k < numLanes; ++k) {
        unsigned char const lane = lanes[k];
        std::size_t const number = next[kind]++;
        if (number >= known[kind]) {
            isLacking = true;
            if (asked.size() >= most && wanted != Wanted::hit)
                continue;
            asked.push_back(
                rayInLane(rays, lane, tMins[lane], std::min(found.hitT[lane], tMaxs[k]), wanted));
            asked.back().setHome(0, static_cast<std::uint32_t>(number));
            if (wanted == Wanted::hit)
                hits.push_back({0.0, -1, {}, {}});
            else
                distances.push_back(noDistance);
            continue;
        }
        bool const isHit =
            wanted == Wanted::hit ? hits[number].index >= 0 : distances[number] != noDistance;
        if (!isHit)
            continue;
        anyHit = true;
        found.hit[lane] = 1;
        if (wanted != Wanted::hit) {
            found.hitT[lane] = distances[number];
            continue;
        }
        Hit const& hit = hits[number];
        found.hitT[lane] = hit.t;
        found.hitIndex[lane] = hit.index;
        found.hitNormalX[lane] = hit.normal.x;
        found.hitNormalY[lane] = hit.normal.y;
        found.hitNormalZ[lane] = hit.normal.z;
    }
    if (anyHit)
        found.noHits = false;
    return anyHit;
}

std::uint64_t RayTape::bunchOccluded(Kelpa::RayBunchExtParams const& rays, double const* tMins,
                                     double const* tMaxs, unsigned char const* lanes,
                                     unsigned long numLanes) {
    constexpr auto kind = static_cast<std::size_t>(Wanted::yesOrNo);
    std::uint64_t found = 0;
    for (unsigned long k = 0; k < numLanes; ++k) {
        unsigned char const lane = lanes[k];
        std::size_t const number = next[kind]++;
        if (number < known[kind]) {
            found |= std::uint64_t{occluded[number] != 0 ? 1U : 0U} << lane;
            continue;
        }
        isLacking = true;
        if (asked.size() >= most)
            continue;
        asked.push_back(rayInLane(rays, lane, tMins[lane], tMaxs[k], Wanted::yesOrNo));
        asked.back().setHome(0, static_cast<std::uint32_t>(number));
        occluded.push_back(0);
    }
    return found;
}

} // namespace pipeline
