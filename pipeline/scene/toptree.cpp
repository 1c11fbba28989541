// Finds a ray's blocks one by one, nearest first.
#include "pipeline/scene/toptree.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace pipeline {

using Kelpa::Box;

float lastBefore(double end) {
    constexpr float largest = std::numeric_limits<float>::max();
    if (!(end < static_cast<double>(largest))) // what is not a number ends nothing
        return largest;
    auto const nearest = static_cast<float>(end);
    return static_cast<double>(nearest) > end ? std::nextafter(nearest, -largest) : nearest;
}

TopTree::TopTree(std::vector<Box> const& boxes) {
    std::vector<Box> below = boxes;
    while (levels.empty() || levels.back().groups.size() > 1) {
        Level level;
        level.groups.resize((below.size() + BoxGroup::most - 1) / BoxGroup::most);
        std::vector<Box> around(level.groups.size(), Box::empty());
        for (std::size_t i = 0; i < below.size(); ++i) {
            if (isEmpty(below[i]))
                continue;
            level.groups[i / BoxGroup::most].set(static_cast<unsigned>(i % BoxGroup::most),
                                                 below[i]);
            around[i / BoxGroup::most].grow(below[i]);
        }
        if (level.groups.empty())
            return;
        levels.push_back(std::move(level));
        below = std::move(around);
    }
}

TopTree::Entry TopTree::look(BoxRay const& ray, Entry const& last, double end) const {
    // One level leaves up to 16 groups waiting for the one below it.
    constexpr std::size_t mostWaiting = 16 * BoxGroup::most;
    struct Place {
        std::size_t level;
        std::size_t group;
    };
    Place waiting[mostWaiting];
    std::size_t used = 0;
    if (!levels.empty())
        waiting[used++] = {levels.size() - 1, 0};
    float const latest = lastBefore(end);
    Entry best{infinity, infinity, -1};
    while (used > 0) {
        Place const place = waiting[--used];
        GroupStretches stretches;
        std::uint32_t entered = enterGroup(levels[place.level].groups[place.group], ray,
                                           std::min(latest, best.following), stretches);
        for (; entered != 0; entered &= entered - 1) {
            auto const i = static_cast<unsigned>(std::countr_zero(entered));
            std::size_t const child = BoxGroup::most * place.group + i;
            Entry const entry{stretches.enter[i], best.t, static_cast<std::int32_t>(child)};
            if (place.level == 0 && last < entry) {
                if (!best || entry < best)
                    best = entry;
                else
                    best.following = std::min(best.following, entry.t);
            }
            // What the ray has left before it entered the last block holds none that comes after
            // it; the room for rounding is doubled here.
            float const leave = stretches.leave[i];
            if (place.level > 0 && !(leave + std::abs(leave) * 0x1p-21F < last.t))
                waiting[used++] = {place.level - 1, child};
        }
    }
    return best ? best : Entry::none();
}

TopTree::Entry TopTree::entryOf(BoxRay const& ray, std::int32_t block) const {
    auto const number = static_cast<std::size_t>(block);
    GroupStretches stretches;
    enterGroup(levels[0].groups[number / BoxGroup::most], ray, 0.0F, stretches);
    return {stretches.enter[number % BoxGroup::most], -infinity, block};
}

} // namespace pipeline
