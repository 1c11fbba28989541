// Particles parted into blocks that lie together in space.
#pragma once

#include "kelpa/foundation/vector.h"
#include "kelpa/host/pieces.h"

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
    /// For `count` places, each to be set.
    explicit Rows(std::size_t count) {
        if (count <= std::numeric_limits<std::uint32_t>::max())
            narrow.resize(count);
        else
            wide.resize(count);
    }

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
    Parting(std::span<Kelpa::Vector const> begins, std::span<Kelpa::Vector const> ends,
            std::int64_t most, int threads, Kelpa::GoOn const& goOn = {});

    /// Places [`firsts()[b]`, `firsts()[b + 1]`) are those of block b.
    std::vector<std::int64_t> const& firsts() const { return firstPlaces; }

    /// Brings values, one of each row, to the places of their particles.
    template <class T> void order(std::vector<T>& values) const {
        if (values.empty() || firstPlaces.size() <= 2)
            return;
        std::vector<T> ordered(values.size());
        scatter([&](std::size_t row, std::size_t place) { ordered[place] = values[row]; });
        values = std::move(ordered);
    }

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

    int threadCount;
    std::vector<std::uint32_t> blockOf; ///< by row
    std::vector<std::int64_t> firstPlaces;
    /// Rows are dealt out to threads in as many shares; of each, where its first row of each block
    /// goes.
    std::vector<std::vector<std::int64_t>> shareFirsts;
};

} // namespace pipeline
