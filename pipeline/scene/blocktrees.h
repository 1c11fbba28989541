// The blocks of a scene, for those who bring rays to them.
#pragma once

#include "pipeline/scene/geometry.h"
#include "pipeline/scene/raytransport.h"
#include "pipeline/scene/toptree.h"

#include <cmath>
#include <cstdint>
#include <memory>

namespace pipeline {

/// Blocks with their trees, of which some may be elsewhere.
class BlockTrees {
  public:
    virtual ~BlockTrees() = default;

    virtual std::size_t blockCount() const = 0;
    /// Over the bounds of all blocks.
    virtual TopTree const& topTree() const = 0;
    /// Which of those who share the blocks has the tree of a block.
    virtual int ownerOf(std::int32_t block) const = 0;
    /// A block's tree, in memory for at least as long as the pointer is held. It calls particles by
    /// their places in the block. From any number of threads; only for blocks of one's own.
    virtual std::shared_ptr<Geometry> pin(std::int32_t block) = 0;

    /// Whether `pin` would find the tree in memory now: what to ask first, as the order is free.
    virtual bool isAtHand(std::int32_t) const { return true; }

    /// The reported index of a block's first particle.
    virtual std::int64_t baseOf(std::int32_t block) const = 0;
    /// A particle's place in the block; -1 for one that is in another block or none.
    virtual std::int64_t placeIn(std::int32_t block, std::int64_t index) const = 0;

    /// Learns the bounds of the blocks that others have; all of them call it together.
    virtual void shareBounds(RayTransport&) {}
};

/// Where a ray that has a hit ends its search in a further block: a little behind that, so that
/// another particle at the same distance is found, whatever is rounded on the way.
inline double searchEnd(double best) {
    return best + std::abs(best) * 1e-5 + 1e-30;
}

} // namespace pipeline
