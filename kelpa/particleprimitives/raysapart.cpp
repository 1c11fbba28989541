// Rays of one bunch that are asked of a primitive each.
#include "kelpa/particleprimitives/lanerays.h"
#include "kelpa/particleprimitives/particleprimitives.h"

namespace Kelpa {

template <class Base, class Tree, class B>
bool SphereTreePrimitiveTemplate<Base, Tree, B>::bunchIntersectApart(
    SphereTreePrimitiveTemplate* const* primitives, RayBunchExtParams const& params,
    RayBunchCommonResult& result, double const* tMins, double const* tMaxs,
    unsigned char const* lanes, unsigned long numLanes) {
    typename TreeQuery<Tree>::List list;
    typename TreeQuery<Tree>::Asked const* trees[longestRun] = {};
    for (unsigned long j = 0; j < numLanes; ++j) {
        unsigned char const i = lanes[j];
        trees[j] = primitives[j]->tree;
        list.add(rayInLane(params, i), tMins[i],
                 result.hitT[i] < tMaxs[j] ? result.hitT[i] : tMaxs[j], params.time[i],
                 localSkipIndex(params.skipIndex[i], primitives[j]->baseIndex));
    }
    list.askApart(trees);
    bool anyHit = false;
    for (unsigned long j = 0; j < numLanes; ++j) {
        ClosestHit const hit = list.closestHit(*primitives[j]->tree, j);
        if (hit.code == 0)
            continue;
        enterHit(result, lanes[j], *primitives[j]->tree, hit, primitives[j]->baseIndex);
        anyHit = true;
    }
    if (anyHit)
        result.noHits = false;
    return anyHit;
}

template <class Base, class Tree, class B>
std::uint64_t SphereTreePrimitiveTemplate<Base, Tree, B>::bunchOccludedApart(
    SphereTreePrimitiveTemplate* const* primitives, RayBunchExtParams const& params,
    double const* tMins, double const* tMaxs, unsigned char const* lanes, unsigned long numLanes) {
    typename TreeQuery<Tree>::List list;
    typename TreeQuery<Tree>::Asked const* trees[longestRun] = {};
    for (unsigned long j = 0; j < numLanes; ++j) {
        unsigned char const i = lanes[j];
        trees[j] = primitives[j]->tree;
        list.add(rayInLane(params, i), tMins[i], tMaxs[j], params.time[i],
                 localSkipIndex(params.skipIndex[i], primitives[j]->baseIndex));
    }
    list.askApartWhetherOccluded(trees);
    std::uint64_t occluded = 0;
    for (unsigned long j = 0; j < numLanes; ++j)
        occluded |= (list.isOccluded(j) ? std::uint64_t{1} : 0) << lanes[j];
    return occluded;
}

template bool SphereTreePrimitiveTemplate<BunchPrimitive<StaticBox>, StaticSphereTree, StaticBox>::
    bunchIntersectApart(
        SphereTreePrimitiveTemplate<BunchPrimitive<StaticBox>, StaticSphereTree, StaticBox>* const*,
        RayBunchExtParams const&, RayBunchCommonResult&, double const*, double const*,
        unsigned char const*, unsigned long);
template std::uint64_t
SphereTreePrimitiveTemplate<BunchPrimitive<StaticBox>, StaticSphereTree, StaticBox>::
    bunchOccludedApart(
        SphereTreePrimitiveTemplate<BunchPrimitive<StaticBox>, StaticSphereTree, StaticBox>* const*,
        RayBunchExtParams const&, double const*, double const*, unsigned char const*,
        unsigned long);
template bool SphereTreePrimitiveTemplate<BunchPrimitive<MovingBox>, MovingSphereTree, MovingBox>::
    bunchIntersectApart(
        SphereTreePrimitiveTemplate<BunchPrimitive<MovingBox>, MovingSphereTree, MovingBox>* const*,
        RayBunchExtParams const&, RayBunchCommonResult&, double const*, double const*,
        unsigned char const*, unsigned long);
template std::uint64_t
SphereTreePrimitiveTemplate<BunchPrimitive<MovingBox>, MovingSphereTree, MovingBox>::
    bunchOccludedApart(
        SphereTreePrimitiveTemplate<BunchPrimitive<MovingBox>, MovingSphereTree, MovingBox>* const*,
        RayBunchExtParams const&, double const*, double const*, unsigned char const*,
        unsigned long);

} // namespace Kelpa
