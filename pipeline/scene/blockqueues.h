// The blocks that rays have yet to be asked of, nearest first.
#pragma once

#include "pipeline/scene/blocklanes.h"
#include "pipeline/scene/toptree.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <optional>

namespace pipeline {

/// The blocks of one ray, once `fill` or `clear` was called. A few nearest are found in advance, as
/// others cost a walk each.
class BlockQueue {
  public:
    /// Finds the blocks that a ray enters at `end` or before.
    void fill(TopTree const& top, BoxRay const& ray, double end) {
        clear();
        top.visitEntered(ray, end, [this](TopTree::Entry const& entry) { add(entry); });
    }
    void clear() {
        count = at = 0;
        hasMore = false;
    }
    /// Adds a block of the ray; those that come in their order cost the least.
    void add(TopTree::Entry const& entry) {
        if (count == most) {
            hasMore = true;
            if (!(entry < entries[most - 1]))
                return;
            --count;
        }
        unsigned place = count++;
        for (; place > 0 && entry < entries[place - 1]; --place)
            entries[place] = entries[place - 1];
        entries[place] = entry;
    }
    /// Leaves blocks to be found one by one.
    void findLater() { hasMore = true; }

    /// The next block that the ray enters at `end` or before.
    std::optional<TopTree::Entry> next(TopTree const& top, BoxRay const& ray, double end) {
        if (at == count && hasMore) {
            TopTree::Entry const last = count > 0 ? entries[count - 1] : TopTree::Entry::none();
            auto const found = top.next(ray, last, end);
            at = 0;
            count = found ? 1 : 0;
            hasMore = found.has_value();
            if (found)
                entries[0] = *found;
        }
        if (at == count || static_cast<double>(entries[at].t) > end)
            return std::nullopt;
        return entries[at++];
    }

  private:
    static constexpr unsigned most = 12;

    TopTree::Entry entries[most];
    unsigned count;
    unsigned at;
    bool hasMore;
};

/// The blocks of up to 64 rays.
class BlockQueues {
  public:
    /// Finds where the rays go first.
    void fill(TopTree const& top, LaneRays& rays);

    /// The block that the first of all rays enters next; false when all have ended.
    bool first(TopTree::Entry& entry) const {
        entry.t = none;
        bool isAny = false;
        for (unsigned k = 0; k < count; ++k)
            if (current[k].block >= 0 && (!isAny || current[k] < entry)) {
                entry = current[k];
                isAny = true;
            }
        return isAny;
    }
    bool isAt(unsigned k, std::int32_t block) const { return current[k].block == block; }
    /// Ray k goes on to its next block, if it enters it at `end` or before.
    void advance(unsigned k, TopTree const& top, LaneRays const& rays, double end) {
        current[k] = queues[k].next(top, rays.ray(k), end).value_or(TopTree::Entry::none());
    }
    void finish(unsigned k) { current[k].block = -1; }

  private:
    static constexpr float none = std::numeric_limits<float>::infinity();

    unsigned count = 0;
    TopTree::Entry current[LaneRays::most];
    BlockQueue queues[LaneRays::most];
};

} // namespace pipeline
