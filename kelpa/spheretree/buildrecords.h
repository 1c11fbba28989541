// Internal: how build records are visited, parted between two sides and turned into leaves.
#pragma once

#include "kelpa/foundation/sequence.h"
#include "kelpa/foundation/stock.h"

#include <algorithm>
#include <cassert>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
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

/// Where a record belongs when its node is split.
using Sides = std::uint32_t;
inline constexpr Sides lowerSide = 1;
inline constexpr Sides upperSide = 2;
inline constexpr Sides bothSides = lowerSide | upperSide; ///< the plane cuts it

/// Where something from `low` to `high` is found; what only touches the plane lies on one side.
/// Without a branch, which the processor would guess wrong half of the time.
[[gnu::always_inline]] inline Sides sidesOf(float low, float high, float plane) {
    Sides const isLower = plane >= high ? 1 : 0;
    Sides const isUpper = plane <= low ? 1 : 0;
    return bothSides - isLower * upperSide - (isUpper & ~isLower) * lowerSide;
}

/// Parts the first `count` records of `data` between the two sides of a split.
///
/// Lower records move to the front of `data`, in order, and are all that is left there in the end;
/// upper records go to the end of another sequence. Blocks that are read and not needed any more
/// are retired on the way: with a pool both sides together take hardly more memory than the whole.
template <BuildRecord Record, int BlockSize> class Partition {
  public:
    using Records = SequenceST<Record, BlockSize>;

    Partition(Records& data, std::int32_t count, Records& upperRecords)
        : parting(data), source(data), lowerEnd(data), upperSequence(upperRecords), left(count) {
        assert(&data != &upperRecords);
    }

    /// Parts the next few records; returns how many, 0 at the end.
    ///
    /// `sides(i, record)` says where record number i of all belongs. Each that is cut is then
    /// announced by `announce(record)`, and made two of from two copies by `cut(i, lower, upper)`,
    /// which says which of them are to be kept.
    template <class SidesOfRecord, class Announce, class Cut>
    std::int32_t partNext(SidesOfRecord sides, Announce announce, Cut cut) {
        if (left == 0)
            return 0;
        std::span<Record> const records = unreadRecords();
        if (records.empty())
            return 0;
        std::span<Record> const lower = lowerEnd.rest();
        std::span<Record> const upper = upperSequence.freeSlots();
        std::size_t const length =
            std::min({std::size_t{longestStretch}, static_cast<std::size_t>(left), records.size(),
                      lower.size(), upper.size()});

        // Every record is written to both sides, and stays where the next is not written over it.
        // There is no more than one lower record per record read, so none is lost before.
        std::size_t numLower = 0;
        std::size_t numUpper = 0;
        std::size_t numCut = 0;
        for (std::size_t k = 0; k < length; ++k) {
            Record const record = records[k];
            Sides const where = sides(parted + k, record);
            lower[numLower] = record;
            upper[numUpper] = record;
            cutRecords[numCut] = {static_cast<std::uint16_t>(k),
                                  static_cast<std::uint16_t>(numLower),
                                  static_cast<std::uint16_t>(numUpper), bothSides};
            numLower += where & lowerSide;
            numUpper += where / upperSide;
            numCut += where / bothSides;
        }

        std::span<CutRecord> const cuts(cutRecords, numCut);
        for (CutRecord const& at : cuts)
            announce(lower[at.lower]);
        Sides keptOfAll = bothSides;
        for (CutRecord& at : cuts) {
            at.kept = cut(parted + at.number, lower[at.lower], upper[at.upper]);
            keptOfAll &= at.kept;
        }
        if (keptOfAll != bothSides) {
            numLower = closeGaps(lower.first(numLower), cuts, &CutRecord::lower, lowerSide);
            numUpper = closeGaps(upper.first(numUpper), cuts, &CutRecord::upper, upperSide);
        }

        // Each record went somewhere, and no lower one over a record that is still to be read.
        assert(numLower + numUpper <= length + numCut && numLower <= length);
        newestLower = lower.first(numLower);
        source.skip(length);
        lowerEnd.skip(numLower);
        upperSequence.useSlots(static_cast<std::int32_t>(numUpper));
        parted += length;
        left -= static_cast<std::int32_t>(length);
        lowerCount += static_cast<std::int32_t>(numLower);
        upperCount += static_cast<std::int32_t>(numUpper);
        if (left == 0)
            parting.cutBehind(lowerEnd.currentBlock(), lowerEnd.passedInBlock());
        return static_cast<std::int32_t>(length);
    }

    std::int32_t lowerCount = 0;
    std::int32_t upperCount = 0;
    std::span<Record const> newestLower; ///< the lower ones of the last few, in order

  private:
    static constexpr std::size_t longestStretch = 512; // fits into the fastest cache

    /// Small, for the stacks of a host's threads. Numbers within the stretch.
    struct CutRecord {
        std::uint16_t number;
        std::uint16_t lower; ///< where its copies lie
        std::uint16_t upper;
        Sides kept;
    };

    /// The next records in one block. Retires the blocks that were read before them, except where
    /// the lower records end: they are the next that upper records get.
    std::span<Record> unreadRecords() {
        auto* block = source.currentBlock();
        std::span<Record> const records = source.rest();
        while (!records.empty() && block != source.currentBlock()) {
            auto* const readBlock = block;
            block = block->next;
            if (readBlock != lowerEnd.currentBlock())
                parting.retireBlock(readBlock);
        }
        return records;
    }

    /// Takes out the records that are not kept on a side; returns how many are left.
    static std::size_t closeGaps(std::span<Record> records, std::span<CutRecord const> cuts,
                                 std::uint16_t CutRecord::*place, Sides side) {
        std::size_t from = 0;
        std::size_t to = 0;
        for (CutRecord const& at : cuts) {
            if ((at.kept & side) != 0)
                continue;
            while (from < at.*place)
                records[to++] = records[from++];
            ++from;
        }
        while (from < records.size())
            records[to++] = records[from++];
        return to;
    }

    Records& parting;
    SequenceCursor<Records> source;
    SequenceCursor<Records> lowerEnd;
    Records& upperSequence;
    std::int32_t left;
    std::size_t parted = 0;
    CutRecord cutRecords[longestStretch];
};

/// Fills `data` with the last `count` records of another sequence, the last one first, and shows
/// each to `visit`. They are removed there.
template <BuildRecord Record, int BlockSize, class Visit>
void moveBack(SequenceST<Record, BlockSize>& data, SequenceST<Record, BlockSize>& scratch,
              std::int32_t count, Visit visit) {
    data.clear();
    for (auto left = static_cast<std::size_t>(count); left > 0;) {
        std::span<Record const> const from = scratch.lastInBlock();
        scratch.releaseSpareBlocks(); // the next that `data` gets
        std::span<Record> const to = data.freeSlots();
        std::size_t const length = std::min({left, to.size(), from.size()});
        for (std::size_t i = 0; i < length; ++i) {
            to[i] = from[from.size() - 1 - i];
            visit(to[i]);
        }
        assert(length > 0); // what was moved to scratch lies there, behind the rest
        data.useSlots(static_cast<std::int32_t>(length));
        scratch.removeLast(static_cast<std::int32_t>(length));
        left -= length;
    }
}

/// A leaf's run of entries and how many of them were filled.
template <LeafEntry Entry> struct StoredRun {
    Entry* entries;
    std::int32_t count;
};

/// Copies the sphere indices of the first `count` (at least 1) records into a new run of `leaves`.
template <class Leaves, BuildRecord Record, int BlockSize>
requires LeafEntry<typename Leaves::Element>
auto storeRun(Stock<Leaves>& leaves, SequenceST<Record, BlockSize>& data, std::int32_t count) {
    assert(count >= 1);
    using Entry = typename Leaves::Element;
    Entry* const run = leaves.newElements(count);
    Entry* end = run;
    std::int32_t const copied = visitRecords(
        data, count, [&end](Record const& record) { (end++)->sphereIndex = record.sphereIndex; });
    return StoredRun<Entry>{run, copied};
}

/// An upper child whose subtree waits until its lower sibling's is built; its records lie at the
/// end of those that wait.
template <class Node, class Region> struct PostponedSubtree {
    Node* node;
    Region region;
    std::int32_t count;
    std::int32_t depth;
    std::int32_t level;
};

/// Builds a subtree. `buildOneNode(current, postponed)` builds one node and returns true when it
/// was split: `current` is then its lower child, and its upper one is postponed or with another
/// thread. A postponed one's records are shown to `visit`, in order, before it is built.
///
/// The two recursions of a node are unrolled: the lower child is the next node of the loop, the
/// upper one waits in a list on the heap. So a deep tree needs no deep call stack, which worker
/// threads of a host may not have.
template <class Subtree, class Records, class Aborted, class BuildOneNode, class Visit>
void buildSubtree(Subtree current, Records& data, Records& waiting, Aborted& isAborted,
                  BuildOneNode buildOneNode, Visit visit) {
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
        moveBack(data, waiting, current.count, visit);
    }
}

} // namespace Kelpa
