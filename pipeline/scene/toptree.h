// Which blocks a ray enters, and in which order.
#pragma once

#include "kelpa/foundation/vector.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

namespace pipeline {

/// Both ends of a ray's stretch within a box are rounded, so that it may seem to leave before it
/// enters, by this part of the way (T. Ize, "Robust BVH Ray Traversal", 2013, section 3).
constexpr float boxRounding = 0x1p-21F;

/// A little more than `t`, by a part of it.
inline float beyond(float t, float part) {
    return t + (t < 0.0F ? -t : t) * part;
}

inline bool isEmpty(Kelpa::Box const& box) {
    return box.min.x > box.max.x;
}

/// What boxes need to know of a ray.
struct BoxRay {
    Kelpa::Vector origin;
    Kelpa::Vector inverse; ///< of the direction, bounded so that its products are finite
    float begin;           ///< ray parameter from which on it counts

    BoxRay(double x, double y, double z, Kelpa::Vector const& dir, double tMin);
    BoxRay(Kelpa::Vector const& from, Kelpa::Vector const& reciprocal, float tBegin)
        : origin(from), inverse(reciprocal), begin(tBegin) {}
};

/// A tree over the bounds of blocks: any number of them, half of those of each node under either of
/// its children.
class TopTree {
  public:
    TopTree() = default;
    /// Blocks that lie near in number should lie near in space. Empty boxes are entered by no ray.
    explicit TopTree(std::vector<Kelpa::Box> const& boxes);

    /// Where a ray enters a block.
    struct Entry {
        float t;
        std::int32_t block;

        /// What comes before all others.
        static constexpr Entry none() { return {-std::numeric_limits<float>::infinity(), -1}; }

        /// The order in which a ray is asked of its blocks.
        friend bool operator<(Entry const& a, Entry const& b) {
            return a.t < b.t || (a.t == b.t && a.block < b.block);
        }
    };

    /// The first block after `last` that the ray enters at `end` or before.
    ///
    /// What is next depends on the ray and the boxes alone, so a ray may be asked of its blocks
    /// anywhere and with any others.
    std::optional<Entry> next(BoxRay const& ray, Entry const& last, double end) const;

    /// Calls `visit(entry)` for all blocks that the ray enters at `end` or before.
    template <class Visit>
    void visitEntered(BoxRay const& ray, double end, Visit const& visit) const {
        float enter = 0.0F;
        visitReached(
            [&](Kelpa::Box const& box) {
                Stretch const stretch = within(ray, box);
                enter = stretch.enter;
                return !stretch.isEmpty() && !(static_cast<double>(enter) > end);
            },
            [&](std::int32_t block) {
                visit(Entry{enter, block});
            });
    }

    /// Calls `visit(block)` for the blocks below all nodes for whose boxes `isReached` says yes.
    template <class IsReached, class Visit>
    void visitReached(IsReached const& isReached, Visit const& visit) const {
        std::size_t waiting[mostLevels + 1] = {0};
        for (std::size_t used = nodes.empty() ? 0 : 1; used > 0;) {
            std::size_t const node = waiting[--used];
            if (isEmpty(nodes[node]) || !isReached(nodes[node]))
                continue;
            if (node >= firstLeaf) {
                visit(static_cast<std::int32_t>(node - firstLeaf));
                continue;
            }
            waiting[used++] = 2 * node + 2;
            waiting[used++] = 2 * node + 1;
        }
    }

  private:
    /// The part of a ray within a box.
    struct Stretch {
        float enter;
        float leave;

        bool isEmpty() const { return !(enter <= beyond(leave, boxRounding)); }
    };
    static Stretch within(BoxRay const& ray, Kelpa::Box const& box) {
        float const ax = (box.min.x - ray.origin.x) * ray.inverse.x;
        float const bx = (box.max.x - ray.origin.x) * ray.inverse.x;
        float const ay = (box.min.y - ray.origin.y) * ray.inverse.y;
        float const by = (box.max.y - ray.origin.y) * ray.inverse.y;
        float const az = (box.min.z - ray.origin.z) * ray.inverse.z;
        float const bz = (box.max.z - ray.origin.z) * ray.inverse.z;
        return {std::max(std::max(std::max(ray.begin, std::min(ax, bx)), std::min(ay, by)),
                         std::min(az, bz)),
                std::min(std::min(std::max(ax, bx), std::max(ay, by)), std::max(az, bz))};
    }

    static constexpr std::size_t mostLevels = 40;

    // The children of node n are 2 n + 1 and 2 n + 2; leaves, one for each block, are the last.
    std::vector<Kelpa::Box> nodes;
    std::size_t firstLeaf = 0;
};

} // namespace pipeline
