// What rays ask: a tree over one particle system or over many.
#pragma once

#include "kelpa/foundation/bytestreams.h"
#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/usableparticles.h"

#include "pipeline/files/progress.h"
#include "pipeline/scene/bounds.h"
#include "pipeline/scene/parting.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace pipeline {

/// One particle system as trees take it. Whoever owns its arrays, a `ParticleSystem` or Python,
/// keeps them where and as they are for as long as a geometry asks about them.
struct System {
    Kelpa::ParticleData first;
    std::optional<Kelpa::ParticleData> second; ///< of moving particles
    std::int64_t base = 0;                     ///< reported index of particle 0, at least 0
};

/// Whether a tree takes the particle.
inline bool isUsable(System const& system, std::int32_t index) {
    return system.second ? isUsable(system.first, *system.second, index)
                         : isUsable(system.first, index);
}

/// A box around a system's usable particles at all times, with room for rounding.
Kelpa::Box boxAround(System const& system);

/// Where the trees of blocks are kept.
struct KeepOptions {
    std::optional<std::uint64_t> memory; ///< bytes that they may take; unset: any number
    std::string cache;                   ///< folder of files that stay; empty: none
};

/// Some of a scene's blocks, of which several processes have a run each, by the particles in them.
struct BlockShare {
    int number = 0;
    int of = 1;

    /// Which of the processes has a block of `count` particles, `first` in number and the next.
    int ownerOf(std::int64_t first, std::int64_t count, std::int64_t total) const {
        // In floating point, as there is no bound on the product; all processes round alike.
        if (of == 1)
            return 0;
        double const middle = static_cast<double>(first) + 0.5 * static_cast<double>(count);
        return static_cast<int>(middle / static_cast<double>(total) * of);
    }
};

/// How a tree is built; what is unset is left to the tree.
struct TreeOptions {
    std::optional<int> maxDepth;
    std::optional<float> leafSizeFactor;
    float minNodeSize = 0.0F;
    bool isPacked = true;         ///< keep the copies that queries test many at a time
    bool hasMovingBounds = false; ///< report how the bounds of moving particles move
    /// The most particles that one tree holds; scenes of more have several, see `Parting`.
    std::int64_t block = defaultBlock;
    KeepOptions keep{};
    BlockShare share{};    ///< the blocks that are built; of the others the bounds alone are known
    bool keepsAll = false; ///< also the particles of the others, for pictures that look more up

    static constexpr std::int64_t defaultBlock = 1 << 20;
};

/// How a build is done.
struct BuildRun {
    Kelpa::ProgressCallback& report; ///< hears what the build says, and ends it
    int threads = 1;                 ///< 0: one for each processor
    PhaseProgress progress{};        ///< asked on the calling thread, of builds of many trees
};

/// What became of the trees of blocks so far.
struct StoreFigures {
    std::int64_t blocks = 0;
    std::int64_t held = 0;          ///< in memory now
    std::uint64_t heldBytes = 0;    ///< of these
    std::int64_t built = 0;         ///< among them those built anew
    std::int64_t found = 0;         ///< in a cache, whole as far as was seen
    std::int64_t written = 0;       ///< files
    std::uint64_t writtenBytes = 0; ///< of these
    std::int64_t loaded = 0;        ///< times a file was read
    std::uint64_t loadedBytes = 0;  ///< of these
};

/// Figures of a tree that is built.
struct TreeStatistics {
    bool isMoving = false;
    std::int64_t trees = 1;     ///< one for each block
    std::int64_t systems = 0;   ///< that hold particles
    std::int64_t particles = 0; ///< in all systems
    std::int64_t used = 0;      ///< of these, taken by the tree
    std::int64_t nodes = 0;
    std::int64_t leafEntries = 0;
    std::int64_t maxDepth = 0;
    std::uint64_t treeBytes = 0;   ///< of nodes, leaves and spheres
    std::uint64_t packedBytes = 0; ///< of packed leaves
    std::uint64_t totalBytes = 0;  ///< of all that the tree holds
    std::uint64_t peakBytes = 0;   ///< the most that it and its build held at a time

    /// Of the tree with its packed leaves.
    double bytesPerSphere() const {
        return static_cast<double>(treeBytes + packedBytes) / static_cast<double>(used);
    }

    /// Of still particles alone, as moving ones have none of these counted.
    struct Leaves {
        std::int64_t count = 0;
        double averageDepth = 0.0;
        double averageEntries = 0.0;
        Bounds box{}; ///< in which the tree lies
    };
    std::optional<Leaves> leaves;
    std::optional<StoreFigures> store; ///< of trees in a store that is bounded or has a cache
};

/// What lists of rays can be asked of; see `Bunch`.
class RayTarget {
  public:
    RayTarget() = default;
    RayTarget(RayTarget const&) = delete;
    RayTarget& operator=(RayTarget const&) = delete;
    virtual ~RayTarget() = default;

    /// Finds the closest hits of up to 64 rays, each in a lane of its own. What is hit is told by
    /// `hitIndex`.
    virtual bool bunchIntersect(Kelpa::RayBunchExtParams const& rays,
                                Kelpa::RayBunchCommonResult& hits, double* tMins, double* tMaxs,
                                unsigned char const* lanes, unsigned long numLanes) = 0;
    /// Whether rays hit anything at all: bit i of the answer tells about lane i.
    virtual std::uint64_t bunchOccluded(Kelpa::RayBunchExtParams const& rays, double const* tMins,
                                        double const* tMaxs, unsigned char const* lanes,
                                        unsigned long numLanes) = 0;
};

class BlockTrees;

/// The still or the moving primitive over particle systems, whichever they need.
///
/// Built once; then everything else may be asked from any number of threads. Hits name particles
/// by their system's base index and their place in it.
class Geometry : public RayTarget {
  public:
    /// Each tree is built by one thread, so that it is the same however many there are. Throws
    /// `Kelpa::ExceptionMsg` when memory runs out, and what `run.progress` throws; there are no
    /// trees then.
    virtual void build(BuildRun const& run, TreeOptions const& options) = 0;

    /// Finds the closest hit of a ray.
    virtual int intersect(Kelpa::RSRay& ray) = 0;

    /// `bunchIntersect` for lanes each of which is asked of a geometry of its own, `asked[i]` for
    /// `lanes[i]`: of trees like this one, made by `makeGeometry`.
    virtual void bunchIntersectApart(Geometry* const* asked, Kelpa::RayBunchExtParams const& rays,
                                     Kelpa::RayBunchCommonResult& hits, double const* tMins,
                                     double const* tMaxs, unsigned char const* lanes,
                                     unsigned long numLanes);
    /// `bunchOccluded`, likewise.
    virtual std::uint64_t bunchOccludedApart(Geometry* const* asked,
                                             Kelpa::RayBunchExtParams const& rays,
                                             double const* tMins, double const* tMaxs,
                                             unsigned char const* lanes, unsigned long numLanes);

    /// The primitive's bounds; nothing when no particle is usable.
    virtual std::optional<Bounds> bounds() = 0;
    /// How far the bounds move, when the tree was built to report that.
    virtual std::optional<Bounds> motionBounds() = 0;
    virtual TreeStatistics statistics() = 0;
    /// What became of the trees of blocks so far, where there are several: at any time, from any
    /// thread, once the build has begun.
    virtual std::optional<StoreFigures> storeFigures() const { return std::nullopt; }
    /// What the user should know of files since this was last asked; from one thread.
    virtual std::vector<std::string> takeNotes() { return {}; }

    /// The blocks that it has a tree for each of; null when it has one tree for all.
    virtual BlockTrees* blocks() { return nullptr; }
};

/// A geometry of one tree, which can be kept as bytes.
class TreeGeometry : public Geometry {
  public:
    /// See `Kelpa::makeCompact`.
    virtual void makeCompact() = 0;
    /// See `Kelpa::writtenBytes`.
    virtual std::uint64_t writtenBytes() = 0;
    /// See `Kelpa::writeTree`.
    virtual void write(Kelpa::ByteSink const& sink) = 0;
    /// Makes the tree of what another wrote that was built of the same with these options; see
    /// `Kelpa::readTree`.
    virtual bool read(Kelpa::ByteSource const& source, std::uint64_t size,
                      TreeOptions const& options) = 0;
    /// Whether the build came to its end.
    virtual bool isWhole() const = 0;
};

/// A geometry over `systems`, whose ranges of reported indices are disjoint. Moving when the first
/// one has a second snapshot; then all of them have. Throws `std::invalid_argument` otherwise.
std::unique_ptr<TreeGeometry> makeGeometry(std::vector<System> systems);

/// A geometry of a tree for each of `blocks`, which begin with the index where the one before ends.
///
/// The closest hit is the least by its ray parameter; of equal ones that with the least number of
/// `rows`, which tells it for reported indices, less that of the first.
std::unique_ptr<Geometry> makeBlockGeometry(std::vector<System> blocks,
                                            std::shared_ptr<Rows const> rows);

} // namespace pipeline
