// Hands the host's rays to trees, and hits back in the host's records.
#include "kelpa/particleprimitives/particleprimitives.h"

#include "kelpa/particleprimitives/lanerays.h"
#include "kelpa/particleprimitives/treequery.h"

#include <new>

namespace Kelpa {

namespace {

/// Registers a system and builds the tree. If that fails the system is forgotten again, so that a
/// second attempt does not find it twice.
template <class Tree>
void registerAndBuild(Tree& tree, ParticleData* particles0, ParticleData* particles1,
                      ProgressCallback* progress, ThreadManager* threadManager, int staticBounds,
                      GenericPrimitive* primitive) {
    std::int32_t const registered = tree.particleSystems.count;
    TreeQuery<Tree>::registerSystem(tree, particles0, particles1, primitive);
    try {
        TreeQuery<Tree>::build(tree, progress, threadManager, staticBounds);
    } catch (...) {
        tree.particleSystems.setCount(registered, 1);
        throw;
    }
}

/// Where in [tMin, tMax] a ray is asked about: one interval alone in a tree, the other in a shared.
struct Interval {
    double tMin;
    double tMax;

    Interval(RSRay const& ray, bool alone)
        : tMin(alone ? ray.intervalMin : ray.clipMin), tMax(alone ? ray.intervalMax
                                                            : ray.clipMax < ray.hitT ? ray.clipMax
                                                                                     : ray.hitT) {}
};

/// Lanes of a list, from one position on, up to the first that is there for the second time.
class DistinctLanes {
  public:
    DistinctLanes(unsigned char const* fromHere, unsigned long most) : lanes(fromHere) {
        std::uint64_t listed = 0;
        for (; count < most && count < longestRun; ++count) {
            std::uint64_t const bit = std::uint64_t{1} << (lanes[count] % 64U);
            if ((listed & bit) != 0)
                break;
            listed |= bit;
        }
        // Nothing between, nothing twice: what is as long as it is wide and rises.
        for (unsigned k = 1; k < count; ++k)
            consecutive &= lanes[k] == lanes[k - 1] + 1;
    }

    unsigned size() const { return count; }
    unsigned char operator[](unsigned k) const { return lanes[k]; }
    bool areConsecutive() const { return consecutive; }

  private:
    unsigned char const* lanes;
    unsigned count = 0;
    bool consecutive = true;
};

/// A copy of some lanes, one behind the other.
struct GatheredLanes {
    GatheredLanes(RayBunchExtParams const& from, double const* fromMins,
                  DistinctLanes const& lanes) {
        for (unsigned k = 0; k < lanes.size(); ++k) {
            unsigned char const i = lanes[k];
            rays.originX[k] = from.originX[i];
            rays.originY[k] = from.originY[i];
            rays.originZ[k] = from.originZ[i];
            rays.dirX[k] = from.dirX[i];
            rays.dirY[k] = from.dirY[i];
            rays.dirZ[k] = from.dirZ[i];
            rays.time[k] = from.time[i];
            rays.skipIndex[k] = from.skipIndex[i];
            tMins[k] = fromMins[i];
        }
    }

    RayBunchExtParams rays;
    double tMins[longestRun];
};

void copyHit(PrimitiveIntersections const& from, unsigned k, PrimitiveIntersections& to,
             unsigned char lane) {
    to.hit[lane] = from.hit[k];
    to.hitPrimitive[lane] = from.hitPrimitive[k];
    to.hitT[lane] = from.hitT[k];
    to.hitIndex[lane] = from.hitIndex[k];
    to.hitNormalX[lane] = from.hitNormalX[k];
    to.hitNormalY[lane] = from.hitNormalY[k];
    to.hitNormalZ[lane] = from.hitNormalZ[k];
    to.hitLocalIndex[lane] = from.hitLocalIndex[k];
}

/// Lanes of a bunch that a tree is asked about, with the ends of their intervals by position.
template <class Tree> class BunchPart {
  public:
    BunchPart(Tree const& askedTree, std::int32_t base, RayBunchExtParams const& params,
              double const* starts, DistinctLanes const& distinct)
        : tree(askedTree), baseIndex(base), rays(params), tMins(starts), lanes(distinct) {}

    double tMaxs[longestRun]; ///< to be filled in before anything is asked

    /// Enters the closest hits; true if there are any.
    bool intersect(PrimitiveIntersections& result) const {
        if (lanes.areConsecutive()) {
            auto const found =
                TreeQuery<Tree>::closestHits(tree, run(rays, tMins, lanes[0]), result);
            return found ? *found != 0 : intersectOneByOne(result);
        }
        GatheredLanes const gathered(rays, tMins, lanes);
        PrimitiveIntersections hits;
        auto const found =
            TreeQuery<Tree>::closestHits(tree, run(gathered.rays, gathered.tMins, 0), hits);
        if (!found)
            return intersectOneByOne(result);
        for (unsigned k = 0; k < lanes.size(); ++k)
            if ((*found >> k & 1U) != 0)
                copyHit(hits, k, result, lanes[k]);
        return *found != 0;
    }

    /// A bit for every position whose ray hits anything.
    std::uint64_t occlusions() const {
        if (lanes.areConsecutive()) {
            auto const found = TreeQuery<Tree>::occlusions(tree, run(rays, tMins, lanes[0]));
            return found ? *found : occlusionsOneByOne();
        }
        GatheredLanes const gathered(rays, tMins, lanes);
        auto const found = TreeQuery<Tree>::occlusions(tree, run(gathered.rays, gathered.tMins, 0));
        return found ? *found : occlusionsOneByOne();
    }

  private:
    using List = typename TreeQuery<Tree>::List;

    RayRun run(RayBunchExtParams const& params, double const* starts, unsigned first) const {
        return {params, starts, tMaxs, first, lanes.size(), baseIndex};
    }

    void addAll(List& list) const {
        for (unsigned k = 0; k < lanes.size(); ++k) {
            unsigned char const i = lanes[k];
            list.add(rayInLane(rays, i), tMins[i], tMaxs[k], rays.time[i],
                     localSkipIndex(rays.skipIndex[i], baseIndex));
        }
    }

    bool intersectOneByOne(PrimitiveIntersections& result) const {
        List list;
        addAll(list);
        list.ask(tree);
        bool anyHit = false;
        for (unsigned k = 0; k < lanes.size(); ++k) {
            ClosestHit const hit = list.closestHit(tree, k);
            if (hit.code == 0)
                continue;
            enterHit(result, lanes[k], tree, hit, baseIndex);
            anyHit = true;
        }
        return anyHit;
    }

    std::uint64_t occlusionsOneByOne() const {
        List list;
        addAll(list);
        list.askWhetherOccluded(tree);
        std::uint64_t occluded = 0;
        for (unsigned k = 0; k < lanes.size(); ++k)
            occluded |= (list.isOccluded(k) ? std::uint64_t{1} : 0) << k;
        return occluded;
    }

    Tree const& tree;
    std::int32_t baseIndex;
    RayBunchExtParams const& rays;
    double const* tMins; ///< by lane
    DistinctLanes const& lanes;
};

} // namespace

template <class Base, class Tree, class B>
SphereTreePrimitiveTemplate<Base, Tree, B>::SphereTreePrimitiveTemplate(int indexOfFirst,
                                                                        ParticleData* first,
                                                                        ParticleData* second,
                                                                        bool createTree)
    : tree(nullptr), baseIndex(indexOfFirst), particles0(first), particles1(second) {
    if (!createTree)
        return;
    tree = new (std::nothrow) Tree();
    if (tree == nullptr)
        throwOutOfMemory();
}

template <class Base, class Tree, class B>
SphereTreePrimitiveTemplate<Base, Tree, B>::~SphereTreePrimitiveTemplate() {
    delete tree;
    tree = nullptr;
}

template <class Base, class Tree, class B>
void SphereTreePrimitiveTemplate<Base, Tree, B>::build(ProgressCallback* progress,
                                                       ThreadManager* threadManager, int maxDepth,
                                                       float minNodeSize, float leafSizeFactor,
                                                       int staticBounds) {
    tree->maxDepth = maxDepth;
    tree->minNodeSize = minNodeSize;
    tree->leafSizeFactor = leafSizeFactor;
    registerAndBuild(*tree, particles0, particles1, progress, threadManager, staticBounds, this);
}

template <class Base, class Tree, class B>
std::uint64_t SphereTreePrimitiveTemplate<Base, Tree, B>::getMemUsage() {
    return tree->getMemUsage();
}

template <class Base, class Tree, class B>
int SphereTreePrimitiveTemplate<Base, Tree, B>::type() const {
    return TreeQuery<Tree>::primitiveType;
}

template <class Base, class Tree, class B>
void SphereTreePrimitiveTemplate<Base, Tree, B>::getBBox(B& box) {
    TreeQuery<Tree>::bounds(*tree, box);
}

template <class Base, class Tree, class B>
void SphereTreePrimitiveTemplate<Base, Tree, B>::split(int dim, float pos, B& lowerBox,
                                                       B& upperBox) {
    B bounds;
    this->getBBox(bounds);
    lowerBox = bounds;
    upperBox = bounds;
    TreeQuery<Tree>::cut(dim, pos, lowerBox, upperBox);
}

template <class Base, class Tree, class B>
Vector SphereTreePrimitiveTemplate<Base, Tree, B>::getGNormal(RSRay const& ray) const {
    return ray.hitNormal;
}

template <class Base, class Tree, class B>
Vector SphereTreePrimitiveTemplate<Base, Tree, B>::getGNormal(
    RayBunchParams const&, PrimitiveIntersections const& intersections, unsigned char lane) const {
    return {intersections.hitNormalX[lane], intersections.hitNormalY[lane],
            intersections.hitNormalZ[lane]};
}

template <class Base, class Tree, class B>
Vector SphereTreePrimitiveTemplate<Base, Tree, B>::getNormal(RSRay const& ray) const {
    return SphereTreePrimitiveTemplate::getGNormal(ray);
}

template <class Base, class Tree, class B>
Vector
SphereTreePrimitiveTemplate<Base, Tree, B>::getNormal(RayBunchParams const& params,
                                                      PrimitiveIntersections const& intersections,
                                                      unsigned char lane) const {
    return SphereTreePrimitiveTemplate::getGNormal(params, intersections, lane);
}

template <class Base, class Tree, class B>
Vector SphereTreePrimitiveTemplate<Base, Tree, B>::getColor(int const& index) const {
    if (particles0->numColors != particles0->numParticles)
        return {0.0F, 0.0F, 0.0F};
    return particles0->colors[index];
}

template <class Base, class Tree, class B>
int SphereTreePrimitiveTemplate<Base, Tree, B>::intersect(RSRay& ray) {
    if (!TreeQuery<Tree>::isWorthAsking(*tree))
        return 0;
    Interval const asked(ray, tree->singleSystem == 1);
    ClosestHit const hit = TreeQuery<Tree>::closestHit(*tree, ray, asked.tMin, asked.tMax, ray.time,
                                                       localSkipIndex(ray.skipIndex, baseIndex));
    if (hit.code == 0)
        return 0;
    ray.hitPrimitive = hit.primitive;
    ray.hitT = hit.t;
    ray.hitIndex = reportedIndex(*tree, hit, baseIndex);
    ray.hitNormal = hit.normal;
    ray.hitLocalIndex = hit.particleIndex;
    return hit.code;
}

template <class Base, class Tree, class B>
bool SphereTreePrimitiveTemplate<Base, Tree, B>::bunchIntersect(RayBunchExtParams const& params,
                                                                RayBunchCommonResult& result,
                                                                double* tMins, double* tMaxs,
                                                                unsigned char const* lanes,
                                                                unsigned long numLanes) {
    if (!TreeQuery<Tree>::isWorthAsking(*tree))
        return false;
    bool anyHit = false;
    for (unsigned long j = 0; j < numLanes;) {
        // A lane listed twice starts from its own first result.
        DistinctLanes const distinct(lanes + j, numLanes - j);
        BunchPart<Tree> part(*tree, baseIndex, params, tMins, distinct);
        for (unsigned k = 0; k < distinct.size(); ++k, ++j) {
            double const hitT = result.hitT[distinct[k]];
            part.tMaxs[k] = hitT < tMaxs[j] ? hitT : tMaxs[j];
        }
        anyHit |= part.intersect(result);
    }
    if (anyHit)
        result.noHits = false;
    return anyHit;
}

template <class Base, class Tree, class B>
bool SphereTreePrimitiveTemplate<Base, Tree, B>::isOccluded(RSRay const& ray) const {
    if (!TreeQuery<Tree>::isWorthAsking(*tree))
        return false;
    Interval const asked(ray, tree->singleSystem == 1);
    return TreeQuery<Tree>::isOccluded(*tree, ray, asked.tMin, asked.tMax, ray.time,
                                       localSkipIndex(ray.skipIndex, baseIndex));
}

template <class Base, class Tree, class B>
std::uint64_t SphereTreePrimitiveTemplate<Base, Tree, B>::bunchOccluded(
    RayBunchExtParams const& params, double const* tMins, double const* tMaxs,
    unsigned char const* lanes, unsigned long numLanes) const {
    if (!TreeQuery<Tree>::isWorthAsking(*tree))
        return 0;
    std::uint64_t occluded = 0;
    for (unsigned long j = 0; j < numLanes;) {
        DistinctLanes const distinct(lanes + j, numLanes - j);
        BunchPart<Tree> part(*tree, baseIndex, params, tMins, distinct);
        for (unsigned k = 0; k < distinct.size(); ++k, ++j)
            part.tMaxs[k] = tMaxs[j];
        std::uint64_t const found = part.occlusions();
        for (unsigned k = 0; k < distinct.size(); ++k)
            occluded |= (found >> k & 1U) << distinct[k];
    }
    return occluded;
}

template class SphereTreePrimitiveTemplate<BunchPrimitive<StaticBox>, StaticSphereTree, StaticBox>;
template class SphereTreePrimitiveTemplate<BunchPrimitive<MovingBox>, MovingSphereTree, MovingBox>;

} // namespace Kelpa

void SphereTreePrimitiveTemplate_callBuild(Kelpa::StaticSphereTree* tree,
                                           Kelpa::ParticleData* particles0,
                                           Kelpa::ParticleData* particles1,
                                           Kelpa::ProgressCallback* progress,
                                           Kelpa::ThreadManager* threadManager, int staticBounds,
                                           Kelpa::GenericPrimitive* primitive) {
    Kelpa::registerAndBuild(*tree, particles0, particles1, progress, threadManager, staticBounds,
                            primitive);
}

void SphereTreePrimitiveTemplate_callBuild(Kelpa::MovingSphereTree* tree,
                                           Kelpa::ParticleData* particles0,
                                           Kelpa::ParticleData* particles1,
                                           Kelpa::ProgressCallback* progress,
                                           Kelpa::ThreadManager* threadManager, int staticBounds,
                                           Kelpa::GenericPrimitive* primitive) {
    Kelpa::registerAndBuild(*tree, particles0, particles1, progress, threadManager, staticBounds,
                            primitive);
}
