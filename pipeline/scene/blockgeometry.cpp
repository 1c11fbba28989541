// A tree for each block of a scene, and single rays that go from one to the next.
#include "pipeline/scene/blockgeometry.h"

#include "kelpa/foundation/exceptionmsg.h"
#include "kelpa/foundation/usableparticles.h"

#include "pipeline/scene/blockfigures.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <stdexcept>
#include <utility>

namespace pipeline {

namespace {

using Kelpa::Box;
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
    boxes.assign(systems.size(), Box::empty());
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
            if (isHere(static_cast<std::int32_t>(block))) {
                boxes[block] = boxAround(systems[block]);
                OneOfMany report(run.report, goOn);
                store->fill(block, report);
            }
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

void BlockGeometry::shareBounds(RayTransport& ranks) {
    // Ranks have runs of blocks, in their order.
    std::vector<Box> mine;
    for (std::size_t block = 0; block < systems.size(); ++block)
        if (ownerOf(static_cast<std::int32_t>(block)) == share.number)
            mine.push_back(boxes[block]);
    boxes = ranks.joined(mine);
    top = TopTree(boxes);
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
