// Distances from samples to their nearest neighbours among all points.
#include "pipeline/scene/spacing.h"

#include "kelpa/foundation/usableparticles.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>

// Some points are samples. Each has a ball that reaches to its sixth nearest neighbour among the
// points seen so far. All points are passed through the balls, first a few of them spread over the
// file, then more, then all: so balls are small before the many points come, and most points fall
// outside all of them.

namespace pipeline {

namespace {

constexpr std::size_t sampleCount = 2000;
constexpr std::size_t neighborCount = 6;

/// Points are compared in double precision: squares of all floats fit.
struct Point {
    double at[3];
};

Point pointOf(Kelpa::Vector const& position) {
    return {{position.x, position.y, position.z}};
}

double squaredDistance(Point const& a, Point const& b) {
    double const x = a.at[0] - b.at[0];
    double const y = a.at[1] - b.at[1];
    double const z = a.at[2] - b.at[2];
    return (x * x + y * y) + z * z;
}

bool same(Point const& a, Point const& b) {
    return a.at[0] == b.at[0] && a.at[1] == b.at[1] && a.at[2] == b.at[2];
}

/// A sample and the nearest other places met so far, nearest first.
struct Sample {
    Point center{};
    Point neighbors[neighborCount]{};
    double squares[neighborCount]{}; ///< squared distances of `neighbors`
    std::size_t count = 0;

    /// How far its ball reaches, squared.
    double reach() const {
        return count < neighborCount ? std::numeric_limits<double>::infinity()
                                     : squares[neighborCount - 1];
    }

    /// The same where there are fewer than six other places: to the farthest of them.
    double farthest() const { return count > 0 ? squares[count - 1] : 0.0; }

    /// The radius of its ball, or what `cut` (squared) leaves of it; a hair more than the root,
    /// which may have been rounded down.
    double radius(double cut) const { return std::sqrt(std::min(cut, reach())) * (1.0 + 1e-12); }

    /// Takes in a point that is closer than the farthest neighbour. Points at one place count once,
    /// and not at all at the sample's own: copies of particles would make every distance 0.
    void meet(Point const& point) {
        double const square = squaredDistance(center, point);
        if (!(square < reach()) || square == 0.0)
            return;
        for (std::size_t i = 0; i < count; ++i)
            if (same(neighbors[i], point))
                return;
        std::size_t slot = count < neighborCount ? count++ : neighborCount - 1;
        for (; slot > 0 && squares[slot - 1] > square; --slot) {
            squares[slot] = squares[slot - 1];
            neighbors[slot] = neighbors[slot - 1];
        }
        squares[slot] = square;
        neighbors[slot] = point;
    }
};

/// Finds the balls that hold a point: a binary tree over samples, halved at the median of the
/// longest axis, each node with the box of its balls. Nodes are stored in preorder.
class BallTree {
  public:
    explicit BallTree(std::vector<Sample>& samplesToSort) : samples(samplesToSort) {
        build(0, samples.size());
    }

    /// Fits the boxes to the balls as they are now, none reaching further than `cut` (squared).
    void fit(double cut) {
        constexpr double infinity = std::numeric_limits<double>::infinity();
        for (Node& node : nodes) {
            std::fill(node.low, node.low + 3, infinity);
            std::fill(node.high, node.high + 3, -infinity);
            for (std::size_t i = node.first; i < node.last; ++i) {
                double const radius = samples[i].radius(cut);
                for (std::size_t axis = 0; axis < 3; ++axis) {
                    double const center = samples[i].center.at[axis];
                    node.low[axis] = std::min(node.low[axis], center - radius);
                    node.high[axis] = std::max(node.high[axis], center + radius);
                }
            }
        }
    }

    void meet(Point const& point) {
        // Preorder needs no stack: a node that misses the point is left for the one behind it.
        for (std::size_t index = 0; index < nodes.size();) {
            Node const& node = nodes[index];
            if (!node.holds(point)) {
                index = node.behind;
                continue;
            }
            if (node.isLeaf())
                for (std::size_t i = node.first; i < node.last; ++i)
                    samples[i].meet(point);
            ++index;
        }
    }

  private:
    struct Node {
        double low[3];
        double high[3];
        std::size_t first; ///< its samples are [first, last)
        std::size_t last;
        std::size_t behind; ///< the node behind its subtree

        bool isLeaf() const { return last - first <= leafSize; }
        bool holds(Point const& point) const {
            return point.at[0] >= low[0] && point.at[0] <= high[0] && point.at[1] >= low[1] &&
                   point.at[1] <= high[1] && point.at[2] >= low[2] && point.at[2] <= high[2];
        }
    };
    static constexpr std::size_t leafSize = 2;

    void build(std::size_t first, std::size_t last) {
        std::size_t const index = nodes.size();
        nodes.push_back({{}, {}, first, last, 0});
        if (!nodes[index].isLeaf()) {
            std::size_t const axis = longestAxis(first, last);
            std::size_t const middle = first + (last - first) / 2;
            auto const at = [&](std::size_t i) {
                return samples.begin() + static_cast<std::ptrdiff_t>(i);
            };
            std::nth_element(at(first), at(middle), at(last),
                             [axis](Sample const& a, Sample const& b) {
                                 return a.center.at[axis] < b.center.at[axis];
                             });
            build(first, middle);
            build(middle, last);
        }
        nodes[index].behind = nodes.size();
    }

    std::size_t longestAxis(std::size_t first, std::size_t last) const {
        std::size_t longest = 0;
        double length = -1.0;
        for (std::size_t axis = 0; axis < 3; ++axis) {
            double low = samples[first].center.at[axis];
            double high = low;
            for (std::size_t i = first; i < last; ++i) {
                low = std::min(low, samples[i].center.at[axis]);
                high = std::max(high, samples[i].center.at[axis]);
            }
            if (high - low > length) {
                length = high - low;
                longest = axis;
            }
        }
        return longest;
    }

    std::vector<Sample>& samples;
    std::vector<Node> nodes;
};

/// Tells most points quickly that they lie in no ball: a grid of marks over the middle of the
/// samples. Points outside of it, such as far outliers, may lie in a ball.
class CellFilter {
  public:
    CellFilter(std::vector<Sample> const& samples, double cut) : marks(cells * cells * cells) {
        for (std::size_t axis = 0; axis < 3; ++axis) {
            std::vector<double> centers;
            for (Sample const& sample : samples)
                centers.push_back(sample.center.at[axis]);
            std::sort(centers.begin(), centers.end());
            low[axis] = centers[centers.size() / 20];
            high[axis] = centers[centers.size() - 1 - centers.size() / 20];
            scale[axis] = high[axis] > low[axis] ? cells / (high[axis] - low[axis]) : 0.0;
        }
        for (Sample const& sample : samples)
            markBox(sample.center, sample.radius(cut));
    }

    bool mayHold(Point const& point) const {
        std::size_t index = 0;
        for (std::size_t axis = 0; axis < 3; ++axis) {
            if (!(point.at[axis] >= low[axis] && point.at[axis] <= high[axis]))
                return true;
            index = index * cells + cellOf(point.at[axis], axis);
        }
        return marks[index] || marksSpent > mostMarks;
    }

  private:
    static constexpr std::size_t cells = 128;           // per axis; the marks fit the cache
    static constexpr std::size_t mostMarks = 4'000'000; // balls that large let all points through

    /// Rises with the coordinate, so what lies between two points lies between their cells.
    std::size_t cellOf(double at, std::size_t axis) const {
        double const clamped = std::clamp(at, low[axis], high[axis]);
        return std::min(cells - 1, static_cast<std::size_t>((clamped - low[axis]) * scale[axis]));
    }

    void markBox(Point const& center, double radius) {
        std::size_t from[3];
        std::size_t to[3];
        std::size_t count = 1;
        for (std::size_t axis = 0; axis < 3; ++axis) {
            from[axis] = cellOf(center.at[axis] - radius, axis);
            to[axis] = cellOf(center.at[axis] + radius, axis);
            count *= to[axis] - from[axis] + 1;
        }
        marksSpent += count;
        if (marksSpent > mostMarks)
            return;
        for (std::size_t x = from[0]; x <= to[0]; ++x)
            for (std::size_t y = from[1]; y <= to[1]; ++y)
                for (std::size_t z = from[2]; z <= to[2]; ++z)
                    marks[(x * cells + y) * cells + z] = true;
    }

    std::vector<bool> marks;
    std::size_t marksSpent = 0;
    double low[3];
    double high[3];
    double scale[3];
};

/// A number in [0, count) that looks random: where to look within the n-th of many equal stretches.
/// Looking at the same place of each would fall in step with files whose rows repeat a pattern.
std::size_t jitter(std::size_t n, std::size_t count) {
    constexpr std::uint64_t seed = 3333;
    std::uint64_t bits = (n + seed) * 0x9e3779b97f4a7c15U;
    bits = (bits ^ (bits >> 30)) * 0xbf58476d1ce4e5b9U;
    return static_cast<std::size_t>(((bits >> 32) * static_cast<std::uint64_t>(count)) >> 32);
}

/// Takes about `sampleCount` of the finite points, spread over the file, each place once.
std::vector<Sample> takeSamples(std::vector<Kelpa::Vector> const& positions) {
    std::size_t const finite = static_cast<std::size_t>(
        std::count_if(positions.begin(), positions.end(), Kelpa::isFinite));
    std::size_t const wanted = std::min(finite, sampleCount);
    std::vector<Point> places;
    std::size_t rank = 0; // among the finite points
    std::size_t next = 0; // the rank of the next sample: one from each of equal stretches
    for (std::size_t i = 0; i < positions.size() && places.size() < wanted; ++i) {
        if (!Kelpa::isFinite(positions[i]) || rank++ != next)
            continue;
        places.push_back(pointOf(positions[i]));
        std::size_t const start = places.size() * finite / wanted;
        next = start + jitter(places.size(), finite / wanted);
    }
    auto const before = [](Point const& a, Point const& b) {
        return std::lexicographical_compare(a.at, a.at + 3, b.at, b.at + 3);
    };
    std::sort(places.begin(), places.end(), before);
    places.erase(std::unique(places.begin(), places.end(), same), places.end());
    std::vector<Sample> samples(places.size());
    for (std::size_t i = 0; i < samples.size(); ++i)
        samples[i].center = places[i];
    return samples;
}

/// The middle one of what `squareOf` says of the samples.
double medianSquare(std::vector<Sample> const& samples, double (Sample::*squareOf)() const) {
    std::vector<double> squares;
    for (Sample const& sample : samples)
        squares.push_back((sample.*squareOf)());
    auto const middle = squares.begin() + static_cast<std::ptrdiff_t>(squares.size() / 2);
    std::nth_element(squares.begin(), middle, squares.end());
    return *middle;
}

} // namespace

float radiusFromSpacing(std::vector<Kelpa::Vector> const& positions,
                        PhaseProgress const& progress) {
    constexpr std::size_t firstPass = 4000; // points, every one against almost every ball
    constexpr std::size_t growth = 8;       // balls shrink by half from pass to pass
    constexpr std::size_t pollEvery = 1 << 11;
    std::vector<Sample> samples = takeSamples(positions);
    if (samples.empty())
        return 0.0F;
    BallTree tree(samples);
    std::size_t stride = 1;
    while (positions.size() / (stride * growth) >= firstPass)
        stride *= growth;
    for (;; stride /= growth) {
        // Further points only shrink balls, so the median lies below the one of now, and balls that
        // reach beyond it need not be exact, only larger.
        double const cut = medianSquare(samples, &Sample::reach);
        tree.fit(cut);
        CellFilter const filter(samples, cut);
        for (std::size_t n = 0; n * stride < positions.size(); ++n) {
            if (progress && n % pollEvery == 0)
                progress(static_cast<double>(n * stride) / static_cast<double>(positions.size()),
                         n * stride);
            std::size_t const index = n * stride + jitter(n, stride);
            if (index >= positions.size())
                continue;
            Point const point = pointOf(positions[index]);
            if (filter.mayHold(point))
                tree.meet(point); // a NaN lies in no box
        }
        if (stride == 1)
            break;
    }
    double square = medianSquare(samples, &Sample::reach);
    if (!std::isfinite(square))
        square = medianSquare(samples, &Sample::farthest);
    double const radius = 0.5 * std::sqrt(square);
    return static_cast<float>(
        std::min(radius, static_cast<double>(std::numeric_limits<float>::max())));
}

} // namespace pipeline
