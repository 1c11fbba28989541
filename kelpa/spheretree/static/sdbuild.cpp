// Builds still trees: takes the usable particles, starts the jobs, packs the leaves.
#include "kelpa/foundation/exceptionmsg.h"
#include "kelpa/foundation/optionalarray.h"
#include "kelpa/foundation/usableparticles.h"
#include "kelpa/spheretree/buildjobs.h"
#include "kelpa/spheretree/buildmemory.h"
#include "kelpa/spheretree/buildprogress.h"
#include "kelpa/spheretree/splitchoice.h"
#include "kelpa/spheretree/static/orderedspheres.h"
#include "kelpa/spheretree/static/sdleafpacks.h"
#include "kelpa/spheretree/static/sdspheretree.h"
#include "kelpa/spheretree/traversal.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace Kelpa {

void SDSphereBuildThread::start() {
    startJob(*tree, *this);
}

void SDSphereBuildThread::proc(void*) {
    runSubtreeJob(*this);
}

namespace {

/// The records' particle count: what its snapshot says, negative counts taken as none.
std::int32_t particleCount(ParticleDataWithPrimitive const& system) {
    return std::max(system.particles->numParticles, 0);
}

/// The record's snapshot, with the arrays that the record has.
ParticleData snapshotOf(ParticleDataWithPrimitive const& system) {
    ParticleData snapshot = *system.particles;
    snapshot.positions = system.positions;
    snapshot.radii = system.radii;
    return snapshot;
}

template <class Tree> void gatherSpheres(Tree& tree) {
    for (std::int32_t s = 0; s < tree.particleSystems.count; ++s) {
        ParticleDataWithPrimitive const& system = tree.particleSystems.elements[s];
        ParticleData const snapshot = snapshotOf(system);
        std::int32_t const count = particleCount(system);
        for (std::int32_t i = 0; i < count; ++i)
            if (isUsable(snapshot, i))
                tree.spheres[tree.numSpheres++] = SDSphere::of(i, s);
    }
}

/// Makes one build record per sphere and the box around all; an abort ends it early.
template <class Tree>
void makeRecords(Tree& tree, OrderedSpheres<Tree> const& ordered, SDSphereRecords& records,
                 AbortQuestion& isAborted) {
    for (std::int32_t k = 0; k < tree.numSpheres; ++k) {
        auto const& sphere = tree.spheres[k];
        ParticleDataWithPrimitive const& system = tree.particleSystems.elements[sphere.system()];
        Vector const& c = system.positions[sphere.particleIndex];
        float const r = system.radii[sphere.particleIndex];
        SDSphereData& record = *records.newElement();
        record.sphereIndex = ordered.nameOf(static_cast<std::uint32_t>(k));
        record.bbox = {{c.x - r, c.y - r, c.z - r}, {c.x + r, c.y + r, c.z + r}};
        record.radius = r;
        tree.bbox.grow(record.bbox);
        if (isAborted())
            return;
    }
}

/// Everything that a build makes, but not what it is made from.
template <class Tree> void releaseTree(Tree& tree) {
    releaseThreads(tree);
    releaseSpheres(tree);
    writeShared(tree.totalParticles, 0);
    releaseNodes(tree);
    std::free(tree.packedLeaves);
    tree.packedLeaves = nullptr;
    tree.packedFloats = 0;
    tree.buildBytes = 0;
}

/// What is left of a build that failed: an empty tree, as if there were no usable particle.
template <class Tree> void abandonBuild(Tree& tree) {
    releaseTree(tree);
    tree.bbox = Box::empty();
}

/// Makes the records of all usable spheres, and the root's box around them.
template <class Tree>
void fillRecords(Tree& tree, OrderedSpheres<Tree>& ordered, SDSphereRecords& records,
                 ProgressCallback* progress, ProgressCallback& report) {
    report.info(0, progressLevel, "Initializing sphere build data.\n");
    AbortQuestion isAborted(progress, tree.wasAborted);
    makeRecords(tree, ordered, records, isAborted);
    notePeak(tree);
    ordered.forgetNames();
    widenByMargin(tree.bbox);
}

template <class Tree>
void buildThreaded(Tree& tree, OrderedSpheres<Tree>& ordered, BlockPool& recordPool,
                   ProgressCallback* progress, ProgressCallback& report) {
    createThreads(tree, std::max(getNumProcessors(), 1), progress, report, recordPool);
    SDSphereRecords& records = claimRootRecords(tree, report);
    fillRecords(tree, ordered, records, progress, report);
    runJobs(tree, tree.bbox, 1, report);
}

template <class Tree>
void buildHere(Tree& tree, OrderedSpheres<Tree>& ordered, BlockPool& recordPool,
               ProgressCallback* progress, ProgressCallback& report) {
    SDSphereRecords records;
    records.allocator.pool = &recordPool;
    fillRecords(tree, ordered, records, progress, report);
    tree.buildNode(tree.root, tree.bbox, records, records.getCount(), 1, progress, &records, 1);
}

template <class Tree> bool holdsOnlySpheres(Tree const& tree) {
    auto const* const systems = tree.particleSystems.elements;
    return std::all_of(systems, systems + tree.particleSystems.count, [](auto const& system) {
        return system.particles->particleType == static_cast<std::int32_t>(ParticleType::sphere);
    });
}

/// Copies a leaf's spheres to `packs` from `position` on, and lets the leaf call them by their
/// indices; returns the position of the next copy. Between copies there may be up to three floats
/// that nobody reads.
template <class Tree>
std::uint64_t packLeaf(Tree const& tree, OrderedSpheres<Tree> const& ordered,
                       typename Tree::Node& leaf, float* packs, std::uint64_t position) {
    std::int32_t const count = leaf.numLeafSpheres;
    SDLeafSphere const* const entries = leaf.leafSpheres();
    float* const radii = packs + position;
    bool hasEqualRadii = true;
    for (std::int32_t k = 0; k < count; ++k) {
        radii[k] = tree.radiusInBuild(entries[k].sphereIndex);
        hasEqualRadii &= radii[k] == radii[0];
    }
    float* const x = radii + (hasEqualRadii ? 1 : count);
    for (std::int32_t k = 0; k < count; ++k) {
        Vector const& center = tree.centerInBuild(entries[k].sphereIndex);
        x[k] = center.x;
        x[count + k] = center.y;
        x[2 * count + k] = center.z;
    }
    leaf.packWord = LeafPack::at(position, hasEqualRadii).word;
    ordered.nameByIndex(leaf);
    return LeafPack::nextPosition(static_cast<std::uint64_t>(x + 3 * count - packs));
}

/// Makes the packed copies of all leaves, along the tree, so that leaves that a ray passes one
/// after the other mostly lie near each other, and lets leaves call spheres by their indices. Does
/// nothing and returns false when memory is short, or entries are many times as many as spheres.
template <class Tree> bool packLeaves(Tree& tree, OrderedSpheres<Tree> const& ordered) {
    // Position 0 is kept free: it means that there is no copy.
    std::uint64_t const most =
        LeafPack::unit + 4 * static_cast<std::uint64_t>(tree.leafSpheres.count) +
        (LeafPack::unit - 1) * static_cast<std::uint64_t>(tree.statNumLeaves) +
        static_cast<std::uint64_t>(packPadding);
    if (most > LeafPack::lastPosition ||
        tree.leafSpheres.count > mostPackedEntries(tree.numSpheres))
        return false;
    auto* const packs = tryAllocate<float>(most).release();
    if (packs == nullptr)
        return false;
    notePeak(tree, most * sizeof(float));
    std::uint64_t end = LeafPack::unit;
    typename Tree::Node* next = nullptr; // a leaf whose spheres are on their way from memory
    // At most one node waits on each level of the path, and one behind it.
    typename Tree::Node* waiting[levelLimit + 1] = {tree.root};
    for (int used = 1; used > 0;) {
        auto* const node = waiting[--used];
        if (!node->isLeaf()) {
            waiting[used++] = node->children() + 1;
            waiting[used++] = node->children();
        } else if (node->numLeafSpheres > 0) {
            for (std::int32_t k = 0; k < node->numLeafSpheres; ++k)
                tree.prefetchInBuild(node->leafSpheres()[k].sphereIndex);
            if (next != nullptr)
                end = packLeaf(tree, ordered, *next, packs, end);
            next = node;
        }
    }
    if (next != nullptr)
        end = packLeaf(tree, ordered, *next, packs, end);
    for (std::int32_t i = 0; i < packPadding; ++i)
        packs[end++] = 0.0F;
    auto* const shrunk = static_cast<float*>(std::realloc(packs, end * sizeof(float)));
    tree.packedLeaves = shrunk != nullptr ? shrunk : packs;
    tree.packedFloats = end;
    return true;
}

// Averages over no leaves, which only an early abort leaves behind, print as what 0 / 0 gives.
float average(std::int32_t sum, std::int32_t count) {
    return static_cast<float>(sum) / static_cast<float>(count);
}

// Only the first line ends in a newline; hosts that show statistics as a list end the others.
template <class Tree> void printStatistics(Tree& tree, ProgressCallback& report) {
    Box const& b = tree.bbox;
    report.info(0, statisticsLevel, "SDSphereTree statistics:\n");
    report.info(0, statisticsLevel, "  Bounding box: (%f, %f, %f)-(%f, %f, %f)",
                static_cast<double>(b.min.x), static_cast<double>(b.min.y),
                static_cast<double>(b.min.z), static_cast<double>(b.max.x),
                static_cast<double>(b.max.y), static_cast<double>(b.max.z));
    report.info(0, statisticsLevel, "  Memory usage: %u MB", wholeMegabytes(tree.getMemUsage()));
    report.info(0, statisticsLevel, "  Number of particle systems : %i",
                tree.particleSystems.count);
    report.info(0, statisticsLevel, "  Total number of spheres stored: %i (%u MB)", tree.numSpheres,
                wholeMegabytes(sizeof(SDSphere) * static_cast<std::uint64_t>(tree.totalParticles)));
    report.info(0, statisticsLevel, "  Max tree depth: %i", tree.statMaxDepth);
    report.info(0, statisticsLevel, "  Average tree depth: %g",
                static_cast<double>(average(tree.statDepthSum, tree.statNumLeaves)));
    report.info(0, statisticsLevel, "  Number of tree nodes: %i (%u MB)", tree.nodes.getCount(),
                wholeMegabytes(tree.nodes.getMemUsage()));
    report.info(0, statisticsLevel, "  Number of leaf spheres: %i (%u MB)",
                tree.leafSpheres.getCount(), wholeMegabytes(tree.leafSpheres.getMemUsage()));
    report.info(0, statisticsLevel, "  Number of tree leafs: %i", tree.statNumLeaves);
    report.info(0, statisticsLevel, "  Average spheres/leaf: %g",
                static_cast<double>(average(tree.leafSpheres.getCount(), tree.statNumLeaves)));
}

template <class Tree>
void buildAnew(Tree& tree, ProgressCallback* progress, ThreadManager* manager) {
    SilentProgress silence;
    ProgressCallback& report = progress != nullptr ? *progress : silence;

    auto const& systems = tree.particleSystems;
    tree.singleSystem = systems.count == 1 && systems.elements[0].indexOffset == -1 ? 1 : 0;
    allocateSpheres(tree, tree.totalParticles, particleCount);
    gatherSpheres(tree);
    tree.statMaxDepth = 0;
    tree.statNumLeaves = 0;
    tree.statDepthSum = 0;
    tree.innerLevels = 0;
    tree.wasAborted = 0;
    tree.deepRecords = 0;
    tree.peakBytes = 0;
    makeRoot(tree);
    tree.bbox = Box::empty();
    if (tree.numSpheres == 0)
        return;

    tree.numRunning = 0;
    tree.threadManager = manager;
    OrderedSpheres ordered(tree);
    BlockPool records(SDSphereRecords::blockBytes, recordSource(tree), &tree.buildBytes);
    ThreadsScope<Tree> const threads(tree);
    if (manager != nullptr && tree.multiThreaded != 0)
        buildThreaded(tree, ordered, records, progress, report);
    else
        buildHere(tree, ordered, records, progress, report);
    notePeak(tree);
    records.release(); // the packs may have the memory
    bool const isPacked = tree.packLeaves != 0 && tree.wasAborted == 0 && holdsOnlySpheres(tree) &&
                          packLeaves(tree, ordered);
    if (!isPacked)
        ordered.nameAllByIndex();
    printStatistics(tree, report);
}

} // namespace

template <class Sphere, int NodeBlock, int LeafBlock>
SDSphereTree<Sphere, NodeBlock, LeafBlock>::SDSphereTree() {
    particleSystems.setCount(1, 1);
    particleSystems.setCount(0, 1);
}

template <class Sphere, int NodeBlock, int LeafBlock>
SDSphereTree<Sphere, NodeBlock, LeafBlock>::~SDSphereTree() {
    SDSphereTree::freeData();
}

template <class Sphere, int NodeBlock, int LeafBlock>
void SDSphereTree<Sphere, NodeBlock, LeafBlock>::freeData() {
    releaseTree(*this);
    particleSystems.freeData();
    numThreads = 0;
}

template <class Sphere, int NodeBlock, int LeafBlock>
std::uint64_t SDSphereTree<Sphere, NodeBlock, LeafBlock>::getMemUsage() const {
    return nodes.getMemUsage() + leafSpheres.getMemUsage() +
           sphereTableBytes(*this, totalParticles);
}

template <class Sphere, int NodeBlock, int LeafBlock>
std::uint64_t SDSphereTree<Sphere, NodeBlock, LeafBlock>::getTotalMemUsage() const {
    return heldBytes(*this);
}

template <class Sphere, int NodeBlock, int LeafBlock>
void SDSphereTree<Sphere, NodeBlock, LeafBlock>::build(ProgressCallback* progress,
                                                       ThreadManager* manager, int, int) {
    build(progress, manager);
}

template <class Sphere, int NodeBlock, int LeafBlock>
void SDSphereTree<Sphere, NodeBlock, LeafBlock>::build(ProgressCallback* progress,
                                                       ThreadManager* manager) {
    releaseTree(*this);
    buildGuarded([&] { buildAnew(*this, progress, manager); }, [&] { abandonBuild(*this); });
}

template class SDSphereTree<SDSphere, 20000, 20000>;

StaticSphereTree::~StaticSphereTree() = default;

} // namespace Kelpa
