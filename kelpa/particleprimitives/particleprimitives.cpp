#include "kelpa/particleprimitives/particleprimitives.h"

#include "kelpa/particleprimitives/treequery.h"

#include <new>

namespace Kelpa {

namespace {

// Indices are added and subtracted in 32 bits and wrap.
std::int32_t wrappedSum(std::int32_t a, std::int32_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}

std::int32_t localSkipIndex(std::int64_t skipIndex, std::int32_t baseIndex) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(skipIndex) -
                                     static_cast<std::uint32_t>(baseIndex));
}

/// The index under which a hit is reported.
template <class Tree>
std::int64_t reportedIndex(Tree const& tree, ClosestHit const& hit, std::int32_t baseIndex) {
    return wrappedSum(tree.singleSystem == 1 ? baseIndex : hit.indexOffset, hit.particleIndex);
}

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

// The volatile float keeps g++ 12 from dropping the rounding: where it pairs two such conversions
// into one vector it takes the way there and back for nothing.
double roundedToSingle(double value) {
    float const volatile rounded = static_cast<float>(value);
    return static_cast<double>(rounded);
}

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
    bool const alone = tree->singleSystem == 1;
    double const tMin = alone ? ray.intervalMin : ray.clipMin;
    double const tMax = alone ? ray.intervalMax : ray.clipMax < ray.hitT ? ray.clipMax : ray.hitT;
    ClosestHit const hit = TreeQuery<Tree>::closestHit(*tree, ray, tMin, tMax, ray.time,
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
        // As many at a time as are distinct: a lane listed twice starts from its own first result.
        std::uint64_t listed = 0;
        typename TreeQuery<Tree>::List list;
        unsigned char lane[longestList];
        std::size_t count = 0;
        for (; j < numLanes && !list.isFull(); ++j) {
            unsigned char const i = lanes[j];
            std::uint64_t const bit = std::uint64_t{1} << (i % 64U);
            if ((listed & bit) != 0)
                break;
            listed |= bit;
            lane[count++] = i;
            TraceRay const ray{{roundedToSingle(params.originX[i]),
                                roundedToSingle(params.originY[i]),
                                roundedToSingle(params.originZ[i])},
                               {params.dirX[i], params.dirY[i], params.dirZ[i]}};
            double const tMax = result.hitT[i] < tMaxs[j] ? result.hitT[i] : tMaxs[j];
            list.add(ray, tMins[i], tMax, params.time[i],
                     localSkipIndex(params.skipIndex[i], baseIndex));
        }
        list.ask(*tree);
        for (std::size_t k = 0; k < count; ++k) {
            ClosestHit const hit = list.closestHit(*tree, k);
            if (hit.code == 0)
                continue;
            unsigned char const i = lane[k];
            result.hit[i] = static_cast<unsigned char>(hit.code);
            result.hitPrimitive[i] = hit.primitive;
            result.hitT[i] = hit.t;
            result.hitIndex[i] = reportedIndex(*tree, hit, baseIndex);
            result.hitNormalX[i] = hit.normal.x;
            result.hitNormalY[i] = hit.normal.y;
            result.hitNormalZ[i] = hit.normal.z;
            result.hitLocalIndex[i] = hit.particleIndex;
            anyHit = true;
        }
    }
    if (anyHit)
        result.noHits = false;
    return anyHit;
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
