// The tree over particles that stand still.
#pragma once

#include "kelpa/foundation/blockpool.h"
#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/lock.h"
#include "kelpa/foundation/platform.h"
#include "kelpa/foundation/sequence.h"
#include "kelpa/foundation/stock.h"
#include "kelpa/foundation/table.h"
#include "kelpa/foundation/vector.h"
#include "kelpa/spheretree/geomtreebase.h"
#include "kelpa/spheretree/static/sdrecords.h"

#include <cstdint>
#include <exception>
#include <span>
#include <thread>

namespace Kelpa {

template <class Sphere, int NodeBlock, int LeafBlock> class SDSphereTree;

/// What a build moves about.
using SDSphereRecords = SequenceST<SDSphereData, 20000>;

/// Nodes and leaf entries for one thread that builds.
template <int NodeBlock, int LeafBlock> struct SDSphereStocks {
    Stock<Sequence<SDSphereNode<SDSphere>, NodeBlock>> nodes;
    Stock<Sequence<SDLeafSphere, LeafBlock>> entries;
};

/// A worker's share of a build: one subtree at a time. Aligned so that no two write to one line of
/// memory, nor to two that processors fetch together.
class alignas(128) SDSphereBuildThread final : public UnwaitingProcedure {
  public:
    /// Builds the subtree that the members below describe. A failure is kept in the tree's
    /// `failure`.
    void proc(void* parameter) override;

    /// Counts the job as running and hands it to the thread manager; a manager that refuses it (by
    /// an exception) has it done here and now.
    void start();

    SDSphereTree<SDSphere, 20000, 20000>* tree = nullptr; ///< null outside a build
    std::int32_t busy = 0; ///< 1 while claimed by a job; under the tree's `threadLock`
    ProgressCallback* progress = nullptr;   ///< where the build reports to; may be null
    SDSphereRecords data;                   ///< records of the subtree; its own scratch too
    Box box;                                ///< what the subtree covers
    SDSphereNode<SDSphere>* node = nullptr; ///< the subtree's root
    std::int32_t depth = 0;                 ///< of `node`, as in `buildNode`
    std::int32_t level = 0;                 ///< of `node`, as in `buildNode`
    std::thread::id endedOn; ///< where the last job ended; under the tree's `threadLock`
    SDSphereStocks<20000, 20000> stocks; ///< what the subtrees are made of
};

/// A kd-tree over spheres: a sphere that a plane cuts is found on both of its sides.
///
/// Fill `particleSystems`, build, then ask from any number of threads. While it is being built,
/// freed or destroyed nobody may ask it.
///
/// The plane of a node is chosen by the surface area heuristic (J. D. MacDonald and K. S. Booth,
/// "Heuristics for ray tracing using space subdivision", The Visual Computer 6, 1990) among four
/// candidates per axis. The smaller parts of cut spheres get tightened boxes (V. Havran, "Heuristic
/// Ray Shooting Algorithms", PhD thesis, 2000, section 4.3.2, "split clipping").
template <class Sphere, int NodeBlock, int LeafBlock> class SDSphereTree : public GeomTreeBase {
  public:
    /// What the tree is made of.
    using Node = SDSphereNode<Sphere>;
    using Stocks = SDSphereStocks<NodeBlock, LeafBlock>;

    /// Throws `ExceptionMsg` when memory runs out.
    SDSphereTree();
    SDSphereTree(SDSphereTree const&) = delete;
    SDSphereTree& operator=(SDSphereTree const&) = delete;
    ~SDSphereTree() override;

    void freeData() override;
    std::uint64_t getMemUsage() const override;

    /// The same as `build(progress, manager)`.
    void build(ProgressCallback* progress, ThreadManager* manager, int, int) override;

    /// Builds the tree from `particleSystems`, in place of what it held.
    ///
    /// Both arguments may be null. Particles with a centre or radius that is not finite, with a
    /// radius below 1e-15 or with no radius at all are left out. With a `manager` and
    /// `multiThreaded` set, the work is done on the manager's threads while this one waits.
    /// Not to be called on one of the manager's workers unless another is free to take the job
    /// (pass null there, or use a pool that lets waiting workers help, as `ThreadPool` does). An
    /// abort leaves a valid tree over part of the particles. How large a tree may grow, says
    /// `GeomTreeBase`. Throws `ExceptionMsg` when memory runs out on any thread, or when there are
    /// more particles, nodes or leaf entries than 2^31 - 1; whatever is thrown, all jobs have ended
    /// by then, and the tree is empty and can be built again.
    virtual void build(ProgressCallback* progress, ThreadManager* manager);

    /// Turns `node`, an empty leaf that covers `box`, into the subtree over the first `count`
    /// records of `data`.
    ///
    /// `depth` counts the splits above that separated spheres, `level` all of them; both from 1.
    /// `scratch` receives records that wait for their turn behind those that it holds; where it is
    /// `data` itself they wait elsewhere. `data` holds nothing of use afterwards. Whatever the
    /// parameters, a subtree ends at level 1024.
    void buildNode(Node* node, Box const& box, SDSphereRecords& data, int count, int depth,
                   ProgressCallback* progress, SDSphereRecords* scratch, int level);
    /// The same, made of a thread's stocks.
    void buildNode(Node* node, Box const& box, SDSphereRecords& data, int count, int depth,
                   ProgressCallback* progress, SDSphereRecords* scratch, int level, Stocks& stocks);

    /// Turns `node` into a leaf with the first `count` (at least 1) records of `data`.
    void storeSpheres(Node* node, SDSphereRecords& data, int count, int depth);

    /// Finds the closest hit of a ray: 0 none, 1 on a sphere, 2 on a point, described in `ray.hit`.
    ///
    /// The tree must have a root and spheres. Writes only `ray` and its hit record.
    int intersectNode(SDSphereRay& ray) const;

    /// `intersectNode` for several rays, each as if it were alone: `codes[i]` becomes what that
    /// returns for `rays[i]`. Faster than one by one, since rays wait for memory at the same time.
    void intersectMany(std::span<SDSphereRay> rays, int* codes) const;

    /// Whether a ray hits anything: whether `intersectNode` would find a hit. Ends at the first
    /// one, which need not be the closest, and tells nothing of it; what is then in `ray` and its
    /// hit record is of no use.
    bool isOccluded(SDSphereRay& ray) const;

    /// `isOccluded` for several rays: `occluded[i]` becomes 1 if `rays[i]` hits anything, else 0.
    void areOccluded(std::span<SDSphereRay> rays, int* occluded) const;

    /// Where in `particleSystems` and where in that system a sphere of this tree is found. As the
    /// sphere says; in trees over one system without a fetch from memory, if that can be.
    std::uint32_t systemOf(Sphere const& sphere) const {
        return particleSystems.count == 1 ? 0 : sphere.system();
    }
    /// As `systemOf`: where in its system.
    std::int32_t particleOf(Sphere const& sphere) const {
        // All particles of the one system were usable, so they stand in its order.
        if (particleSystems.count == 1 && numSpheres == totalParticles)
            return static_cast<std::int32_t>(&sphere - spheres);
        return sphere.particleIndex;
    }
    /// The centre of one of `spheres`, in the host's array.
    Vector const& centerOf(std::uint32_t sphereIndex) const {
        Sphere const& sphere = spheres[sphereIndex];
        return particleSystems.elements[systemOf(sphere)].positions[particleOf(sphere)];
    }
    /// The radius of one of `spheres`.
    float radiusOf(std::uint32_t sphereIndex) const {
        Sphere const& sphere = spheres[sphereIndex];
        return particleSystems.elements[systemOf(sphere)].radii[particleOf(sphere)];
    }
    /// Has what `centerOf` and `radiusOf` read first fetched from memory. Inline at any cost: g++
    /// 12 takes a call of it for one without effect and drops it.
    [[gnu::always_inline]] void prefetchSphere(std::uint32_t sphereIndex) const {
        if (particleSystems.count != 1 || numSpheres != totalParticles) {
            __builtin_prefetch(&spheres[sphereIndex]);
            return;
        }
        __builtin_prefetch(&particleSystems.elements[0].positions[sphereIndex]);
        __builtin_prefetch(&particleSystems.elements[0].radii[sphereIndex]);
    }
    /// As `centerOf`, for the numbers that build records and, until a build ends, leaf entries
    /// hold: places among `orderedSpheres`, if there are such.
    Vector const& centerInBuild(std::uint32_t number) const {
        return orderedSpheres != nullptr ? orderedSpheres[number].center : centerOf(number);
    }
    /// See `centerInBuild`.
    float radiusInBuild(std::uint32_t number) const {
        return orderedSpheres != nullptr ? orderedSpheres[number].radius : radiusOf(number);
    }
    /// See `centerInBuild`.
    [[gnu::always_inline]] void prefetchInBuild(std::uint32_t number) const {
        if (orderedSpheres != nullptr)
            __builtin_prefetch(&orderedSpheres[number]);
        else
            prefetchSphere(number);
    }

    /// Bytes of the packed leaves, which `getMemUsage` does not count.
    std::uint64_t getPackedMemUsage() const { return packedFloats * sizeof(float); }
    /// Bytes of all that the tree holds now: what `getMemUsage` and `getPackedMemUsage` tell, its
    /// table of systems. Not to be asked while another thread builds.
    std::uint64_t getTotalMemUsage() const;
    /// The most that the last build held at a time, the tree included.
    std::uint64_t getPeakMemUsage() const { return static_cast<std::uint64_t>(peakBytes); }

    float leafSizeFactor = 2.0F;     ///< growth of leaves with depth
    float minNodeSize = 0.0F;        ///< nodes with a smaller diagonal become leaves
    std::int32_t maxDepth = 60;      ///< deepest level that is split; counts as 1024 at most
    std::int32_t multiThreaded = 1;  ///< build on the thread manager's threads, if there is one
    Box bbox = Box::empty();         ///< of all spheres, a little widened; set by `build`
    Node* root = nullptr;            ///< from `nodes`
    std::int32_t numSpheres = 0;     ///< usable particles
    std::int32_t totalParticles = 0; ///< particles, usable or not: the length of `spheres`
    Sphere* spheres = nullptr;       ///< owned, unless `spheresAreLent`
    Sequence<Node, NodeBlock> nodes; ///< every node, children in pairs
    Sequence<SDLeafSphere, LeafBlock> leafSpheres; ///< every leaf's run
    // Raised by several threads at once, always through std::atomic_ref.
    std::int32_t statMaxDepth = 0;  ///< largest `depth`, as in `buildNode`
    std::int32_t statNumLeaves = 0; ///< leaves with entries
    std::int32_t statDepthSum = 0;  ///< over all leaves
    FastCriticalSection threadLock; ///< guards the claiming and ending of jobs
    std::int32_t numRunning = 0;    ///< build jobs that have been handed over and have not ended
    std::int32_t numThreads = 0;    ///< length of `threads`
    SDSphereBuildThread* threads = nullptr; ///< owned; exist only during a threaded build
    void* doneEvent = nullptr;              ///< pulsed when `numRunning` drops to 0
    ThreadManager* threadManager = nullptr; ///< the host's; set during a build
    Table<ParticleDataWithPrimitive, 1000> particleSystems; ///< what the next build takes
    std::int32_t singleSystem = 0; ///< 1: one record, with `indexOffset` -1
    /// Inner nodes on the longest path from the root: what a traversal may have to postpone.
    std::int32_t innerLevels = 0;
    std::int32_t wasAborted = 0; ///< 1: the last build was asked to stop and holds but a part
    /// Copy each leaf's spheres into packs, which queries then test many at a time; the hits are
    /// the same without. Read by `build`; a tree that cannot be packed (it holds points,
    /// memory is short, or entries are many times as many as spheres) is asked through its entries.
    std::int32_t packLeaves = 1;
    OrderedSphere const* orderedSpheres = nullptr; ///< exist only during a build; null: in no order
    float* packedLeaves = nullptr;                 ///< owned; null: not packed
    std::uint64_t packedFloats = 0;                ///< length of `packedLeaves`
    /// 1: all particles of the one system are usable and packed, so nobody reads a table of them;
    /// `spheres` are addresses within the packs, told apart and no more.
    std::int32_t spheresAreLent = 0;
    BlockPool nodePool{sizeof(Node) * NodeBlock}; ///< what the nodes of a large tree lie in
    BlockPool entryPool{sizeof(SDLeafSphere) * LeafBlock}; ///< see `nodePool`
    /// Records parted at levels beyond 128, where only trees come that no leaf ends; limits them.
    alignas(8) std::int64_t deepRecords = 0; // atomic on every processor
    std::int64_t buildBytes = 0;             ///< held for the running build alone; 0 outside
    std::int64_t peakBytes = 0;              ///< see `getPeakMemUsage`
    /// What ended a job of the running build first; thrown by the thread that builds. Under the
    /// `threadLock`.
    std::exception_ptr failure;
};

extern template class SDSphereTree<SDSphere, 20000, 20000>;

/// The tree of the primitive for particles that stand still.
class StaticSphereTree : public SDSphereTree<SDSphere, 20000, 20000> {
  public:
    ~StaticSphereTree() override;
};

} // namespace Kelpa
