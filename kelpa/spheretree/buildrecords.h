#pragma once
// Internal: how build records are visited, parted between two sides and turned into leaves.

#include "kelpa/foundation/sequence.h"

#include <algorithm>
#include <concepts>
#include <cstdint>
#include <type_traits>
#include <vector>

namespace Kelpa {

template <class Record>
concept BuildRecord = std::is_trivially_copyable_v<Record> && requires(Record const& record) {
    { record.sphereIndex } -> std::convertible_to<std::uint32_t>;
};

template <class Entry>
concept LeafEntry = requires(Entry& entry) {
    { entry.sphereIndex } -> std::same_as<std::uint32_t&>;
};

/// Calls `visit` for the first `count` records in order, or for as many as there are; returns how
/// many that were.
template <BuildRecord Record, int BlockSize, class Visit>
std::int32_t visitRecords(SequenceST<Record, BlockSize>& data, std::int32_t count, Visit visit) {
    std::int32_t left = count;
    for (auto* block = data.first; block != nullptr && left > 0; block = block->next) {
        Record* const end = block->elements + std::min(left, block->count);
        for (Record* record = block->elements; record != end; ++record)
            visit(*record);
        left -= std::min(left, block->count);
    }
    return count - left;
}

/// Parts the first records of `data` between the two sides of a split.
///
/// Lower records move to the front of `data`, in order; upper records go to the end of another
/// sequence, which may be `data` itself. No more than one lower record may be kept per record read:
/// so the place to write never overtakes the place to read.
template <BuildRecord Record, int BlockSize> class Partition {
  public:
    using Records = SequenceST<Record, BlockSize>;

    Partition(Records& data, Records& upperSide) : source(data), lowerEnd(data), upper(upperSide) {}

    /// The next record, or null at the end; readable until a lower record is kept.
    Record const* read() { return source.next(); }

    /// The record that comes `distance` after the one read last, if it is near in memory, or null.
    Record const* peek(std::int32_t distance) const { return source.peek(distance); }

    void keepLower(Record const& record) {
        *lowerEnd.next() = record;
        ++lowerCount;
    }
    void sendUpper(Record const& record) {
        *upper.newElement() = record;
        ++upperCount;
    }

    std::int32_t lowerCount = 0;
    std::int32_t upperCount = 0;

  private:
    SequenceCursor<Records> source;
    SequenceCursor<Records> lowerEnd;
    Records& upper;
};

/// Moves the last `count` records of `scratch` to the front of `data`, the last one first.
template <BuildRecord Record, int BlockSize>
void moveBack(SequenceST<Record, BlockSize>& data, SequenceST<Record, BlockSize>& scratch,
              std::int32_t count) {
    data.rewind();
    for (std::int32_t i = 0; i < count; ++i) {
        Record const* const moved = scratch.removeLast();
        *data.nextElement() = *moved;
    }
}

/// A leaf's run of entries and how many of them were filled.
template <LeafEntry Entry> struct StoredRun {
    Entry* entries;
    std::int32_t count;
};

/// Copies the sphere indices of the first `count` (at least 1) records into a new run of `leaves`.
template <LeafEntry Entry, int LeafBlock, BuildRecord Record, int BlockSize>
StoredRun<Entry> storeRun(Sequence<Entry, LeafBlock>& leaves, SequenceST<Record, BlockSize>& data,
                          std::int32_t count) {
    Entry* const run = leaves.newElements(count);
    Entry* end = run;
    std::int32_t const copied = visitRecords(
        data, count, [&end](Record const& record) { (end++)->sphereIndex = record.sphereIndex; });
    return {run, copied};
}

/// An upper child whose subtree waits until its lower sibling's is built; its records lie at the
/// end of the scratch sequence.
template <class Node, class Region> struct PostponedSubtree {
    Node* node;
    Region region;
    std::int32_t count;
    std::int32_t depth;
    std::int32_t level;
};

/// Builds a subtree. `buildOneNode(current, postponed)` builds one node and returns true when it
/// was split: `current` is then its lower child, and its upper one is postponed or with another
/// thread.
///
/// The two recursions of a node are unrolled: the lower child is the next node of the loop, the
/// upper one waits in a list on the heap. So a deep tree needs no deep call stack, which worker
/// threads of a host may not have.
template <class Subtree, class Records, class Aborted, class BuildOneNode>
void buildSubtree(Subtree current, Records& data, Records& scratch, Aborted& isAborted,
                  BuildOneNode buildOneNode) {
    std::vector<Subtree> postponed;
    for (;;) {
        while (buildOneNode(current, postponed))
            continue;
        // Once aborted, every postponed subtree is given up, each after one more question.
        do {
            if (postponed.empty())
                return;
            current = postponed.back();
            postponed.pop_back();
        } while (isAborted());
        moveBack(data, scratch, current.count);
    }
}

} // namespace Kelpa
