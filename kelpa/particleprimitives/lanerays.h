// Internal: lanes of bunches as rays, and hits in lanes.
#pragma once

#include "kelpa/particleprimitives/treequery.h"

#include <cstdint>

namespace Kelpa {

// Indices are subtracted in 32 bits and wrap.
inline std::int32_t localSkipIndex(std::int64_t skipIndex, std::int32_t baseIndex) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(skipIndex) -
                                     static_cast<std::uint32_t>(baseIndex));
}

/// The index under which a hit is reported.
template <class Tree>
std::int64_t reportedIndex(Tree const& tree, ClosestHit const& hit, std::int32_t baseIndex) {
    return reportedNumber(tree.singleSystem, hit.particleIndex, hit.indexOffset, baseIndex);
}

// The volatile float keeps g++ 12 from dropping the rounding: where it pairs two such conversions
// into one vector it takes the way there and back for nothing.
inline double roundedToSingle(double value) {
    float const volatile rounded = static_cast<float>(value);
    return static_cast<double>(rounded);
}

/// Lane `i` as a ray of its own.
inline TraceRay rayInLane(RayBunchExtParams const& rays, unsigned char i) {
    return {{roundedToSingle(rays.originX[i]), roundedToSingle(rays.originY[i]),
             roundedToSingle(rays.originZ[i])},
            {rays.dirX[i], rays.dirY[i], rays.dirZ[i]}};
}

/// Enters a hit on a particle of a tree, whose first one is reported as `baseIndex`.
template <class Tree>
void enterHit(PrimitiveIntersections& result, unsigned char i, Tree const& tree,
              ClosestHit const& hit, std::int32_t baseIndex) {
    result.hit[i] = static_cast<unsigned char>(hit.code);
    result.hitPrimitive[i] = hit.primitive;
    result.hitT[i] = hit.t;
    result.hitIndex[i] = reportedIndex(tree, hit, baseIndex);
    result.hitNormalX[i] = hit.normal.x;
    result.hitNormalY[i] = hit.normal.y;
    result.hitNormalZ[i] = hit.normal.z;
    result.hitLocalIndex[i] = hit.particleIndex;
}

} // namespace Kelpa
