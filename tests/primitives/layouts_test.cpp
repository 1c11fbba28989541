// The orders that hosts compiled against: of members in records, and of operations in tables.

#include "kelpa/foundation/exceptionmsg.h"
#include "kelpa/particleprimitives/particleprimitives.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>

#pragma GCC diagnostic ignored "-Winvalid-offsetof" // of classes with virtual operations, too

using namespace Kelpa;

namespace {

/// Whether numbers rise.
template <class... Offsets> constexpr bool rise(Offsets... offsets) {
    std::size_t const list[] = {offsets...};
    for (std::size_t i = 1; i < sizeof...(offsets); ++i)
        if (list[i] <= list[i - 1])
            return false;
    return true;
}

#define AT(member) offsetof(Type, member)

struct RayLayout {
    using Type = RSRay;
    static_assert(rise(AT(origin), AT(dir), AT(intervalMin), AT(intervalMax), AT(time), AT(clipMin),
                       AT(clipMax), AT(hitT), AT(hitPrimitive), AT(hitNormal), AT(hitLocalIndex),
                       AT(hitIndex), AT(skipIndex)));
};
struct BunchLayout {
    using Type = RayBunchExtParams;
    static_assert(rise(AT(originX), AT(originY), AT(originZ), AT(dirX), AT(dirY), AT(dirZ),
                       AT(time), AT(skipIndex)));
};
struct ResultLayout {
    using Type = RayBunchCommonResult;
    static_assert(rise(AT(hit), AT(hitT), AT(hitPrimitive), AT(hitIndex), AT(hitNormalX),
                       AT(hitNormalY), AT(hitNormalZ), AT(hitLocalIndex), AT(noHits)));
};
struct ParticlesLayout {
    using Type = ParticleData;
    static_assert(AT(sampleTime) == 0 && AT(particleType) == 8 && AT(positions) == 16 &&
                  AT(numParticles) == 24 && AT(radii) == 32 && AT(numRadii) == 40 &&
                  AT(colors) == 48 && AT(numColors) == 56);
};
struct IRayLayout {
    using Type = IRay;
    static_assert(AT(origin) == 0 && AT(dir) == 24 && AT(invDir) == 36 && AT(dirSign) == 48 &&
                  AT(tMin) == 64 && AT(tMax) == 72 && sizeof(Type) == 80);
};
struct BlockLayout {
    using Type = _SequenceBlock<int, false, DefaultAllocator<int>>;
    static_assert(AT(next) == 0 && AT(prev) == 8 && AT(count) == 16 && AT(capacity) == 20 &&
                  AT(elements) == 24 && sizeof(Type) == 32);
};
struct SequenceLayout {
    using Type = SequenceST<int, 20000>;
    static_assert(AT(first) == 0 && AT(current) == 8 && AT(iterBlock) == 16 &&
                  AT(iterIndex) == 24 && AT(count) == 28 && AT(blockSize) == 32 &&
                  AT(memUsage) == 40 && AT(lock) == 48);
};
struct TableLayout {
    using Type = Table<int, 1000>;
    static_assert(AT(count) == 0 && AT(step) == 4 && AT(capacity) == 8 && AT(elements) == 16);
};
struct LockLayout {
    using Type = FastCriticalSection;
    static_assert(AT(mutex) == 0 && AT(attr) == sizeof(pthread_mutex_t));
};
struct StillRecordLayouts {
    using Type = ParticleDataWithPrimitive;
    static_assert(rise(AT(particles), AT(primitive), AT(indexOffset), AT(positions), AT(radii)));
    static_assert(offsetof(SDSphere, particleIndex) == 0 && offsetof(SDSphere, systemIndex) == 4);
    static_assert(offsetof(SDSphereData, sphereIndex) == 0 && offsetof(SDSphereData, bbox) == 4 &&
                  offsetof(SDSphereData, radius) == 28);
    using Node = SDSphereNode<SDSphere>;
    static_assert(offsetof(Node, numLeafSpheres) == 0 && offsetof(Node, splitPos) == 0 &&
                  offsetof(Node, link) == 8);
    using Ray = SDSphereRay;
    static_assert(rise(sizeof(IRay) - 1, offsetof(Ray, skipIndex), offsetof(Ray, tMinStart),
                       offsetof(Ray, tMaxStart), offsetof(Ray, hit)));
    static_assert(rise(offsetof(SDSphereHit, t), offsetof(SDSphereHit, sphere),
                       offsetof(SDSphereHit, normal)));
};
struct MovingRecordLayouts {
    using Type = MovingParticleDataWithPrimitive;
    static_assert(rise(AT(particles0), AT(particles1), AT(primitive), AT(indexOffset),
                       AT(positions0), AT(positions1), AT(radii0), AT(radii1), AT(time0),
                       AT(time1)));
    static_assert(offsetof(MBSphere, particleIndex) == 0 && offsetof(MBSphere, systemIndex) == 4);
    static_assert(offsetof(MBSphereData, sphereIndex) == 0 && offsetof(MBSphereData, bbox) == 4 &&
                  offsetof(MBSphereData, radius) == 48);
    static_assert(offsetof(TimeBox, velocity) == 0 && offsetof(TimeBox, box) == 12 &&
                  offsetof(TimeBox, timeMin) == 36 && offsetof(TimeBox, timeMax) == 40);
    static_assert(offsetof(MBSphereNode, splitPos) == 0 && offsetof(MBSphereNode, link) == 4 &&
                  offsetof(MBSphereNode, velocity) == 12);
    using Ray = MBSphereRay;
    static_assert(rise(sizeof(IRay) - 1, offsetof(Ray, skipIndex), offsetof(Ray, rayTMin),
                       offsetof(Ray, rayTMax), offsetof(Ray, hitRecord), offsetof(Ray, rayTime)));
    static_assert(rise(offsetof(MBSphereHit, hitT), offsetof(MBSphereHit, hitSphere),
                       offsetof(MBSphereHit, hitVector)));
    static_assert(offsetof(MovingBox, timeMin) == 0 && offsetof(MovingBox, timeMax) == 4 &&
                  offsetof(MovingBox, bounds) == 8 && offsetof(MovingBox, motion) == 32 &&
                  sizeof(MovingBox) == 56);
};
template <class Thread> struct ThreadLayout {
    using Type = Thread;
    static_assert(rise(AT(tree), AT(busy), AT(progress), AT(data), AT(box), AT(node), AT(depth),
                       AT(level)));
    static_assert(AT(tree) == sizeof(void*)); // behind the table alone
};
template struct ThreadLayout<SDSphereBuildThread>;
template struct ThreadLayout<MBSphereBuildThread>;

struct StillTreeLayout {
    using Type = StaticSphereTree;
    static_assert(AT(leafSizeFactor) == 8 && AT(minNodeSize) == 12 && AT(maxDepth) == 16 &&
                  AT(multiThreaded) == 20 && AT(bbox) == 24 && AT(root) == 48 &&
                  AT(numSpheres) == 56 && AT(totalParticles) == 60 && AT(spheres) == 64 &&
                  AT(nodes) == 72);
    static_assert(rise(AT(nodes), AT(leafSpheres), AT(statMaxDepth), AT(statNumLeaves),
                       AT(statDepthSum), AT(threadLock), AT(numRunning), AT(numThreads),
                       AT(threads), AT(doneEvent), AT(threadManager), AT(particleSystems),
                       AT(singleSystem)));
    static_assert(AT(leafSpheres) == AT(nodes) + sizeof(SequenceLayout::Type) &&
                  AT(singleSystem) == AT(particleSystems) + sizeof(TableLayout::Type));
};
struct MovingTreeLayout {
    using Type = MovingSphereTree;
    static_assert(AT(maxDepth) == 8 && AT(leafSizeFactor) == 12 && AT(minNodeSize) == 16 &&
                  AT(multiThreaded) == 20 && AT(rootBox) == 24 && AT(boundsTimeMin) == 68 &&
                  AT(boundsTimeMax) == 72 && AT(boundsBox) == 76 && AT(boundsMotion) == 100 &&
                  AT(numSpheres) == 124 && AT(numParticles) == 128 && AT(spheres) == 136 &&
                  AT(nodes) == 144);
    static_assert(rise(AT(nodes), AT(leafSpheres), AT(root), AT(statMaxDepth), AT(threadLock),
                       AT(numRunning), AT(numThreads), AT(threads), AT(doneEvent),
                       AT(threadManager), AT(particleSystems), AT(shutterMin), AT(shutterMax),
                       AT(singleSystem)));
};
struct PrimitiveLayout {
    using Type = StaticParticlePrimitive;
    static_assert(AT(parentGenerator) == 8 && AT(tree) == 16 && AT(baseIndex) == 24 &&
                  AT(particles0) == 32 && AT(particles1) == 40);
};

/// The place of a virtual operation in its table: what a pointer to it says, one less, in bytes
/// (Itanium C++ ABI, section 2.3).
template <class Member> std::size_t slotOf(Member member) {
    std::uintptr_t word = 0;
    static_assert(sizeof member >= sizeof word);
    std::memcpy(&word, &member, sizeof word);
    return (word - 1) / sizeof(void*);
}

template <class Result, class Class, class... Values>
std::size_t slotOfConst(Result (Class::*member)(Values...) const) {
    return slotOf(member);
}

using Bunch = RayBunchParams const&;
using Hits = PrimitiveIntersections const&;

template <class B> void expectOrderOfThePrimitives() {
    using Primitive = BunchPrimitive<B>;
    std::size_t slot = 0;
    EXPECT_EQ(slotOf(&Resource::expandable), slot++);
    EXPECT_EQ(slotOf(&Resource::load), slot++);
    EXPECT_EQ(slotOf(&Resource::unload), slot++);
    EXPECT_EQ(slotOf(&Resource::getMemUsage), slot++);
    using Generator = GeometryGenerator;
    EXPECT_EQ((slotOfConst<Vector, Generator, RSRay const&>(&Generator::getGNormal)), slot++);
    EXPECT_EQ((slotOfConst<Vector, Generator, Bunch, Hits, unsigned char>(&Generator::getGNormal)),
              slot++);
    EXPECT_EQ((slotOfConst<Vector, Generator, RSRay const&>(&Generator::getNormal)), slot++);
    EXPECT_EQ((slotOfConst<Vector, Generator, Bunch, Hits, unsigned char>(&Generator::getNormal)),
              slot++);
    using Single = void (Generator::*)(RSRay&, void*);
    using Several =
        void (Generator::*)(Bunch, PrimitiveIntersections&, unsigned char const*, unsigned long);
    EXPECT_EQ(slotOf(static_cast<Single>(&Generator::setIntersectionData)), slot++);
    EXPECT_EQ(slotOf(static_cast<Several>(&Generator::setIntersectionData)), slot++);
    EXPECT_EQ(slotOf(&Generator::getPrimitiveIndex), slot++);
    EXPECT_EQ(slotOf(&Generator::getShadeable), slot++);
    EXPECT_EQ(slotOf(&Generator::getExtShadeData), slot++);
    EXPECT_EQ(slotOf(&Generator::getExtTexMapping), slot++);
    EXPECT_EQ(slotOf(&Generator::getVolumeShader), slot++);
    EXPECT_EQ(slotOf(&Generator::getExtSurfaceProperties), slot++);
    EXPECT_EQ(slotOf(&GenericPrimitive::intersect), slot++);
    EXPECT_EQ(slotOf(&GenericPrimitive::type), slot++);
    EXPECT_EQ(slotOf(&DynamicPrimitive<B>::getBBox), slot++);
    EXPECT_EQ(slotOf(&DynamicPrimitive<B>::splittable), slot++);
    EXPECT_EQ(slotOf(&DynamicPrimitive<B>::split), slot++);
    EXPECT_EQ(slotOf(&DynamicPrimitive<B>::expand), slot++);
    EXPECT_EQ(slotOf(&DynamicPrimitive<B>::collapse), slot++);
    EXPECT_EQ(slotOf(&Primitive::bunchIntersect), slot++);
    EXPECT_EQ(slotOf(&DynamicRaycaster<B>::notifyUnload), 0U);
}

TEST(Tables, KeepTheOrderOfTheirOperations) {
    expectOrderOfThePrimitives<StaticBox>();
    expectOrderOfThePrimitives<MovingBox>();
    EXPECT_EQ(slotOf(&GeomTreeBase::freeData), 2U); // behind two destructors
    EXPECT_EQ(slotOf(&GeomTreeBase::getMemUsage), 3U);
    EXPECT_EQ(slotOf(&GeomTreeBase::build), 4U);
    using Build = void (StaticSphereTree::*)(ProgressCallback*, ThreadManager*);
    EXPECT_EQ(slotOf(static_cast<Build>(&StaticSphereTree::build)), 5U);
    EXPECT_EQ(slotOf(&ThreadProcedure::proc), 0U);
    EXPECT_EQ(slotOf(&ThreadProcedure::getThreadName), 1U);
    EXPECT_EQ(slotOf(&ThreadManager::runThread), 0U);
    EXPECT_EQ(slotOf(&ProgressCallback::getAbort), 0U);
    EXPECT_EQ(slotOf(&ProgressCallback::info), 1U);
    EXPECT_EQ(slotOf(&ExceptionMsg::what), 2U);
}

} // namespace
