// Adds up the figures of many trees.
#include "pipeline/scene/blockfigures.h"

#include <algorithm>

namespace pipeline {

std::optional<Bounds> boundsAround(std::vector<BlockFacts> const& blocks,
                                   std::optional<Bounds> BlockFacts::*told) {
    std::optional<Bounds> all;
    for (BlockFacts const& block : blocks) {
        std::optional<Bounds> const& one = block.*told;
        if (one && all)
            all->add(*one);
        else if (one)
            all = one;
    }
    return all;
}

TreeStatistics figuresOf(std::vector<BlockFacts> const& blocks) {
    TreeStatistics all;
    all.trees = static_cast<std::int64_t>(blocks.size());
    all.systems = 1;
    double depths = 0.0;
    double entries = 0.0;
    TreeStatistics::Leaves leaves;
    bool hasLeaves = false;
    for (BlockFacts const& block : blocks) {
        if (!block.hasTree)
            continue;
        TreeStatistics const& one = block.statistics;
        all.isMoving = one.isMoving;
        all.particles += one.particles;
        all.used += one.used;
        all.nodes += one.nodes;
        all.leafEntries += one.leafEntries;
        all.maxDepth = std::max(all.maxDepth, one.maxDepth);
        all.treeBytes += one.treeBytes;
        all.packedBytes += one.packedBytes;
        all.totalBytes += one.totalBytes;
        if (!one.leaves || one.used == 0)
            continue;
        auto const count = static_cast<double>(one.leaves->count);
        depths += count * one.leaves->averageDepth;
        entries += count * one.leaves->averageEntries;
        leaves.count += one.leaves->count;
        if (hasLeaves)
            leaves.box.add(one.leaves->box);
        else
            leaves.box = one.leaves->box;
        hasLeaves = true;
    }
    if (hasLeaves) {
        leaves.averageDepth = depths / static_cast<double>(leaves.count);
        leaves.averageEntries = entries / static_cast<double>(leaves.count);
        all.leaves = leaves;
    }
    return all;
}

void tellFigures(TreeStatistics const& figures, Kelpa::ProgressCallback& report) {
    auto const tell = [&report](char const* what, auto number) {
        report.info(0, Kelpa::statisticsLevel, "  %s: %lld", what, static_cast<long long>(number));
    };
    report.info(0, Kelpa::statisticsLevel, "Statistics of all blocks:\n");
    tell("Megabytes", figures.totalBytes >> 20U);
    tell("Number of trees", figures.trees);
    tell("Total number of spheres stored", figures.used);
    tell("Max tree depth", figures.maxDepth);
    tell("Number of tree nodes", figures.nodes);
    tell("Number of leaf spheres", figures.leafEntries);
    if (!figures.store)
        return;
    tell("Trees in memory", figures.store->held);
    tell("Megabytes of these", figures.store->heldBytes >> 20U);
    tell("Trees found in the cache", figures.store->found);
    tell("Trees written", figures.store->written);
    tell("Megabytes written", figures.store->writtenBytes >> 20U);
    tell("Trees read", figures.store->loaded);
    tell("Megabytes read", figures.store->loadedBytes >> 20U);
}

} // namespace pipeline
