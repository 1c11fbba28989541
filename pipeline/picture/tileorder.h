// The order in which a picture's tiles are dealt out.
#pragma once

#include <cstddef>
#include <numeric>
#include <vector>

namespace pipeline {

/// The order in which a picture's tiles are dealt out: as evenly over the picture as if each came
/// from anywhere, so that after any part of them about that part of the time has passed. Sky at the
/// top, a floor at the bottom: in rows the first half told nothing about the second.
///
/// Runs of neighbours stay together, for what one tile loads its neighbour needs.
class TileOrder {
  public:
    explicit TileOrder(std::size_t tiles) : count(tiles), runs(tiles / runLength) {
        // A step of the golden section leaves gaps of nearly one size however often it is made
        // (V. Sós, "On the distribution mod 1 of the sequence n alpha", 1958).
        constexpr double goldenSection = 0.6180339887498949;
        step = static_cast<std::size_t>(static_cast<double>(runs) * goldenSection) + 1;
        while (runs > 0 && std::gcd(step, runs) != 1)
            ++step;
    }

    /// The tile that comes in turn `turn`; each tile has one turn.
    std::size_t tileAt(std::size_t turn) const {
        std::size_t const run = turn / runLength;
        if (run >= runs) // the few that fill no run
            return turn;
        return run * step % runs * runLength + turn % runLength;
    }

    /// The tiles of one of `sharers`, every so many turns: each has about the same to do.
    std::vector<std::size_t> shareOf(std::size_t sharer, std::size_t sharers) const {
        std::vector<std::size_t> tiles;
        for (std::size_t turn = sharer; turn < count; turn += sharers)
            tiles.push_back(tileAt(turn));
        return tiles;
    }

  private:
    static constexpr std::size_t runLength = 16;

    std::size_t count;
    std::size_t runs;
    std::size_t step = 1; ///< shares no factor with `runs`
};

} // namespace pipeline
