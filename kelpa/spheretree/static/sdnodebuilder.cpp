// Parts the spheres of one node of a still tree until leaves are left.
#include "kelpa/spheretree/buildjobs.h"
#include "kelpa/spheretree/buildprogress.h"
#include "kelpa/spheretree/buildrecords.h"
#include "kelpa/spheretree/splitchoice.h"
#include "kelpa/spheretree/static/sdspheretree.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace Kelpa {

namespace {

/// What one pass over a node's records tells.
struct NodeMeasure {
    Box spheres; ///< around the records' boxes
    float smallestRadius;
};

// The bounds of a record with x, y, z first; the fourth element is whatever follows.
Quad lowerBounds(SDSphereData const& record) {
    return loadQuad(reinterpret_cast<char const*>(&record) + offsetof(SDSphereData, bbox.min));
}
Quad upperBounds(SDSphereData const& record) {
    return loadQuad(reinterpret_cast<char const*>(&record) + offsetof(SDSphereData, bbox.max));
}

Vector firstThree(Quad q) {
    return {q[0], q[1], q[2]};
}

NodeMeasure measureRecords(SDSphereRecords& data, int count) {
    Quad lowest = splat(Box::empty().min.x);
    Quad highest = splat(Box::empty().max.x);
    float smallestRadius = 1e18F;
    visitRecords(data, count, [&](SDSphereData const& record) {
        lowest = smaller(lowerBounds(record), lowest);
        highest = larger(upperBounds(record), highest);
        smallestRadius = record.radius < smallestRadius ? record.radius : smallestRadius;
    });
    return {{firstThree(lowest), firstThree(highest)}, smallestRadius};
}

Vector extents(Box const& box) {
    return {box.max.x - box.min.x, box.max.y - box.min.y, box.max.z - box.min.z};
}

// Written so that a NaN in z counts as empty, too.
bool isEmpty(Box const& box) {
    return box.min.x > box.max.x || box.min.y > box.max.y || !(box.max.z >= box.min.z);
}

// A node hardly larger than its smallest sphere gains nothing by being split.
bool isSmall(Box const& box, float smallestRadius, float minNodeSize) {
    Vector const e = extents(box);
    float const squaredDiagonal = (e.y * e.y + e.x * e.x) + e.z * e.z;
    float const smallest = std::max(3.0F * smallestRadius, minNodeSize);
    return squaredDiagonal < smallest * smallest;
}

CandidatePlanes countSides(NodeMeasure const& measure, SDSphereRecords& data, int count) {
    Vector const& lowest = measure.spheres.min;
    Vector const& highest = measure.spheres.max;
    NearestBounds nearest(Quad{highest.x, highest.y, highest.z, 0.0F} * 0.5F +
                          Quad{lowest.x, lowest.y, lowest.z, 0.0F} * 0.5F);
    visitRecords(data, count, [&nearest](SDSphereData const& record) {
        nearest.offer(lowerBounds(record), upperBounds(record));
    });
    CandidatePlanes planes{{nearest.centre}, {nearest.position}};
    visitRecords(data, count, [&planes](SDSphereData const& record) {
        planes.centre.add(lowerBounds(record), upperBounds(record));
        planes.bound.add(lowerBounds(record), upperBounds(record));
    });
    return planes;
}

/// Half the surface of the slice of a node's box that has a given length along one axis.
struct SliceArea {
    float e1; ///< extents of the box along the two other axes, in cyclic order
    float e2;

    float operator()(float length) const { return (e2 + length) * e1 + length * e2; }
};

/// The expected cost of a plane: each side's records weighted with the chance that a ray meets it.
double splitCost(SliceArea const& area, float below, float above, SideCounts const& counts) {
    return static_cast<double>(area(above) * static_cast<float>(counts.above) +
                               area(below) * static_cast<float>(counts.below));
}

SplitChoice chooseSplit(NodeMeasure const& measure, CandidatePlanes const& planes, Box const& box,
                        int count, int depth) {
    Vector const boxExtents = extents(box);
    Vector const sphereExtents = extents(measure.spheres);
    float const n = static_cast<float>(count);
    SplitChoice best;
    for (int axis = 0; axis < 3; ++axis) {
        if (sphereExtents[axis] < smallestSplitExtent)
            continue;
        SliceArea const area{boxExtents[(axis + 1) % 3], boxExtents[(axis + 2) % 3]};
        float const low = box.min[axis];
        float const high = box.max[axis];

        // Cuts that take empty space off the box.
        float const firstBound = measure.spheres.min[axis];
        if (firstBound > low)
            best.offerCut(static_cast<double>(n * area(high - firstBound)), axis, firstBound,
                          depth);
        float const lastBound = measure.spheres.max[axis];
        if (lastBound < high)
            best.offerCut(static_cast<double>(n * area(lastBound - low)), axis, lastBound, depth);

        // Splits between spheres.
        for (SideCounter const* counter : {&planes.centre, &planes.bound}) {
            SideCounts const counts = counter->on(axis);
            double const cost = splitCost(area, counts.plane - low, high - counts.plane, counts);
            best.offerSplit(cost, axis, counts.plane, depth);
        }
    }
    return best;
}

/// A record's bounds as vectors, of which the fourth element means nothing.
struct QuadBox {
    Quad min;
    Quad max;

    static QuadBox of(SDSphereData const& record) {
        return {lowerBounds(record), upperBounds(record)};
    }
    static QuadBox around(Quad center, float reach) {
        return {center - splat(reach), center + splat(reach)};
    }
    QuadBox clippedTo(QuadBox const& other) const {
        return {larger(other.min, min), smaller(other.max, max)};
    }
};

void setBounds(SDSphereData& record, QuadBox const& box) {
    static_assert(offsetof(SDSphereData, radius) == offsetof(SDSphereData, bbox.max) + 12);
    Quad const max = withFourth(box.max, record.radius);
    storeQuad(reinterpret_cast<char*>(&record) + offsetof(SDSphereData, bbox.min), box.min);
    storeQuad(reinterpret_cast<char*>(&record) + offsetof(SDSphereData, bbox.max), max);
}

constexpr QuadMask axisMasks[3] = {{-1, 0, 0, 0}, {0, -1, 0, 0}, {0, 0, -1, 0}};

/// Makes the records of the two parts of a sphere that a plane cuts, each in the tightest box, from
/// two copies of the whole's record.
///
/// The side with the centre keeps the sphere's full width; on the other side the sphere is no wider
/// than the disc in which the plane meets it.
void cutSphere(Vector const& center, int axis, float plane, SDSphereData& lower,
               SDSphereData& upper) {
    float const radius = lower.radius;
    float const d = plane - floatAt(&center, axis);
    float const squaredDisc = radius * radius - d * d;
    float const disc = squaredDisc > 0.0F ? std::sqrt(squaredDisc) : 0.0F;
    bool const isCentreBelow = d >= 0.0F;
    Quad const c = {center.x, center.y, center.z, 0.0F};
    QuadBox const whole = QuadBox::around(c, radius);
    QuadBox below = QuadBox::around(c, isCentreBelow ? radius : disc);
    QuadBox above = QuadBox::around(c, isCentreBelow ? disc : radius);
    QuadMask const isAxis = axisMasks[axis];
    below.min = select(isAxis, whole.min, below.min);
    below.max = select(isAxis, splat(plane), below.max);
    above.min = select(isAxis, splat(plane), above.min);
    above.max = select(isAxis, whole.max, above.max);
    // What the planes of the levels above left of the sphere stays left.
    QuadBox const part = QuadBox::of(lower);
    setBounds(lower, below.clippedTo(part));
    setBounds(upper, above.clippedTo(part));
}

/// Parts a node's records between the two sides of its split, cutting the spheres that straddle it;
/// false when the build was aborted on the way.
template <class Tree>
bool partRecords(Tree const& tree, SplitChoice const& split, int count,
                 Partition<SDSphereData, 20000>& parts, AbortQuestion& isAborted) {
    int const axis = split.axis;
    auto const boundOf = [axis](Vector const& bounds) { return floatAt(&bounds, axis); };
    auto const sides = [&](std::size_t, SDSphereData const& record) {
        return sidesOf(boundOf(record.bbox.min), boundOf(record.bbox.max), split.position);
    };
    auto const announce = [&tree](SDSphereData const& record) {
        tree.prefetchInBuild(record.sphereIndex);
    };
    auto const cut = [&](std::size_t, SDSphereData& lower, SDSphereData& upper) {
        cutSphere(tree.centerInBuild(lower.sphereIndex), axis, split.position, lower, upper);
        return (boundOf(lower.bbox.min) <= boundOf(lower.bbox.max) ? lowerSide : 0) |
               (boundOf(upper.bbox.min) <= boundOf(upper.bbox.max) ? upperSide : 0);
    };
    for (int done = 0; done < count;) {
        int const parted = parts.partNext(sides, announce, cut);
        if (parted == 0) {
            debug("[SDSphereTree] Error!\n");
            return true;
        }
        done += parted;
        if (isAborted(parted))
            return false;
    }
    return true;
}

/// The plane that splits a node, or none if it shall be a leaf.
template <class Tree, class Subtree>
SplitChoice decideSplit(Tree const& tree, Subtree const& node, SDSphereRecords& data) {
    if (node.count <= leafThreshold(node.depth, tree.leafSizeFactor, tree.maxDepth) ||
        node.level > std::min(tree.maxDepth, levelLimit) ||
        isBeyond(growthLimit(tree.numSpheres), tree))
        return {};
    NodeMeasure const measure = measureRecords(data, node.count);
    if (isEmpty(measure.spheres) || isSmall(node.region, measure.smallestRadius, tree.minNodeSize))
        return {};
    CandidatePlanes const planes = countSides(measure, data, node.count);
    return chooseSplit(measure, planes, node.region, node.count, node.depth);
}

/// Leaves that a thread made and the tree does not count yet: to count each of them there would
/// keep threads from working beside each other.
template <class Tree> class NewLeaves {
  public:
    explicit NewLeaves(Tree& owner) : tree(owner) {}
    NewLeaves(NewLeaves const&) = delete;
    NewLeaves& operator=(NewLeaves const&) = delete;
    ~NewLeaves() {
        addShared(tree.statNumLeaves, number);
        addShared(tree.statDepthSum, depthSum);
    }

    /// Turns a node into a leaf with the first `count` records.
    void store(typename Tree::Node& node, typename Tree::Stocks& stocks, SDSphereRecords& data,
               int count, int depth) {
        StoredRun<SDLeafSphere> const run = storeRun(stocks.entries, data, count);
        if (run.count < count)
            debug("[SDSphereTree] Error!\n");
        node.becomeLeaf(run.entries, run.count);
        ++number;
        depthSum += depth;
    }

  private:
    Tree& tree;
    std::int32_t number = 0;
    std::int32_t depthSum = 0;
};

/// What a subtree is built with.
template <class Tree> struct Workplace {
    SDSphereRecords& data;    ///< the current node's records come first
    SDSphereRecords& waiting; ///< those of postponed nodes, at the end
    typename Tree::Stocks& stocks;
    NewLeaves<Tree> leaves;
    AbortQuestion isAborted;
};

/// Builds one node. True when it was split: `current` is then its lower child, and its upper one is
/// postponed or with another thread.
template <class Tree, class Subtree>
bool buildOneNode(Tree& tree, Subtree& current, Workplace<Tree>& work,
                  std::vector<Subtree>& postponed) {
    raiseShared(tree.statMaxDepth, current.depth);
    if (current.count < 1 || work.isAborted())
        return false;
    countDeepRecords(tree, current.level, current.count);
    SplitChoice const split = decideSplit(tree, current, work.data);
    if (!split.found()) {
        work.leaves.store(*current.node, work.stocks, work.data, current.count, current.depth);
        return false;
    }

    auto* const children = work.stocks.nodes.newElements(2);
    children[0] = {};
    children[1] = {};
    current.node->becomeInner(split.axis, split.position, children);
    raiseShared(tree.innerLevels, current.level);
    Subtree lower{children, current.region, 0, split.childDepth, current.level + 1};
    Subtree upper = lower;
    upper.node = children + 1;
    lower.region.max[split.axis] = split.position;
    upper.region.min[split.axis] = split.position;

    SDSphereBuildThread* const helper =
        current.count > handOffThreshold ? claimThreadIfWorthwhile(tree) : nullptr;
    Partition parts(work.data, current.count, helper != nullptr ? helper->data : work.waiting);
    if (!partRecords(tree, split, current.count, parts, work.isAborted))
        return false;
    lower.count = parts.lowerCount;
    upper.count = parts.upperCount;

    handOffOrPostpone(helper, upper, postponed);
    current = lower;
    return true;
}

} // namespace

template <class Sphere, int NodeBlock, int LeafBlock>
void SDSphereTree<Sphere, NodeBlock, LeafBlock>::storeSpheres(Node* node, SDSphereRecords& data,
                                                              int count, int depth) {
    Stocks stocks = makeStocks(*this, false);
    NewLeaves(*this).store(*node, stocks, data, count, depth);
}

template <class Sphere, int NodeBlock, int LeafBlock>
void SDSphereTree<Sphere, NodeBlock, LeafBlock>::buildNode(Node* node, Box const& box,
                                                           SDSphereRecords& data, int count,
                                                           int depth, ProgressCallback* progress,
                                                           SDSphereRecords* scratch, int level) {
    Stocks stocks = makeStocks(*this, false);
    buildNode(node, box, data, count, depth, progress, scratch, level, stocks);
}

template <class Sphere, int NodeBlock, int LeafBlock>
void SDSphereTree<Sphere, NodeBlock, LeafBlock>::buildNode(Node* node, Box const& box,
                                                           SDSphereRecords& data, int count,
                                                           int depth, ProgressCallback* progress,
                                                           SDSphereRecords* scratch, int level,
                                                           Stocks& stocks) {
    SDSphereRecords ownScratch;
    ownScratch.allocator = data.allocator;
    Workplace<SDSphereTree> work{data, scratch == &data ? ownScratch : *scratch, stocks,
                                 NewLeaves(*this), AbortQuestion(progress, wasAborted)};
    buildSubtree(
        PostponedSubtree<Node, Box>{node, box, count, depth, level}, data, work.waiting,
        work.isAborted,
        [&](auto& current, auto& postponed) {
            return buildOneNode(*this, current, work, postponed);
        },
        [](SDSphereData const&) {});
}

template void SDSphereTree<SDSphere, 20000, 20000>::storeSpheres(Node*, SDSphereRecords&, int, int);
template void SDSphereTree<SDSphere, 20000, 20000>::buildNode(Node*, Box const&, SDSphereRecords&,
                                                              int, int, ProgressCallback*,
                                                              SDSphereRecords*, int);
template void SDSphereTree<SDSphere, 20000, 20000>::buildNode(Node*, Box const&, SDSphereRecords&,
                                                              int, int, ProgressCallback*,
                                                              SDSphereRecords*, int, Stocks&);

} // namespace Kelpa
