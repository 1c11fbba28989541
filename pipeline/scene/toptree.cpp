// Finds a ray's blocks one by one, nearest first.
#include "pipeline/scene/toptree.h"

#include <algorithm>
#include <bit>

namespace pipeline {

namespace {

using Kelpa::Box;
using Kelpa::Vector;

// As trees bound it, so that no product with a coordinate is infinite or not a number.
float boundedReciprocal(float component) {
    constexpr float largest = 1e18F;
    float const q = 1.0F / component;
    float const below = q < largest ? q : largest;
    return below > -largest ? below : -largest;
}

} // namespace

BoxRay::BoxRay(double x, double y, double z, Vector const& dir, double tMin)
    : origin{static_cast<float>(x), static_cast<float>(y), static_cast<float>(z)},
      inverse{boundedReciprocal(dir.x), boundedReciprocal(dir.y), boundedReciprocal(dir.z)},
      begin(static_cast<float>(tMin)) {
}

TopTree::TopTree(std::vector<Box> const& boxes) {
    if (boxes.empty())
        return;
    std::size_t const leaves = std::bit_ceil(boxes.size());
    firstLeaf = leaves - 1;
    nodes.resize(2 * leaves - 1, Box::empty());
    std::copy(boxes.begin(), boxes.end(), nodes.begin() + static_cast<std::ptrdiff_t>(firstLeaf));
    for (std::size_t node = firstLeaf; node-- > 0;) {
        nodes[node] = nodes[2 * node + 1];
        nodes[node].grow(nodes[2 * node + 2]);
    }
}

std::optional<TopTree::Entry> TopTree::next(BoxRay const& ray, Entry const& last,
                                            double end) const {
    std::optional<Entry> best;
    std::size_t waiting[mostLevels + 1] = {0};
    for (std::size_t used = nodes.empty() ? 0 : 1; used > 0;) {
        std::size_t const node = waiting[--used];
        if (isEmpty(nodes[node]))
            continue;
        Stretch const stretch = within(ray, nodes[node]);
        if (stretch.isEmpty() || static_cast<double>(stretch.enter) > end ||
            (best && stretch.enter > best->t))
            continue;
        if (node >= firstLeaf) {
            Entry const entry{stretch.enter, static_cast<std::int32_t>(node - firstLeaf)};
            if (last < entry && (!best || entry < *best))
                best = entry;
            continue;
        }
        // What the ray has left before it entered the last block holds none that comes after it.
        if (beyond(stretch.leave, 2.0F * boxRounding) < last.t)
            continue;
        waiting[used++] = 2 * node + 2;
        waiting[used++] = 2 * node + 1;
    }
    return best;
}

} // namespace pipeline
