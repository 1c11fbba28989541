// Takes a list of rays through the top tree, part by part.
#include "pipeline/scene/listinblocks.h"

#include <algorithm>
#include <bit>

namespace pipeline {

ListInBlocks::ListInBlocks(TopTree const& tree, BoxRay const* listed, unsigned count,
                           double const* ends)
    : top(tree), rays(listed) {
    std::uint64_t const all = count == most ? ~std::uint64_t{0} : (std::uint64_t{1} << count) - 1;
    if (top.numLevels() == 0)
        return;
    expand({top.numLevels() - 1, 0, all}, ends);
}

/// Finds which rays enter which boxes of a part; they wait then, nearest last.
void ListInBlocks::expand(Part const& part, double const* ends) {
    BoxGroup const& boxes = top.group(part.level, part.group);
    EnterGroup const enter = enterGroup();
    constexpr float never = std::numeric_limits<float>::infinity();
    float nearest[children];
    unsigned char startHere[children] = {};
    std::fill(std::begin(nearest), std::end(nearest), never);
    std::fill(std::begin(entered), std::end(entered), 0);
    for (std::uint64_t left = part.rays; left != 0; left &= left - 1) {
        auto const k = static_cast<unsigned>(std::countr_zero(left));
        GroupStretches stretches;
        std::uint32_t into = enter(boxes, rays[k], lastBefore(ends[k]), stretches);
        unsigned first = children;
        for (; into != 0; into &= into - 1) {
            auto const i = static_cast<unsigned>(std::countr_zero(into));
            float const t = stretches.enter[i];
            entered[i] |= std::uint64_t{1} << k;
            enters[i][k] = t;
            nearest[i] = std::min(nearest[i], t);
            if (first == children || t < stretches.enter[first])
                first = i;
        }
        if (first != children)
            ++startHere[first];
    }
    unsigned const together = *std::max_element(std::begin(startHere), std::end(startHere));
    togetherAtFirst = 2 * together >= static_cast<unsigned>(std::popcount(part.rays));

    unsigned count = 0;
    for (unsigned i = 0; i < children; ++i)
        if (entered[i] != 0)
            order[count++] = static_cast<unsigned char>(i);
    std::sort(order, order + count, [&nearest](unsigned char a, unsigned char b) {
        return nearest[a] > nearest[b] || (nearest[a] == nearest[b] && a > b);
    });
    auto const firstChild = static_cast<std::int32_t>(children) * part.group;
    if (part.level == 0) {
        firstBlock = firstChild;
        numBlocks = count;
        return;
    }
    for (unsigned i = 0; i < count; ++i)
        waiting[numWaiting++] = {part.level - 1, firstChild + order[i], entered[order[i]]};
}

bool ListInBlocks::next(double const* ends, Step& step) {
    for (;;) {
        while (numBlocks > 0) {
            unsigned const i = order[--numBlocks];
            step = {firstBlock + static_cast<std::int32_t>(i), 0};
            for (std::uint64_t left = entered[i]; left != 0; left &= left - 1) {
                auto const k = static_cast<unsigned>(std::countr_zero(left));
                if (static_cast<double>(enters[i][k]) <= ends[k])
                    step.rays |= std::uint64_t{1} << k;
            }
            if (step.rays != 0)
                return true;
        }
        if (numWaiting == 0)
            return false;
        expand(waiting[--numWaiting], ends);
    }
}

} // namespace pipeline
