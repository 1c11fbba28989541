// Chooses which rays of a list go on together.
#include "pipeline/scene/raysinblocks.h"

#include <bit>

namespace pipeline {

RaysInBlocks::RaysInBlocks(TopTree const& tree, Kelpa::RayBunchExtParams const& bunch,
                           double const* tMins, std::span<unsigned char const> lanes,
                           double const* ends)
    : top(tree), count(static_cast<unsigned>(lanes.size())) {
    if (count == 0)
        return;
    for (unsigned k = 0; k < most; ++k) {
        unsigned char const lane = lanes[k < count ? k : 0]; // repeated, it changes no bounds
        searchEnds[k] = k < count ? narrow(ends[k]) : 0.0F;
        rays.originX[k] = static_cast<float>(bunch.originX[lane]);
        rays.originY[k] = static_cast<float>(bunch.originY[lane]);
        rays.originZ[k] = static_cast<float>(bunch.originZ[lane]);
        rays.inverseX[k] = bunch.dirX[lane];
        rays.inverseY[k] = bunch.dirY[lane];
        rays.inverseZ[k] = bunch.dirZ[lane];
        rays.begin[k] = static_cast<float>(tMins[lane]);
    }
    list.emplace(top, rays, ~std::uint64_t{0} >> (most - count), searchEnds);
    if (list->areTogether())
        return;
    list.reset();
    for (unsigned k = 0; k < count; ++k) {
        current[k] = TopTree::Entry::none();
        advance(k, ends[k]);
    }
}

BoxRay RaysInBlocks::rayOf(unsigned k) const {
    BoxRay ray;
    ray.origin = {rays.originX[k], rays.originY[k], rays.originZ[k]};
    ray.inverse = {rays.inverseX[k], rays.inverseY[k], rays.inverseZ[k]};
    ray.begin = rays.begin[k];
    return ray;
}

bool RaysInBlocks::gather() {
    numGathered = 0;
    if (list ? !list->next(searchEnds, step) : !chooseOwnWays())
        return false;
    if (list)
        gatheredBits = step.rays;
    for (std::uint64_t left = gatheredBits; left != 0; left &= left - 1)
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

/// Chooses which of rays that go their own ways are asked next; false when all have ended.
bool RaysInBlocks::chooseOwnWays() {
    std::int32_t const first = firstBlock();
    if (first < 0)
        return false;
    std::uint64_t onTheirWay = 0;
    gatheredBits = 0;
    for (unsigned k = 0; k < count; ++k) {
        std::uint64_t const bit = std::uint64_t{1} << k;
        onTheirWay |= current[k].block >= 0 ? bit : 0;
        gatheredBits |= current[k].block == first ? bit : 0;
    }
    constexpr int manyTogether = 16;
    int const together = std::popcount(gatheredBits);
    apart = together < manyTogether && 2 * together < std::popcount(onTheirWay);
    if (apart)
        gatheredBits = onTheirWay;
    return true;
}

} // namespace pipeline
