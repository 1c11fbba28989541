// The blocks that the rays of a list are asked of next.
#pragma once

#include "kelpa/foundation/hosttypes.h"

#include "pipeline/scene/listinblocks.h"
#include "pipeline/scene/toptree.h"

#include <cstdint>
#include <limits>
#include <optional>
#include <span>

namespace pipeline {

/// Where each of up to 64 rays is on its way from block to block, and which of them are to be asked
/// together.
///
/// Rays that go the same way stay together, see `ListInBlocks`; others go each its own way. Of
/// those nothing is kept of what comes later: most end in their first block or the one after it.
class RaysInBlocks {
  public:
    static constexpr unsigned most = BoxRays::most;

    /// The rays of `lanes`; that of lane `lanes[k]` is called k, begins at `tMins[lanes[k]]` and
    /// ends at `ends[k]`.
    RaysInBlocks(TopTree const& tree, Kelpa::RayBunchExtParams const& bunch, double const* tMins,
                 std::span<unsigned char const> lanes, double const* ends);

    /// Gathers the rays that are to be asked next: those of a list that goes together that enter
    /// its next block; of another one those in the block that the first of all enters, or, where
    /// they are few beside the others, all, each in its own block. False when none is left.
    bool gather();

    /// The gathered rays.
    std::span<unsigned char const> asked() const { return {gathered, numGathered}; }
    /// The same, a bit for each.
    std::uint64_t askedBits() const { return gatheredBits; }
    /// Whether each of them is to be asked in a block of its own.
    bool areApart() const { return apart; }
    /// The block that ray k, which is gathered, is to be asked of.
    std::int32_t blockOf(unsigned k) const { return list ? step.block : current[k].block; }

    /// Ray k, which has been asked, goes on with what it enters at `end` or before.
    void advance(unsigned k, double end) {
        searchEnds[k] = narrow(end);
        if (!list)
            current[k] = top.next(rayOf(k), current[k], end);
    }
    /// Ray k has found what it looked for.
    void finish(unsigned k) {
        searchEnds[k] = -std::numeric_limits<float>::infinity();
        current[k].block = -1;
    }

  private:
    /// An end that is no nearer than what `next` makes of it.
    static float narrow(double end) {
        constexpr auto largest = static_cast<double>(std::numeric_limits<float>::max());
        return static_cast<float>(end < largest ? end : largest); // without a branch
    }
    BoxRay rayOf(unsigned k) const;
    std::int32_t firstBlock() const;
    bool chooseOwnWays();

    TopTree const& top;
    unsigned count;
    unsigned numGathered = 0;
    std::uint64_t gatheredBits = 0;
    bool apart = false;
    unsigned char gathered[most];
    float searchEnds[most];
    BoxRays rays;
    std::optional<ListInBlocks> list; ///< of rays that go the same way; others are at `current`
    ListInBlocks::Step step{};
    TopTree::Entry current[most];
};

} // namespace pipeline
