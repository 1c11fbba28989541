// Internal: a tree for each block of a scene, as a geometry.
#pragma once

#include "pipeline/scene/blockstore.h"
#include "pipeline/scene/blocktrees.h"
#include "pipeline/scene/geometry.h"
#include "pipeline/scene/toptree.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace pipeline {

/// A geometry of blocks. Rays go from one block to the next, nearest first.
class BlockGeometry final : public Geometry, public BlockTrees {
  public:
    BlockGeometry(std::vector<System> theBlocks, std::shared_ptr<Rows const> theRows)
        : systems(std::move(theBlocks)), rows(std::move(theRows)) {}

    void build(BuildRun const& run, TreeOptions const& options) override;
    int intersect(Kelpa::RSRay& ray) override;
    bool bunchIntersect(Kelpa::RayBunchExtParams const& rays, Kelpa::RayBunchCommonResult& hits,
                        double* tMins, double* tMaxs, unsigned char const* lanes,
                        unsigned long numLanes) override;
    std::uint64_t bunchOccluded(Kelpa::RayBunchExtParams const& rays, double const* tMins,
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
    void shareBounds(RayTransport& ranks) override;
    /// Whether of two hits the first counts: the nearer one, or, at the very same distance, that on
    /// the particle with the lower row.
    bool isCloser(double t, std::int64_t index, double otherT, std::int64_t otherIndex) const {
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
    std::vector<Kelpa::Box> boxes; ///< of each block
    std::vector<Geometry*> trees;  ///< those that stay; null for one that comes and goes
    TopTree top;
};

} // namespace pipeline
