// The blocks of rays that go the same way.
#pragma once

#include "pipeline/scene/toptree.h"

#include <cstdint>

namespace pipeline {

/// A list of up to 64 rays on its way through a top tree: each block comes once, for all rays that
/// enter it, nearer blocks before others.
///
/// Where rays go the same way that asks each block's tree once, and of many rays at a time. Which
/// hit is the closest does not depend on the order.
class ListInBlocks {
  public:
    static constexpr unsigned most = BoxRays::most;

    /// Ray k of `listed`, which has directions where inverses will be and stays where it is, ends
    /// at `ends[k]`, and is one of the list if `present` has its bit.
    ListInBlocks(TopTree const& tree, BoxRays& listed, std::uint64_t present, float const* ends);

    /// Whether at least half of the rays begin in one part of the scene.
    bool areTogether() const { return together; }

    struct Step {
        std::int32_t block;
        std::uint64_t rays; ///< bit k: ray k
    };
    /// The next block that rays enter at their `ends` or before. Returns false behind the last.
    bool next(float const* ends, Step& step);

  private:
    static constexpr unsigned children = BoxGroup::most;
    /// A part of the tree that waits, and the rays that enter it.
    struct Part {
        std::int32_t level; ///< of the group's boxes
        std::int32_t group;
        std::uint64_t rays;
    };

    std::uint64_t beginningIn(unsigned first, unsigned count) const;
    unsigned expand(Part part, float const* ends);

    TopTree const& top;
    BoxRays const& rays;
    BoxKernels const& kernels = boxKernels().back();
    BoxRay least; ///< between its values and those of `greatest` all rays' lie
    BoxRay greatest;
    bool together = false;
    Part waiting[children * TopTree::mostLevels];
    unsigned numWaiting = 0;
    // Of the blocks of one group of the lowest level, nearest last.
    std::int32_t firstBlock = 0;
    unsigned numBlocks = 0;
    unsigned char order[children];
    std::uint64_t entered[children];
    float enters[children][most]; ///< of the rays that enter
};

} // namespace pipeline
