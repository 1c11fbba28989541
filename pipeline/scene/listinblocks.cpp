// Takes a list of rays through the top tree, part by part.
#include "pipeline/scene/listinblocks.h"

#include <algorithm>
#include <bit>

namespace pipeline {

ListInBlocks::ListInBlocks(TopTree const& tree, BoxRays& listed, std::uint64_t present,
                           float const* ends)
    : top(tree), rays(listed) {
    kernels.invert(listed, least, greatest);
    if (top.numLevels() == 0)
        return;
    unsigned const count = expand({top.numLevels() - 1, 0, present}, ends);
    together = count > 0 &&
               2 * std::popcount(beginningIn(order[count - 1], count)) >= std::popcount(present);
}

/// The rays that enter none of `count` boxes as early as box `first`.
std::uint64_t ListInBlocks::beginningIn(unsigned first, unsigned count) const {
    std::uint64_t beginning = entered[first];
    for (unsigned place = 0; place < count; ++place)
        if (unsigned const i = order[place]; i != first)
            beginning &= ~(entered[i] & kernels.areBefore(enters[i], enters[first]));
    return beginning;
}

/// Finds which rays enter which boxes of a part, whose place others may take; they wait then,
/// nearest last. Returns how many boxes.
unsigned ListInBlocks::expand(Part part, float const* ends) {
    BoxGroup const& boxes = top.group(part.level, part.group);
    float nearest[children];
    unsigned count = 0;
    std::uint32_t may = kernels.mayEnter(boxes, least, greatest);
    for (; may != 0; may &= may - 1) {
        auto const i = static_cast<unsigned>(std::countr_zero(may));
        entered[i] = part.rays & kernels.enterBox(boxes, i, rays, ends, enters[i]);
        if (entered[i] == 0)
            continue;
        nearest[i] = enters[i][std::countr_zero(entered[i])]; // of one, about as of the others
        order[count++] = static_cast<unsigned char>(i);
    }
    std::sort(order, order + count, [&nearest](unsigned char a, unsigned char b) {
        return nearest[a] > nearest[b] || (nearest[a] == nearest[b] && a > b);
    });
    auto const firstChild = static_cast<std::int32_t>(children) * part.group;
    if (part.level == 0) {
        firstBlock = firstChild;
        numBlocks = count;
        return count;
    }
    for (unsigned i = 0; i < count; ++i)
        waiting[numWaiting++] = {part.level - 1, firstChild + order[i], entered[order[i]]};
    return count;
}

bool ListInBlocks::next(float const* ends, Step& step) {
    for (;;) {
        while (numBlocks > 0) {
            unsigned const i = order[--numBlocks];
            std::uint64_t const left = entered[i] & kernels.areBefore(enters[i], ends);
            step = {firstBlock + static_cast<std::int32_t>(i), left};
            if (left != 0)
                return true;
        }
        if (numWaiting == 0)
            return false;
        expand(waiting[--numWaiting], ends);
    }
}

} // namespace pipeline
