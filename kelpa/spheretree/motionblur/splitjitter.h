// Internal: where between two bounds a node is split, a little off the middle.
#pragma once

#include "kelpa/spheretree/quad.h"
#include "kelpa/spheretree/splitchoice.h"

#include <bit>
#include <cassert>
#include <cmath>
#include <cstdint>
#include <vector>

namespace Kelpa {

/// Four reproducible fractions near one half for each level of the tree, for x, y, z and time.
///
/// Regular motion would put bounds exactly on the middle again and again; the jitter moves each
/// level's planes off them by up to 0.00005 of the width. All nodes of a level draw the same four,
/// whichever thread builds them. The generator is the 48-bit linear congruence of POSIX `drand48`
/// with the high word of a sine mixed into each step.
class SplitJitter {
  public:
    explicit SplitJitter(std::int32_t level)
        : state(static_cast<std::uint64_t>(static_cast<std::int64_t>(level))) {
        step();
    }

    /// The next number of the level, in [0, 1).
    float nextUnit() {
        step();
        return static_cast<float>(static_cast<double>(state >> 18) * 0x1p-30);
    }

    /// The next fraction of the level, within 0.00005 of one half.
    float nextFraction() { return 0.5F + (nextUnit() - 0.5F) * 1e-4F; }

  private:
    // The sine's argument is the product before it is cut to 48 bits, shifted as a signed number.
    void step() {
        std::uint64_t const product = state * 0x5DEECE66DULL + 0xBULL;
        std::int64_t const argument = static_cast<std::int64_t>(product) >> 16;
        double const sine = std::sin(static_cast<double>(argument));
        std::uint64_t const highWord = std::bit_cast<std::uint64_t>(sine) >> 32;
        state = (product + highWord) & 0xFFFFFFFFFFFFULL;
    }

    std::uint64_t state;
};

/// The four fractions of a level (1 to `levelLimit`), drawn once for all trees.
inline Quad splitFractions(std::int32_t level) {
    static std::vector<Quad> const levels = [] {
        std::vector<Quad> drawn(levelLimit + 1);
        for (std::int32_t l = 1; l <= levelLimit; ++l) {
            SplitJitter jitter(l);
            for (int axis = 0; axis < 4; ++axis)
                drawn[static_cast<std::size_t>(l)][axis] = jitter.nextFraction();
        }
        return drawn;
    }();
    assert(1 <= level && level <= levelLimit);
    return levels[static_cast<std::size_t>(level)];
}

} // namespace Kelpa
