// The blocks that rays are asked of next.
#pragma once

#include "pipeline/scene/toptree.h"

#include <cstdint>
#include <optional>

namespace pipeline {

/// Where each of up to 64 rays is on its way from block to block.
///
/// Nothing is kept of what comes later: most rays end in their first block or the one after it.
class RaysInBlocks {
  public:
    static constexpr unsigned most = 64;

    /// Adds a ray, which is then at the first block that it enters at `end` or before.
    void add(TopTree const& top, BoxRay const& ray, double end) {
        rays[count] = ray;
        current[count] = TopTree::Entry::none();
        advance(count++, top, end);
    }
    /// The block that the first of all rays enters next; -1 when all have ended.
    std::int32_t first() const {
        TopTree::Entry entry = TopTree::Entry::none();
        for (unsigned k = 0; k < count; ++k)
            if (current[k].block >= 0 && (entry.block < 0 || current[k] < entry))
                entry = current[k];
        return entry.block;
    }
    /// The block that ray k enters next; -1 when it has ended.
    std::int32_t blockOf(unsigned k) const { return current[k].block; }
    /// Ray k goes on to its next block, if it enters it at `end` or before.
    void advance(unsigned k, TopTree const& top, double end) {
        current[k] = top.next(rays[k], current[k], end).value_or(TopTree::Entry::none());
    }
    void finish(unsigned k) { current[k].block = -1; }

  private:
    unsigned count = 0;
    BoxRay rays[most];
    TopTree::Entry current[most];
};

} // namespace pipeline
