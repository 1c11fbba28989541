// Which blocks a ray enters, and in which order.
#pragma once

#include "kelpa/foundation/vector.h"

#include "pipeline/scene/boxgroup.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

namespace pipeline {

inline bool isEmpty(Kelpa::Box const& box) {
    return box.min.x > box.max.x;
}

/// The largest number of single precision that is not above the end of a search.
float lastBefore(double end);

/// A tree over the bounds of any number of blocks, of groups of sixteen boxes.
class TopTree {
  public:
    TopTree() = default;
    /// Blocks that lie near in number should lie near in space. Empty boxes are entered by no ray.
    explicit TopTree(std::vector<Kelpa::Box> const& boxes);

    /// Where a ray enters a block.
    struct Entry {
        float t;
        /// No block that comes after this one is entered before; infinite where none is entered by
        /// the end that `next` was given.
        float following;
        std::int32_t block;

        /// Of no block: what comes before all others.
        static constexpr Entry none() { return {-infinity, -infinity, -1}; }
        explicit operator bool() const { return block >= 0; }

        /// The order in which a ray is asked of its blocks.
        friend bool operator<(Entry const& a, Entry const& b) {
            return a.t < b.t || (a.t == b.t && a.block < b.block);
        }
    };

    /// The first block after `last` that the ray enters at `end` or before, or none. What gave
    /// `last` was asked with the same end or one that is farther.
    ///
    /// What is next depends on the ray and the boxes alone, so a ray may be asked of its blocks
    /// anywhere and with any others.
    Entry next(BoxRay const& ray, Entry const& last, double end) const {
        // Most rays end in their first block.
        return static_cast<double>(last.following) > end ? Entry::none() : look(ray, last, end);
    }
    /// The entry of a block that `next` has given for this ray.
    Entry entryOf(BoxRay const& ray, std::int32_t block) const;

    /// Enough for any number of blocks.
    static constexpr std::size_t mostLevels = 8;

    std::int32_t numLevels() const { return static_cast<std::int32_t>(levels.size()); }
    /// A group of boxes; those of level 0 are blocks, those above hold a group of the level below.
    BoxGroup const& group(std::int32_t level, std::int32_t number) const {
        return levels[static_cast<std::size_t>(level)].groups[static_cast<std::size_t>(number)];
    }

  private:
    static constexpr float infinity = std::numeric_limits<float>::infinity();

    struct Level {
        std::vector<BoxGroup> groups;
    };

    Entry look(BoxRay const& ray, Entry const& last, double end) const;

    decltype(BoxKernels::enterGroup) enterGroup = boxKernels().back().enterGroup;
    std::vector<Level> levels; ///< the blocks' boxes first; the last one has one group
};

} // namespace pipeline
