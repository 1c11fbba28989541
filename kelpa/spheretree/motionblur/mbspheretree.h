// The tree over particles that move.
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
#include "kelpa/spheretree/motionblur/mbrecords.h"
#include "kelpa/spheretree/motionblur/timebox.h"

#include <cstdint>
#include <exception>
#include <span>
#include <thread>

namespace Kelpa {

template <class Sphere, int NodeBlock, int LeafBlock> class MBSphereTree;

/// What a build moves about.
using MBSphereRecords = SequenceST<MBSphereData, 20000>;

/// Nodes and leaf entries for one thread that builds.
template <int NodeBlock, int LeafBlock> struct MBSphereStocks {
    Stock<Sequence<MBSphereNode, NodeBlock>> nodes;
    Stock<Sequence<MBLeafSphere, LeafBlock>> entries;
};

/// A worker's share of a build: one subtree at a time. Aligned so that no two write to one line of
/// memory, nor to two that processors fetch together.
class alignas(128) MBSphereBuildThread final : public UnwaitingProcedure {
  public:
    /// Builds the subtree that the members below describe. A failure is kept in the tree's
    /// `failure`.
    void proc(void* parameter) override;

    /// Counts the job as running and hands it to the thread manager; a manager that refuses it (by
    /// an exception) has it done here and now.
    void start();

    MBSphereTree<MBSphere, 20000, 20000>* tree = nullptr; ///< null outside a build
    std::int32_t busy = 0; ///< 1 while claimed by a job; under the tree's `threadLock`
    ProgressCallback* progress = nullptr; ///< where the build reports to; may be null
    MBSphereRecords data;                 ///< records of the subtree; its own scratch too
    TimeBox box;                          ///< what the subtree covers
    MBSphereNode* node = nullptr;         ///< the subtree's root
    std::int32_t depth = 0;               ///< of `node`, as in `buildNode`
    std::int32_t level = 0;               ///< of `node`, as in `buildNode`
    std::thread::id endedOn; ///< where the last job ended; under the tree's `threadLock`
    MBSphereStocks<20000, 20000> stocks; ///< what the subtrees are made of
};

/// A tree over moving spheres that splits space and time. Every node moves with the mean velocity
/// of its spheres and sees them in its own frame, where their bounds are tight.
///
/// Fill `particleSystems`, build, then ask from any number of threads. While it is being built,
/// freed or destroyed nobody may ask it.
///
/// The tree covers the times from 0 to 1: sample times are meant to be fractions of the shutter,
/// the earlier one first. Other times cost memory and may lose hits outside [0, 1]. A system whose
/// two times are the same stands still, where its first snapshot is, and is hit at that time only.
///
/// The plane of a node is chosen among four candidates per axis, time included, by the surface area
/// heuristic weighted with duration (compare A. Glassner, "Spacetime Ray Tracing for Animation",
/// IEEE CG&A 8(2), 1988, for the four-dimensional view).
template <class Sphere, int NodeBlock, int LeafBlock> class MBSphereTree : public GeomTreeBase {
  public:
    /// What the tree is made of.
    using Node = MBSphereNode;
    using Stocks = MBSphereStocks<NodeBlock, LeafBlock>;

    /// Throws `ExceptionMsg` when memory runs out.
    MBSphereTree();
    MBSphereTree(MBSphereTree const&) = delete;
    MBSphereTree& operator=(MBSphereTree const&) = delete;
    ~MBSphereTree() override;

    void freeData() override;
    std::uint64_t getMemUsage() const override;

    /// The same as `build(progress, manager, 1)`.
    void build(ProgressCallback* progress, ThreadManager* manager, int, int) override;

    /// Builds the tree from `particleSystems`, in place of what it held.
    ///
    /// `progress` may be null. All work is done on the manager's threads while this one waits;
    /// without a manager it is done here. With `staticBounds` the
    /// bounds hold for all times and do not move.
    /// Particles are left out when a centre or radius of either snapshot is not finite, a radius
    /// below 1e-15, the second snapshot has no such particle, or what happens between the two is
    /// beyond single precision.
    /// Not to be called on one of the manager's workers unless another is free to take the job
    /// (pass null there, or use a pool that lets waiting workers help, as `ThreadPool` does). An
    /// abort leaves a valid tree over part of the particles. How large a tree may grow, says
    /// `GeomTreeBase`. Throws `ExceptionMsg` when memory runs out on any thread, when there are
    /// more particles, nodes or leaf entries than 2^31 - 1, or when a leaf would need more than
    /// 2^23 - 1 entries (of that many spheres in one place before the work begins); whatever is
    /// thrown, all jobs have ended by then, and the tree is empty and can be built again.
    void build(ProgressCallback* progress, ThreadManager* manager, int staticBounds);

    /// Turns `node`, an empty leaf that covers `box`, into the subtree over the first `count`
    /// records of `data`.
    ///
    /// `depth` counts the splits above that separated spheres, `level` all of them; both from 1.
    /// `scratch` receives records that wait for their turn behind those that it holds; where it is
    /// `data` itself they wait elsewhere. `data` holds nothing of use afterwards. Whatever the
    /// parameters, a subtree ends at level 1024.
    void buildNode(Node* node, TimeBox const& box, MBSphereRecords& data, int count, int depth,
                   ProgressCallback* progress, MBSphereRecords* scratch, int level);
    /// The same, made of a thread's stocks.
    void buildNode(Node* node, TimeBox const& box, MBSphereRecords& data, int count, int depth,
                   ProgressCallback* progress, MBSphereRecords* scratch, int level, Stocks& stocks);

    /// Turns `node`, whose velocity is set, into a leaf with the first `count` records of `data`.
    void storeSpheres(Node* node, MBSphereRecords& data, int count);

    /// Finds the closest hit of a ray at its time: 0 none, 1 on a sphere, 2 on a point, described
    /// in `ray.hitRecord`.
    ///
    /// The tree must have a root, and `rayTime` lie between `shutterMin` and `shutterMax`. Writes
    /// only `ray` and its hit record. The search ends at the record's `hitT` from the second leaf
    /// on only: with a later `tMax` the first may find a hit beyond it.
    int intersectNode(MBSphereRay& ray) const;

    /// `intersectNode` for several rays, each as if it were alone: `codes[i]` becomes what that
    /// returns for `rays[i]`. Faster than one by one, since rays wait for memory at the same time.
    void intersectMany(std::span<MBSphereRay> rays, int* codes) const;

    /// Whether a ray hits anything: whether `intersectNode` would find a hit. Ends at the first
    /// one, which need not be the closest, and tells nothing of it; what is then in `ray` and its
    /// hit record is of no use.
    bool isOccluded(MBSphereRay& ray) const;

    /// `isOccluded` for several rays: `occluded[i]` becomes 1 if `rays[i]` hits anything, else 0.
    void areOccluded(std::span<MBSphereRay> rays, int* occluded) const;

    /// Where in `particleSystems` and where in that system a sphere of this tree is found. As the
    /// sphere says; in trees over one system without a fetch from memory, if that can be.
    std::uint32_t systemOf(Sphere const& sphere) const {
        return particleSystems.count == 1 ? 0 : sphere.system();
    }
    /// As `systemOf`: where in its system.
    std::uint32_t particleOf(Sphere const& sphere) const {
        // All particles of the one system were usable, so they stand in its order.
        if (particleSystems.count == 1 && numSpheres == numParticles)
            return static_cast<std::uint32_t>(&sphere - spheres);
        return sphere.particleIndex;
    }

    /// Bytes of the packed spheres and the nodes beside them, which `getMemUsage` does not count.
    std::uint64_t getPackedMemUsage() const { return packedFloats * sizeof(float) + walkNodeBytes; }
    /// Bytes of all that the tree holds now: what `getMemUsage` and `getPackedMemUsage` tell, its
    /// table of systems. Not to be asked while another thread builds.
    std::uint64_t getTotalMemUsage() const;
    /// The most that the last build held at a time, the tree included.
    std::uint64_t getPeakMemUsage() const { return static_cast<std::uint64_t>(peakBytes); }

    std::int32_t maxDepth = 80;     ///< deepest level that is split; counts as 1024 at most
    float leafSizeFactor = 1.0F;    ///< growth of leaves with depth
    float minNodeSize = 0.0F;       ///< nodes with a smaller diagonal become leaves
    std::int32_t multiThreaded = 1; ///< build with as many threads as there are processors
    TimeBox rootBox =
        TimeBox::empty({0.0F, 0.0F, 0.0F}); ///< all spheres in the world's frame, a little widened
    float boundsTimeMin = 0.0F;             ///< the moving bounds, as in `MovingBox`
    float boundsTimeMax = 0.0F;             ///< see `boundsTimeMin`
    Box boundsBox = Box::empty();           ///< see `boundsTimeMin`
    Box boundsMotion = Box::empty();        ///< see `boundsTimeMin`
    std::int32_t numSpheres = 0;            ///< usable particles
    std::int32_t numParticles = 0;          ///< particles, usable or not: the length of `spheres`
    Sphere* spheres = nullptr;              ///< owned, unless `spheresAreLent`
    Sequence<Node, NodeBlock> nodes;        ///< every node, children in pairs
    Sequence<MBLeafSphere, LeafBlock> leafSpheres; ///< every leaf's run
    Node* root = nullptr;                          ///< from `nodes`; null when there are no spheres
    std::int32_t statMaxDepth = 0;  ///< deepest level; raised by several threads, atomically
    FastCriticalSection threadLock; ///< guards the claiming and ending of jobs
    std::int32_t numRunning = 0;    ///< build jobs that have been handed over and have not ended
    std::int32_t numThreads = 0;    ///< length of `threads`
    MBSphereBuildThread* threads = nullptr; ///< owned; exist only during a build
    void* doneEvent = nullptr;              ///< pulsed when `numRunning` drops to 0
    ThreadManager* threadManager = nullptr; ///< the host's; set during a build
    Table<MovingParticleDataWithPrimitive, 1000> particleSystems; ///< what the next build takes
    float shutterMin = 0.0F;       ///< earliest `time0` and latest `time1` of all systems
    float shutterMax = 0.0F;       ///< see `shutterMin`
    std::int32_t singleSystem = 0; ///< 1: one record, with `indexOffset` -1
    std::int32_t wasAborted = 0;   ///< 1: the last build was asked to stop and holds but a part
    /// Copy each sphere's two states into one place, which queries then test many at a time; the
    /// hits are the same without. Read by `build`; a tree that cannot be packed (it holds points or
    /// systems of different times, or memory is short) is asked through the systems' arrays.
    std::int32_t packSpheres = 1;
    float* packedSpheres = nullptr; ///< owned; per sphere x, y, z, radius at time0 and at time1
    std::uint64_t packedFloats = 0; ///< length of `packedSpheres`
    /// Owned: the nodes once more, as queries read them, from the root on; null unless spheres are
    /// packed.
    MBWalkNode* walkNodes = nullptr;
    std::uint64_t walkNodeBytes = 0; ///< size of `walkNodes`
    /// Spheres whose snapshots cover no part of the shutter, or run backwards. With one of them the
    /// tree is split no further beyond 32 leaf entries and 4 nodes a sphere (and 2^23 and 2^20).
    std::int32_t numOutsideShutter = 0;
    /// 1: all particles of the one system are usable and packed, so nobody reads a table of them;
    /// `spheres` are addresses within the packs, told apart and no more.
    std::int32_t spheresAreLent = 0;
    BlockPool nodePool{sizeof(Node) * NodeBlock}; ///< what the nodes of a large tree lie in
    BlockPool entryPool{sizeof(MBLeafSphere) * LeafBlock}; ///< see `nodePool`
    /// Records parted at levels beyond 128, where only trees come that no leaf ends; limits them.
    alignas(8) std::int64_t deepRecords = 0; // atomic on every processor
    std::int64_t buildBytes = 0;             ///< held for the running build alone; 0 outside
    std::int64_t peakBytes = 0;              ///< see `getPeakMemUsage`
    /// What ended a job of the running build first; thrown by the thread that builds. Under the
    /// `threadLock`.
    std::exception_ptr failure;
};

extern template class MBSphereTree<MBSphere, 20000, 20000>;

/// The tree of the primitive for moving particles.
class MovingSphereTree : public MBSphereTree<MBSphere, 20000, 20000> {
  public:
    ~MovingSphereTree() override;
};

} // namespace Kelpa
