// Chooses which rays of a list go on together.
#include "pipeline/scene/raysinblocks.h"

#include <bit>

namespace pipeline {

RaysInBlocks::RaysInBlocks(TopTree const& tree, Kelpa::RayBunchExtParams const& bunch,
                           double const* tMins, std::span<unsigned char const> lanes,
                           double const* ends)
    : top(tree), count(static_cast<unsigned>(lanes.size())) {
    for (unsigned k = 0; k < count; ++k) {
        unsigned char const lane = lanes[k];
        searchEnds[k] = ends[k];
        rays[k] = {bunch.originX[lane],
                   bunch.originY[lane],
                   bunch.originZ[lane],
                   {bunch.dirX[lane], bunch.dirY[lane], bunch.dirZ[lane]},
                   tMins[lane]};
        current[k] = TopTree::Entry::none();
    }
    list.emplace(top, rays, count, searchEnds);
    if (list->areTogether())
        return;
    list.reset();
    for (unsigned k = 0; k < count; ++k)
        advance(k, ends[k]);
}

bool RaysInBlocks::gather() {
    numGathered = 0;
    if (!list)
        return gatherOwnWays();
    if (!list->next(searchEnds, step))
        return false;
    for (std::uint64_t left = step.rays; left != 0; left &= left - 1)
        gathered[numGathered++] = static_cast<unsigned char>(std::countr_zero(left));
    return true;
}

/// The block that the first of all rays enters next; -1 when all have ended.
std::int32_t RaysInBlocks::firstBlock() const {
    TopTree::Entry first = TopTree::Entry::none();
    for (unsigned k = 0; k < count; ++k)
        if (current[k].block >= 0 && (first.block < 0 || current[k] < first))
            first = current[k];
    return first.block;
}

bool RaysInBlocks::gatherOwnWays() {
    std::int32_t const first = firstBlock();
    if (first < 0)
        return false;
    unsigned onTheirWay = 0;
    for (unsigned k = 0; k < count; ++k) {
        onTheirWay += current[k].block >= 0 ? 1 : 0;
        if (current[k].block == first)
            gathered[numGathered++] = static_cast<unsigned char>(k);
    }
    constexpr unsigned manyTogether = 16;
    apart = numGathered < manyTogether && 2 * numGathered < onTheirWay;
    if (!apart)
        return true;
    numGathered = 0;
    for (unsigned k = 0; k < count; ++k)
        if (current[k].block >= 0)
            gathered[numGathered++] = static_cast<unsigned char>(k);
    return true;
}

} // namespace pipeline
