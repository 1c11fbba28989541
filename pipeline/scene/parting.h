// Particles parted into blocks that lie together in space.
#pragma once

#include "kelpa/foundation/vector.h"
#include "kelpa/host/pieces.h"

#include "pipeline/scene/raytransport.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <utility>
#include <vector>

namespace pipeline {

/// Of each place in a scene the row that its particle has among those that were read.
class Rows {
  public:
    /// Rows are places.
    Rows() = default;
    /// For `count` places, each to be set to a row below `end`.
    Rows(std::size_t count, std::size_t end) {
        if (end <= std::numeric_limits<std::uint32_t>::max())
            narrow.resize(count);
        else
            wide.resize(count);
    }
    explicit Rows(std::size_t count) : Rows(count, count) {}
    /// With the row of each place.
    explicit Rows(std::vector<std::uint32_t> rows) : narrow(std::move(rows)) {}
    explicit Rows(std::vector<std::uint64_t> rows) : wide(std::move(rows)) {}

    void set(std::size_t place, std::size_t row) {
        if (!narrow.empty())
            narrow[place] = static_cast<std::uint32_t>(row);
        else
            wide[place] = row;
    }
    std::int64_t operator[](std::int64_t place) const {
        auto const at = static_cast<std::size_t>(place);
        return at < narrow.size() ? static_cast<std::int64_t>(narrow[at])
               : at < wide.size() ? static_cast<std::int64_t>(wide[at])
                                  : place;
    }

  private:
    std::vector<std::uint32_t> narrow; ///< half the memory, for all but the largest scenes
    std::vector<std::uint64_t> wide;
};

/// How particles are parted into blocks of a given size: by median splits of the longest axis over
/// a grid of whole numbers, where particles in one cell go by their rows.
///
/// What comes out depends on the particles and the size alone: neither on threads nor on how
/// particles are dealt out to them. Within a block particles keep their order.
class Parting {
  public:
    /// Parts particles, each where the middle of its way lies, until no block has more than `most`,
    /// at least 1. `ends` is empty when they stand still. `goOn`, unless empty, is asked now and
    /// then on this thread; when it says no the parting is of no use.
    ///
    /// With `sharers`, who call it together, these are the rows of this rank, behind those of the
    /// ranks before it. The blocks are those of all; each rank gets what belongs to its own.
    Parting(std::span<Kelpa::Vector const> begins, std::span<Kelpa::Vector const> ends,
            std::int64_t most, int threads, Kelpa::GoOn const& goOn = {},
            RayTransport* sharers = nullptr);

    /// Places [`firsts()[b]`, `firsts()[b + 1]`) are those of block b.
    std::vector<std::int64_t> const& firsts() const { return firstPlaces; }

    /// Brings values, one of each row, to the places of their particles: of `sharers` to the rank
    /// that owns them, where they are in the order of its own blocks. A rank without rows may have
    /// none while the others have some.
    template <class T> void order(std::vector<T>& values) const {
        if (sharers != nullptr ? !sharersHave(!values.empty())
                               : values.empty() || firstPlaces.size() <= 2)
            return;
        std::vector<T> ordered(blockOf.size());
        values.resize(blockOf.size());
        scatter([&](std::size_t row, std::size_t place) { ordered[place] = values[row]; });
        values = std::move(ordered);
        if (sharers == nullptr)
            return;
        ordered = std::vector<T>(ownedCount());
        deal(reinterpret_cast<char const*>(values.data()), reinterpret_cast<char*>(ordered.data()),
             sizeof(T));
        values = std::move(ordered);
    }

    /// The first place of a rank's blocks.
    std::int64_t firstOwnedBy(int rank) const;
    /// The row of each place.
    Rows rows() const;

  private:
    /// Calls `move(row, place)` for every row, on several threads.
    template <class Move> void scatter(Move const& move) const {
        Kelpa::doPieces(shareFirsts.size(), threadCount, [&](std::size_t share, auto const&) {
            std::vector<std::int64_t> next = shareFirsts[share];
            for (std::size_t row = shareBegin(share); row < shareBegin(share + 1); ++row)
                move(row, static_cast<std::size_t>(next[blockOf[row]]++));
        });
    }
    std::size_t shareBegin(std::size_t share) const {
        return blockOf.size() * share / shareFirsts.size();
    }

    bool sharersHave(bool isHere) const;
    Rows sharedRows() const;
    std::size_t ownedCount() const;
    void deal(char const* from, char* to, std::size_t width) const;
    void learnCounts();

    int threadCount;
    RayTransport* sharers;
    std::vector<std::uint32_t> blockOf; ///< by row
    std::vector<std::int64_t> firstPlaces;
    /// Rows are dealt out to threads in as many shares; of each, where its first row of each block
    /// goes.
    std::vector<std::vector<std::int64_t>> shareFirsts;
    // Of those who share the rows.
    std::vector<std::int64_t> rowsHere;                ///< of each block
    std::vector<std::vector<std::int64_t>> rowsOfRank; ///< of each own block, by rank
};

} // namespace pipeline
