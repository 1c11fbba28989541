// A tree for each block of a scene, and rays that go from one to the next.
#include "kelpa/foundation/exceptionmsg.h"
#include "kelpa/foundation/usableparticles.h"

#include "pipeline/scene/blockfigures.h"
#include "pipeline/scene/blockstore.h"
#include "pipeline/scene/blocktrees.h"
#include "pipeline/scene/geometry.h"
#include "pipeline/scene/raysinblocks.h"
#include "pipeline/scene/toptree.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <span>
#include <stdexcept>
#include <utility>

namespace pipeline {

namespace {

using Kelpa::Box;
using Kelpa::RayBunchCommonResult;
using Kelpa::RayBunchExtParams;
using Kelpa::RSRay;

/// What one of many builds hears: whether to end, and nothing it says.
class OneOfMany final : public Kelpa::ProgressCallback {
  public:
    OneOfMany(Kelpa::ProgressCallback& all, Kelpa::GoOn const& question)
        : report(all), goOn(question) {}

    // Asked for every record; once in so many questions is often enough.
    std::int32_t getAbort() override {
        if (++asked % 1024 == 0 && (!goOn() || report.getAbort() != 0))
            isStopped = true;
        return isStopped ? 1 : 0;
    }
    void info(int, int, char const*, ...) override {}

  private:
    Kelpa::ProgressCallback& report;
    Kelpa::GoOn const& goOn;
    std::uint32_t asked = 0;
    bool isStopped = false;
};

class BlockGeometry final : public Geometry, public BlockTrees {
  public:
    BlockGeometry(std::vector<System> theBlocks, std::shared_ptr<Rows const> theRows)
        : systems(std::move(theBlocks)), rows(std::move(theRows)) {}

    void build(BuildRun const& run, TreeOptions const& options) override;
    int intersect(RSRay& ray) override;
    bool bunchIntersect(RayBunchExtParams const& rays, RayBunchCommonResult& hits, double* tMins,
                        double* tMaxs, unsigned char const* lanes, unsigned long numLanes) override;
    std::uint64_t bunchOccluded(RayBunchExtParams const& rays, double const* tMins,
                                double const* tMaxs, unsigned char const* lanes,
                                unsigned long numLanes) override;
    std::optional<Bounds> bounds() override;
    std::optional<Bounds> motionBounds() override;
    TreeStatistics statistics() override;
    std::optional<StoreFigures> storeFigures() const override {
        return store != nullptr ? std::optional(store->figures()) : std::nullopt;
    }
    std::vector<std::string> takeNotes() override {
        return store != nullptr ? store->takeNotes() : std::vector<std::string>{};
    }

    BlockTrees* blocks() override { return this; }
    std::size_t blockCount() const override { return systems.size(); }
    TopTree const& topTree() const override { return top; }
    int ownerOf(std::int32_t block) const override {
        System const& system = systemOf(block);
        System const& last = systems.back();
        std::int64_t const first = systems.front().base;
        return share.ownerOf(system.base - first, system.first.numParticles,
                             last.base + last.first.numParticles - first);
    }
    bool isAtHand(std::int32_t block) const override { return store->isHeld(block); }
    std::shared_ptr<Geometry> pin(std::int32_t block) override {
        if (Geometry* const tree = trees[static_cast<std::size_t>(block)])
            return {std::shared_ptr<void>(), tree}; // it stays anyway
        return store->pin(block);
    }
    std::int64_t baseOf(std::int32_t block) const override { return systemOf(block).base; }
    std::int64_t placeIn(std::int32_t block, std::int64_t index) const override {
        System const& system = systemOf(block);
        std::int64_t const inBlock = index - system.base;
        return inBlock >= 0 && inBlock < system.first.numParticles ? inBlock : -1;
    }
    bool isCloser(double t, std::int64_t index, double otherT,
                  std::int64_t otherIndex) const override {
        if (t != otherT)
            return t < otherT;
        std::int64_t const first = systems.front().base;
        return (*rows)[index - first] < (*rows)[otherIndex - first];
    }

  private:
    class BunchOnItsWay;

    void buildAll(BuildRun const& run, TreeOptions const& options);
    System const& systemOf(std::int32_t block) const {
        return systems[static_cast<std::size_t>(block)];
    }
    /// A block's tree, for as long as `pin` is held as well.
    Geometry* treeOf(std::int32_t block, BlockStore::Pin& pin) {
        if (Geometry* const tree = trees[static_cast<std::size_t>(block)])
            return tree;
        pin = nullptr; // the one before may leave
        pin = store->pin(block);
        return pin.get();
    }

    std::vector<System> systems; ///< one of each block
    BlockShare share;
    std::shared_ptr<Rows const> rows;
    std::unique_ptr<BlockStore> store;
    std::vector<Geometry*> trees; ///< those that stay; null for one that comes and goes
    TopTree top;
};

/// What the trees tell of themselves; of none before they are built.
std::vector<BlockFacts> const& factsOf(BlockStore const* store) {
    static std::vector<BlockFacts> const none;
    return store != nullptr ? store->facts() : none;
}

} // namespace

void BlockGeometry::build(BuildRun const& run, TreeOptions const& options) {
    try {
        buildAll(run, options);
    } catch (...) {
        trees.clear();
        store = nullptr;
        top = {};
        throw;
    }
}

void BlockGeometry::buildAll(BuildRun const& run, TreeOptions const& options) {
    top = {};
    trees.assign(systems.size(), nullptr);
    share = options.share;
    store = nullptr;
    store = std::make_unique<BlockStore>(systems, options);
    std::vector<Box> boxes(systems.size());
    std::atomic<std::int64_t> done = 0;
    std::int64_t total = 0;
    for (System const& system : systems)
        total += system.first.numParticles;
    auto const isHere = [this](std::int32_t block) { return ownerOf(block) == share.number; };
    auto const watch = [&] {
        if (run.progress)
            run.progress(static_cast<double>(done) / static_cast<double>(total),
                         static_cast<std::uint64_t>(done));
        return true; // it throws to stop
    };
    Kelpa::doPieces(
        systems.size(), run.threads,
        [&](std::size_t block, Kelpa::GoOn const& goOn) {
            boxes[block] = boxAround(systems[block]);
            OneOfMany report(run.report, goOn);
            if (isHere(static_cast<std::int32_t>(block)))
                store->fill(block, report);
            done += systems[block].first.numParticles;
        },
        watch);
    // What an abort has left without a tree has nothing to be hit.
    for (std::size_t block = 0; block < systems.size(); ++block) {
        auto const number = static_cast<std::int32_t>(block);
        if (!isHere(number))
            continue;
        if (!store->has(number))
            boxes[block] = Box::empty();
        else if (!store->isBounded())
            trees[block] = store->pin(number).get();
    }
    top = TopTree(boxes);
    tellFigures(statistics(), run.report);
}

int BlockGeometry::intersect(RSRay& ray) {
    BoxRay const boxRay(ray.origin[0], ray.origin[1], ray.origin[2], ray.dir, ray.intervalMin);
    double const end = ray.intervalMax;
    int code = 0;
    double best = end;
    for (auto entry = top.next(boxRay, TopTree::Entry::none(), best); entry;
         entry = top.next(boxRay, entry, best)) {
        RSRay asked = ray;
        asked.intervalMax = code != 0 ? searchEnd(best) : end;
        asked.skipIndex = placeIn(entry.block, ray.skipIndex);
        BlockStore::Pin pin;
        int const found = treeOf(entry.block, pin)->intersect(asked);
        if (found == 0)
            continue;
        asked.hitIndex += baseOf(entry.block);
        if (code != 0 && !isCloser(asked.hitT, asked.hitIndex, best, ray.hitIndex))
            continue;
        code = found;
        best = asked.hitT;
        ray.hitPrimitive = asked.hitPrimitive;
        ray.hitT = asked.hitT;
        ray.hitIndex = asked.hitIndex;
        ray.hitNormal = asked.hitNormal;
        ray.hitLocalIndex = static_cast<std::int32_t>(asked.hitIndex);
    }
    return code;
}

/// The rays of a bunch that go from block to block, and are asked in one at a time.
class BlockGeometry::BunchOnItsWay {
  public:
    /// The search of ray k ends at `ends[k]`.
    BunchOnItsWay(BlockGeometry& all, RayBunchExtParams const& bunch, double const* starts,
                  std::span<unsigned char const> listed, double const* ends)
        : geometry(all), rays(bunch), tMins(starts), lanes(listed.data()),
          ways(all.top, bunch, starts, listed, ends) {
        for (unsigned char const lane : listed)
            startsOnParticle |= rays.skipIndex[lane] >= 0;
    }

    /// Goes on to the rays that are to be asked next. False when none is left.
    bool gather() {
        if (!ways.gather())
            return false;
        numAsked = 0;
        for (unsigned char const k : ways.asked()) {
            askedLanes[numAsked] = lanes[k];
            trees[numAsked++] = geometry.trees[static_cast<std::size_t>(ways.blockOf(k))];
        }
        return true;
    }

    /// Asks the gathered rays, whose searches end at `askedEnds`.
    void trace(RayBunchCommonResult& found) {
        if (mayBeAskedApart()) {
            trees[0]->bunchIntersectApart(trees, raysInBlocks(), found, tMins, askedEnds,
                                          askedLanes, numAsked);
            return;
        }
        forEachTree([&](Geometry& tree, unsigned first, unsigned count) {
            tree.bunchIntersect(raysInBlocks(), found, const_cast<double*>(tMins), // not written
                                askedEnds + first, askedLanes + first, count);
        });
    }
    std::uint64_t occluded() {
        if (mayBeAskedApart())
            return trees[0]->bunchOccludedApart(trees, raysInBlocks(), tMins, askedEnds, askedLanes,
                                                numAsked);
        std::uint64_t all = 0;
        forEachTree([&](Geometry& tree, unsigned first, unsigned count) {
            all |= tree.bunchOccluded(raysInBlocks(), tMins, askedEnds + first, askedLanes + first,
                                      count);
        });
        return all;
    }

    BlockGeometry& geometry;
    RayBunchExtParams const& rays;
    double const* tMins;
    unsigned char const* lanes;
    RaysInBlocks ways;
    double askedEnds[64]; ///< of the gathered rays, in their order

  private:
    bool mayBeAskedApart() const { return ways.areApart() && trees[0] != nullptr; }

    /// Calls `ask` for the tree of all gathered rays, or for that of each: one at a time, since
    /// those that come and go are held no longer than they are asked.
    template <class Ask> void forEachTree(Ask const& ask) {
        if (!ways.areApart())
            return ask(*geometry.treeOf(ways.blockOf(ways.asked()[0]), pin), 0U, numAsked);
        for (unsigned i = 0; i < numAsked; ++i)
            ask(*geometry.treeOf(ways.blockOf(ways.asked()[i]), pin), i, 1U);
    }

    /// The rays as their blocks know them: particles have other numbers there.
    RayBunchExtParams const& raysInBlocks() {
        if (!startsOnParticle)
            return rays;
        if (!isCopied)
            named = rays;
        isCopied = true;
        for (unsigned char const k : ways.asked())
            named.skipIndex[lanes[k]] = geometry.placeIn(ways.blockOf(k), rays.skipIndex[lanes[k]]);
        return named;
    }

    unsigned numAsked = 0;
    unsigned char askedLanes[64];
    Geometry* trees[64]; ///< of each ray that is asked; null for trees that come and go
    BlockStore::Pin pin;
    bool startsOnParticle = false;
    bool isCopied = false;
    RayBunchExtParams named;
};

bool BlockGeometry::bunchIntersect(RayBunchExtParams const& rays, RayBunchCommonResult& hits,
                                   double* tMins, double* tMaxs, unsigned char const* lanes,
                                   unsigned long numLanes) {
    double ends[64] = {};
    double best[64];
    bool isHit[64] = {};
    for (unsigned k = 0; k < numLanes; ++k)
        best[k] = ends[k] = std::min(hits.hitT[lanes[k]], tMaxs[k]);
    BunchOnItsWay bunch(*this, rays, tMins, {lanes, numLanes}, ends);
    bool anyHit = false;
    RayBunchCommonResult found;
    while (bunch.gather()) {
        unsigned count = 0;
        for (unsigned char const k : bunch.ways.asked()) {
            double const end = isHit[k] ? searchEnd(best[k]) : ends[k];
            bunch.askedEnds[count++] = end;
            found.hit[lanes[k]] = 0;
            found.hitT[lanes[k]] = end;
        }
        bunch.trace(found);
        for (unsigned char const k : bunch.ways.asked()) {
            unsigned char const lane = lanes[k];
            if (found.hit[lane] != 0) {
                std::int64_t const index = found.hitIndex[lane] + baseOf(bunch.ways.blockOf(k));
                double const t = found.hitT[lane];
                if (!isHit[k] || isCloser(t, index, best[k], hits.hitIndex[lane])) {
                    isHit[k] = anyHit = true;
                    best[k] = t;
                    hits.hit[lane] = found.hit[lane];
                    hits.hitT[lane] = t;
                    hits.hitPrimitive[lane] = found.hitPrimitive[lane];
                    hits.hitIndex[lane] = index;
                    hits.hitNormalX[lane] = found.hitNormalX[lane];
                    hits.hitNormalY[lane] = found.hitNormalY[lane];
                    hits.hitNormalZ[lane] = found.hitNormalZ[lane];
                    hits.hitLocalIndex[lane] = static_cast<std::int32_t>(index);
                }
            }
            bunch.ways.advance(k, best[k]);
        }
    }
    if (anyHit)
        hits.noHits = false;
    return anyHit;
}

std::uint64_t BlockGeometry::bunchOccluded(RayBunchExtParams const& rays, double const* tMins,
                                           double const* tMaxs, unsigned char const* lanes,
                                           unsigned long numLanes) {
    BunchOnItsWay bunch(*this, rays, tMins, {lanes, numLanes}, tMaxs);
    std::uint64_t occluded = 0;
    while (bunch.gather()) {
        unsigned count = 0;
        for (unsigned char const k : bunch.ways.asked())
            bunch.askedEnds[count++] = tMaxs[k];
        std::uint64_t const found = bunch.occluded();
        occluded |= found;
        for (unsigned char const k : bunch.ways.asked()) {
            if ((found >> lanes[k] & 1U) != 0)
                bunch.ways.finish(k);
            else
                bunch.ways.advance(k, tMaxs[k]);
        }
    }
    return occluded;
}

std::optional<Bounds> BlockGeometry::bounds() {
    return boundsAround(factsOf(store.get()), &BlockFacts::bounds);
}

std::optional<Bounds> BlockGeometry::motionBounds() {
    return boundsAround(factsOf(store.get()), &BlockFacts::motionBounds);
}

TreeStatistics BlockGeometry::statistics() {
    TreeStatistics all = figuresOf(factsOf(store.get()));
    if (store == nullptr)
        return all;
    all.peakBytes = store->peakBytes();
    if (store->isKeeping())
        all.store = store->figures();
    return all;
}

std::unique_ptr<Geometry> makeBlockGeometry(std::vector<System> blocks,
                                            std::shared_ptr<Rows const> rows) {
    return std::make_unique<BlockGeometry>(std::move(blocks), std::move(rows));
}

} // namespace pipeline
