// Internal: what both builders use to decide between a leaf and a split, and between splits.
#pragma once

#include "kelpa/foundation/sharedcounters.h"
#include "kelpa/spheretree/quad.h"

#include <algorithm>
#include <cstdint>
#include <limits>

namespace Kelpa {

/// Deepest level of any tree, whatever the host allows. Halving a box from the largest floats down
/// to the smallest extent that is split takes fewer levels, so only degenerate input comes here.
inline constexpr std::int32_t levelLimit = 1024;

/// Subtrees of up to this many records are built by the thread that reaches them: below it a
/// hand-off costs more than it saves.
inline constexpr int handOffThreshold = 1500;

/// Axes along which the spheres extend less than this are not split.
inline constexpr float smallestSplitExtent = 1e-6F;

/// Levels that trees of any usual `maxDepth` stay within.
inline constexpr std::int32_t usualLevels = 128;

/// How large a tree may grow, and how long that may take: beyond it a tree is split no further, and
/// what is left to build becomes leaves.
struct GrowthLimit {
    std::int64_t nodes;
    std::int64_t entries;     ///< of leaves
    std::int64_t deepRecords; ///< parted at nodes beyond the usual levels
};

/// What the spheres of an ordinary tree may ask for.
///
/// Ordinary scenes need 3 to 16 entries and 0.2 to 1.6 nodes a sphere. Thousands of small spheres
/// inside thousands of large ones ask for the product of both; parameters that forbid leaves (a
/// factor of 0, a depth without end) for chains of a thousand nodes, each of which visits hundreds
/// of records. They get a slow tree instead of all memory and time.
inline GrowthLimit growthLimit(std::int32_t numSpheres) {
    auto const n = static_cast<std::int64_t>(numSpheres);
    std::int64_t const entries = std::max(std::int64_t{1} << 26, 256 * n);
    return {std::max(std::int64_t{1} << 23, 64 * n), entries, entries};
}

/// The same when some spheres are there for no part of the shutter. Such a sphere's record has no
/// duration or a negative one, splits of it look free or better, and every limit is reached.
inline GrowthLimit growthLimitOutsideShutter(std::int32_t numSpheres) {
    auto const n = static_cast<std::int64_t>(numSpheres);
    std::int64_t const entries = std::max(std::int64_t{1} << 23, 32 * n);
    return {std::max(std::int64_t{1} << 20, 4 * n), entries, entries};
}

/// Leaf entries up to which a still tree's leaves are packed, at 16 bytes each.
inline std::int64_t mostPackedEntries(std::int32_t numSpheres) {
    return std::max(std::int64_t{1} << 24, 64 * static_cast<std::int64_t>(numSpheres));
}

/// Whether a tree has outgrown what its spheres may ask for. Asked at every node, where two locks
/// would keep threads from building beside each other.
template <class Tree> bool isBeyond(GrowthLimit const& limit, Tree const& tree) {
    return tree.leafSpheres.recentCount() > limit.entries ||
           tree.nodes.recentCount() > limit.nodes ||
           readShared(tree.deepRecords) > limit.deepRecords;
}

/// Counts a node's records towards the tree's limit.
template <class Tree> void countDeepRecords(Tree& tree, std::int32_t level, std::int32_t count) {
    if (level > usualLevels)
        addShared(tree.deepRecords, std::int64_t{count});
}

/// Truncates towards zero; values beyond what an int can hold become its bounds, NaN its lowest.
inline std::int32_t truncateToInt(float value) {
    constexpr float beyond = 2147483648.0F; // 2^31; the largest int is no float
    if (value >= beyond)
        return std::numeric_limits<std::int32_t>::max();
    return value > -beyond ? static_cast<std::int32_t>(value)
                           : std::numeric_limits<std::int32_t>::min();
}

/// Up to how many records a node at `depth` becomes a leaf: few near the root, more with each
/// split, and steeply more in the lower half of the allowed depth, so that splits which separate
/// nothing end.
inline std::int32_t leafThreshold(std::int32_t depth, float leafSizeFactor, std::int32_t maxDepth) {
    float const grown = static_cast<float>(depth) * leafSizeFactor;
    if (2 * static_cast<std::int64_t>(depth) < maxDepth)
        return truncateToInt(grown + 1.0F);
    std::int64_t const beyondHalf = static_cast<std::int64_t>(depth) - maxDepth / 2 + 1;
    return truncateToInt(grown * static_cast<float>(beyondHalf) + 1.0F);
}

/// Among the bounds offered on each of four axes, the one nearest to a centre; the first of equally
/// near ones.
class NearestBounds {
  public:
    explicit NearestBounds(Quad centreOfAll)
        : centre(centreOfAll), distance(magnitude(position - centreOfAll)) {}

    /// Offers a record's bounds, the lower one first.
    void offer(Quad lower, Quad upper) {
        // Each waits for the one before it, so the pair is decided beside that. Where a distance is
        // not a number the centre is not finite, and no bound at all is taken.
        Quad const toLower = magnitude(lower - centre);
        Quad const toUpper = magnitude(upper - centre);
        Quad const bound = select(toUpper < toLower, upper, lower);
        Quad const toBound = smaller(toUpper, toLower);
        position = select(toBound < distance, bound, position);
        distance = smaller(toBound, distance);
    }

    Quad centre;
    Quad position = splat(1e18F);

  private:
    Quad distance;
};

/// How many records reach below and above a plane; those that straddle it count twice.
struct SideCounts {
    float plane;
    std::int32_t below;
    std::int32_t above;
};

/// Counts the sides of one plane on each of four axes.
struct SideCounter {
    Quad planes;
    QuadMask below = {};
    QuadMask above = {};

    void add(Quad lower, Quad upper) {
        below -= (upper <= planes) | (lower < planes);
        above -= upper > planes;
    }
    SideCounts on(int axis) const { return {planes[axis], below[axis], above[axis]}; }
};

/// The two planes on each axis that separate records: through the centre, and along the bound that
/// is nearest to it.
struct CandidatePlanes {
    SideCounter centre;
    SideCounter bound;
};

/// The cheapest split offered so far.
///
/// Among equal costs a later split replaces an earlier one, a cut that only takes empty space off
/// does not. A cost that is not a number is never taken.
struct SplitChoice {
    double cost = static_cast<double>(1e36F);
    int axis = -1;
    float position = 0.0F;
    std::int32_t childDepth = 0;

    bool found() const { return axis >= 0; }

    void offerCut(double newCost, int newAxis, float newPosition, std::int32_t depth) {
        if (newCost < cost)
            *this = {newCost, newAxis, newPosition, depth};
    }
    void offerSplit(double newCost, int newAxis, float newPosition, std::int32_t depth) {
        if (newCost <= cost)
            *this = {newCost, newAxis, newPosition, depth + 1};
    }
};

} // namespace Kelpa
