// Builds moving trees: takes the usable particles, starts the jobs, packs the leaves.
#include "kelpa/foundation/exceptionmsg.h"
#include "kelpa/foundation/optionalarray.h"
#include "kelpa/foundation/usableparticles.h"
#include "kelpa/spheretree/buildjobs.h"
#include "kelpa/spheretree/buildmemory.h"
#include "kelpa/spheretree/buildprogress.h"
#include "kelpa/spheretree/motionblur/crowd.h"
#include "kelpa/spheretree/motionblur/mbspheretree.h"
#include "kelpa/spheretree/motionblur/timeboxkernels.h"
#include "kelpa/spheretree/motionblur/walknodes.h"
#include "kelpa/spheretree/traversal.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <new>
#include <optional>

namespace Kelpa {

void MBSphereBuildThread::start() {
    startJob(*tree, *this);
}

void MBSphereBuildThread::proc(void*) {
    runSubtreeJob(*this);
}

namespace {

/// The records' particle count: what the first snapshot says, negative counts taken as none.
std::int32_t particleCount(MovingParticleDataWithPrimitive const& system) {
    return std::max(system.particles0->numParticles, 0);
}

float ratePerTime(MovingParticleDataWithPrimitive const& system) {
    return Kelpa::ratePerTime(system.time0, system.time1);
}

Vector velocityOf(MovingParticleDataWithPrimitive const& system, std::uint32_t i) {
    return velocityBetween(system.positions0[i], system.positions1[i], ratePerTime(system));
}

float radiusRateOf(MovingParticleDataWithPrimitive const& system, std::uint32_t i) {
    return (system.radii1[i] - system.radii0[i]) * ratePerTime(system);
}

/// A snapshot with the arrays and the time that the record has.
ParticleData snapshotOf(ParticleData const& data, Vector const* positions, float const* radii,
                        float time) {
    ParticleData snapshot = data;
    snapshot.sampleTime = static_cast<double>(time);
    snapshot.positions = positions;
    snapshot.radii = radii;
    return snapshot;
}

template <class Tree> void gatherSpheres(Tree& tree) {
    for (std::int32_t s = 0; s < tree.particleSystems.count; ++s) {
        auto const& system = tree.particleSystems.elements[s];
        ParticleData const first =
            snapshotOf(*system.particles0, system.positions0, system.radii0, system.time0);
        ParticleData const second =
            snapshotOf(*system.particles1, system.positions1, system.radii1, system.time1);
        std::int32_t const count = particleCount(system);
        for (std::int32_t i = 0; i < count; ++i)
            if (isUsable(first, second, i))
                tree.spheres[tree.numSpheres++] = MBSphere::of(i, s);
    }
}

/// Refuses spheres more of which are in one place at a time of the shutter than a leaf can hold. No
/// plane parts them, so the leaf at that place would need them all: that is better said before the
/// work than after.
template <class Tree> void refuseCrowds(Tree const& tree) {
    constexpr std::int32_t most = Tree::Node::mostLeafSpheres;
    if (tree.numSpheres <= most)
        return;
    for (bool const isSecond : {false, true}) {
        auto const placeOf = [&](std::int32_t k) -> std::optional<PlaceInTime> {
            auto const& sphere = tree.spheres[k];
            auto const& system = tree.particleSystems.elements[sphere.system()];
            float const time = isSecond ? system.time1 : system.time0;
            bool const isInShutter = system.time0 <= system.time1 && 0.0F <= time && time <= 1.0F;
            Vector const* const positions = isSecond ? system.positions1 : system.positions0;
            if (!isInShutter)
                return std::nullopt;
            return PlaceInTime{positions[sphere.particleIndex], time};
        };
        if (isCrowded(tree.numSpheres, most, placeOf))
            throw ExceptionMsg("[MBSphereTree] More than %i spheres are in one place at one time, "
                               "which no leaf can hold",
                               most);
    }
}

float interpolated(float a, float b, float f) {
    return a + (b - a) * f;
}

void growBothWays(float& min, float& max, float centre, float reach) {
    for (float const bound : {centre - reach, centre + reach}) {
        min = bound < min ? bound : min;
        max = bound > max ? bound : max;
    }
}

/// A particle's bounds in the frame that moves with it, over the part of the shutter [0, 1] that
/// its snapshots cover.
TimeBox particleBox(MovingParticleDataWithPrimitive const& system, std::uint32_t i) {
    float const rate = ratePerTime(system);
    TimeBox box = TimeBox::empty(velocityOf(system, i));
    bool const standsStill = system.time0 == system.time1;
    // What stands still is where it is at all times; that it is hit at one only, leaves see to. An
    // interval without length would make every split look free.
    box.timeMin = standsStill ? 0.0F : std::max(system.time0, 0.0F);
    box.timeMax = standsStill ? 1.0F : std::min(system.time1, 1.0F);
    for (float const time : {box.timeMin, box.timeMax}) {
        float const f = (time - system.time0) * rate;
        float const radius = interpolated(system.radii0[i], system.radii1[i], f);
        for (int axis = 0; axis < 3; ++axis) {
            float const centre =
                interpolated(system.positions0[i][axis], system.positions1[i][axis], f) -
                box.velocity[axis] * time;
            growBothWays(box.box.min[axis], box.box.max[axis], centre, radius);
        }
    }
    return box;
}

/// Makes one build record per sphere and the world box around all.
template <class Tree> void makeRecords(Tree& tree, MBSphereRecords& records) {
    for (std::int32_t k = 0; k < tree.numSpheres; ++k) {
        auto const& sphere = tree.spheres[k];
        auto const& system = tree.particleSystems.elements[sphere.system()];
        MBSphereData& record = *records.newElement();
        record.sphereIndex = static_cast<std::uint32_t>(k);
        record.bbox = particleBox(system, sphere.particleIndex);
        record.radius = system.radii0[sphere.particleIndex];
        tree.numOutsideShutter += record.bbox.timeMin < record.bbox.timeMax ? 0 : 1;
        tree.rootBox.grow(inFrame(record.bbox, {0.0F, 0.0F, 0.0F}));
    }
}

/// Grows the moving bounds by a particle's bounds at time 0 and by their rate of change.
template <class Tree>
void growMovingBounds(Tree& tree, MovingParticleDataWithPrimitive const& system, std::uint32_t i) {
    Vector const velocity = velocityOf(system, i);
    float const radiusRate = radiusRateOf(system, i);
    float const radiusAtZero = system.radii0[i] - radiusRate * system.time0;
    for (int axis = 0; axis < 3; ++axis) {
        float const atZero = system.positions0[i][axis] - velocity[axis] * system.time0;
        growBothWays(tree.boundsBox.min[axis], tree.boundsBox.max[axis], atZero, radiusAtZero);
        growBothWays(tree.boundsMotion.min[axis], tree.boundsMotion.max[axis], velocity[axis],
                     radiusRate);
    }
}

template <class Tree> void findBounds(Tree& tree, int staticBounds) {
    if (staticBounds != 0)
        tree.boundsMotion = {};
    for (std::int32_t k = 0; k < tree.numSpheres; ++k) {
        auto const& sphere = tree.spheres[k];
        std::uint32_t const i = sphere.particleIndex;
        auto const& system = tree.particleSystems.elements[sphere.system()];
        tree.boundsTimeMin = std::min(tree.boundsTimeMin, system.time0);
        tree.boundsTimeMax = std::max(tree.boundsTimeMax, system.time1);
        if (staticBounds == 0) {
            growMovingBounds(tree, system, i);
            continue;
        }
        for (int axis = 0; axis < 3; ++axis) {
            float& min = tree.boundsBox.min[axis];
            float& max = tree.boundsBox.max[axis];
            growBothWays(min, max, system.positions0[i][axis], system.radii0[i]);
            growBothWays(min, max, system.positions1[i][axis], system.radii1[i]);
        }
    }
}

/// Everything that a build makes, but not what it is made from.
template <class Tree> void releaseTree(Tree& tree) {
    releaseThreads(tree);
    releaseSpheres(tree);
    writeShared(tree.numParticles, 0);
    releaseNodes(tree);
    std::free(tree.packedSpheres);
    tree.packedSpheres = nullptr;
    tree.packedFloats = 0;
    tree.buildBytes = 0;
}

template <class Tree> void resetBounds(Tree& tree) {
    tree.rootBox = TimeBox::empty({0.0F, 0.0F, 0.0F});
    tree.boundsTimeMin = 1e20F;
    tree.boundsTimeMax = -1e20F;
    tree.boundsBox = Box::empty();
    tree.boundsMotion = Box::empty();
}

/// What is left of a build that failed: an empty tree, as if there were no usable particle.
template <class Tree> void abandonBuild(Tree& tree) {
    releaseTree(tree);
    resetBounds(tree);
}

template <class Tree> void findShutter(Tree& tree) {
    tree.shutterMin = 1e9F;
    tree.shutterMax = -1e9F;
    for (std::int32_t s = 0; s < tree.particleSystems.count; ++s) {
        tree.shutterMin = std::min(tree.shutterMin, tree.particleSystems.elements[s].time0);
        tree.shutterMax = std::max(tree.shutterMax, tree.particleSystems.elements[s].time1);
    }
}

/// Whether one interpolation serves all spheres.
template <class Tree> bool canPack(Tree const& tree) {
    auto const* const systems = tree.particleSystems.elements;
    return std::all_of(systems, systems + tree.particleSystems.count, [&](auto const& system) {
        return system.time0 == systems[0].time0 && system.time1 == systems[0].time1 &&
               system.particles0->particleType == static_cast<std::int32_t>(ParticleType::sphere);
    });
}

/// Copies both states of every sphere to one place, and the nodes to another. Does nothing when
/// memory is short.
template <class Tree> void packSpheres(Tree& tree) {
    std::uint64_t const floats = 8 * static_cast<std::uint64_t>(tree.numSpheres);
    auto* const packs = tryAllocate<float>(floats).release();
    if (packs == nullptr)
        return;
    for (std::int32_t k = 0; k < tree.numSpheres; ++k) {
        std::uint32_t const i = tree.spheres[k].particleIndex;
        auto const& system = tree.particleSystems.elements[tree.spheres[k].system()];
        float* const states = packs + 8 * static_cast<std::ptrdiff_t>(k);
        for (int axis = 0; axis < 3; ++axis) {
            states[axis] = system.positions0[i][axis];
            states[4 + axis] = system.positions1[i][axis];
        }
        states[3] = system.radii0[i];
        states[7] = system.radii1[i];
    }
    tree.packedSpheres = packs;
    tree.packedFloats = floats;
    layOutWalkNodes(tree);
    notePeak(tree);
}

// Only the first line ends in a newline; hosts that show statistics as a list end the others.
template <class Tree> void printStatistics(Tree& tree, ProgressCallback& report) {
    report.info(0, statisticsLevel, "MBSphereTree statistics:\n");
    report.info(0, statisticsLevel, "  Memory usage: %u MB", wholeMegabytes(tree.getMemUsage()));
    report.info(0, statisticsLevel, "  Number of particle systems : %i",
                tree.particleSystems.count);
    report.info(0, statisticsLevel, "  Total number of spheres stored: %i (%u MB)", tree.numSpheres,
                wholeMegabytes(sizeof(MBSphere) * static_cast<std::uint64_t>(tree.numParticles)));
    report.info(0, statisticsLevel, "  Max tree depth: %i", tree.statMaxDepth);
    report.info(0, statisticsLevel, "  Number of tree nodes: %i (%u MB)", tree.nodes.getCount(),
                wholeMegabytes(tree.nodes.getMemUsage()));
    report.info(0, statisticsLevel, "  Number of leaf spheres: %i (%u MB)",
                tree.leafSpheres.getCount(), wholeMegabytes(tree.leafSpheres.getMemUsage()));
}

template <class Tree>
void buildAnew(Tree& tree, ProgressCallback* progress, ThreadManager* manager, int staticBounds) {
    SilentProgress silence;
    ProgressCallback& report = progress != nullptr ? *progress : silence;

    auto const& systems = tree.particleSystems;
    tree.singleSystem = systems.count == 1 && systems.elements[0].indexOffset == -1 ? 1 : 0;
    findShutter(tree);
    allocateSpheres(tree, tree.numParticles, particleCount);
    gatherSpheres(tree);
    refuseCrowds(tree);
    tree.statMaxDepth = 0;
    tree.wasAborted = 0;
    tree.deepRecords = 0;
    tree.peakBytes = 0;
    tree.numOutsideShutter = 0;
    resetBounds(tree);
    if (tree.numSpheres == 0)
        return;

    makeRoot(tree);
    tree.threadManager = manager;
    // Without a manager there is one job, which runs where the build was called.
    bool const isThreaded = tree.multiThreaded != 0 && manager != nullptr;
    BlockPool pool(MBSphereRecords::blockBytes, recordSource(tree), &tree.buildBytes);
    ThreadsScope<Tree> const threads(tree);
    createThreads(tree, isThreaded ? std::max(getNumProcessors(), 1) : 1, progress, report, pool);
    tree.numRunning = 0;
    MBSphereRecords& records = claimRootRecords(tree, report);
    report.info(0, progressLevel, "Initializing sphere build data.\n");
    makeRecords(tree, records);
    notePeak(tree);
    findBounds(tree, staticBounds);
    widenByMargin(tree.rootBox.box);
    runJobs(tree, tree.rootBox, 0, report);
    notePeak(tree);
    pool.release(); // the packs may have the memory
    if (tree.packSpheres != 0 && tree.wasAborted == 0 && canPack(tree))
        packSpheres(tree);
    printStatistics(tree, report);
}

} // namespace

template <class Sphere, int NodeBlock, int LeafBlock>
MBSphereTree<Sphere, NodeBlock, LeafBlock>::MBSphereTree() {
    particleSystems.setCount(1, 1);
    particleSystems.setCount(0, 1);
}

template <class Sphere, int NodeBlock, int LeafBlock>
MBSphereTree<Sphere, NodeBlock, LeafBlock>::~MBSphereTree() {
    MBSphereTree::freeData();
}

template <class Sphere, int NodeBlock, int LeafBlock>
void MBSphereTree<Sphere, NodeBlock, LeafBlock>::freeData() {
    releaseTree(*this);
    particleSystems.freeData();
    numThreads = 0;
}

template <class Sphere, int NodeBlock, int LeafBlock>
std::uint64_t MBSphereTree<Sphere, NodeBlock, LeafBlock>::getMemUsage() const {
    return nodes.getMemUsage() + leafSpheres.getMemUsage() + sphereTableBytes(*this, numParticles);
}

template <class Sphere, int NodeBlock, int LeafBlock>
std::uint64_t MBSphereTree<Sphere, NodeBlock, LeafBlock>::getTotalMemUsage() const {
    return heldBytes(*this);
}

template <class Sphere, int NodeBlock, int LeafBlock>
void MBSphereTree<Sphere, NodeBlock, LeafBlock>::build(ProgressCallback* progress,
                                                       ThreadManager* manager, int, int) {
    build(progress, manager, 1);
}

template <class Sphere, int NodeBlock, int LeafBlock>
void MBSphereTree<Sphere, NodeBlock, LeafBlock>::build(ProgressCallback* progress,
                                                       ThreadManager* manager, int staticBounds) {
    releaseTree(*this);
    buildGuarded([&] { buildAnew(*this, progress, manager, staticBounds); },
                 [&] { abandonBuild(*this); });
}

template class MBSphereTree<MBSphere, 20000, 20000>;

MovingSphereTree::~MovingSphereTree() = default;

} // namespace Kelpa
