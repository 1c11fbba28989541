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
        nearest.offer(lowerBounds(record));
        nearest.offer(upperBounds(record));
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

Box around(Vector const& center, float radius) {
    return {{center.x - radius, center.y - radius, center.z - radius},
            {center.x + radius, center.y + radius, center.z + radius}};
}

void clipTo(Box& box, Box const& other) {
    for (int axis = 0; axis < 3; ++axis) {
        box.min[axis] = std::max(box.min[axis], other.min[axis]);
        box.max[axis] = std::min(box.max[axis], other.max[axis]);
    }
}

/// The two parts of a sphere that a plane cuts, each in the tightest box.
struct CutSphere {
    Box lower;
    Box upper;
};

// The side with the centre keeps the sphere's full width; on the other side the sphere is no wider
// than the disc in which the plane meets it.
CutSphere cutSphere(Vector const& center, float radius, Box const& part, int axis, float plane) {
    float const d = plane - center[axis];
    float const squaredDisc = radius * radius - d * d;
    float const disc = squaredDisc > 0.0F ? std::sqrt(squaredDisc) : 0.0F;
    Box const whole = around(center, radius);
    Box const narrow = around(center, disc);
    CutSphere cut = d >= 0.0F ? CutSphere{whole, narrow} : CutSphere{narrow, whole};
    cut.lower.min[axis] = whole.min[axis];
    cut.lower.max[axis] = plane;
    cut.upper.min[axis] = plane;
    cut.upper.max[axis] = whole.max[axis];
    // What the planes of the levels above left of the sphere stays left.
    clipTo(cut.lower, part);
    clipTo(cut.upper, part);
    return cut;
}

constexpr int prefetchDistance = 24; // records, of a few nanoseconds each

/// Parts a node's records between the two sides of its split, cutting the spheres that straddle it;
/// false when the build was aborted on the way.
template <class Tree>
bool partRecords(Tree const& tree, SplitChoice const& split, int count,
                 Partition<SDSphereData, 20000>& parts, AbortQuestion& isAborted) {
    int const axis = split.axis;
    for (int i = 0; i < count; ++i) {
        SDSphereData const* const record = parts.read();
        if (record == nullptr) {
            debug("[SDSphereTree] Error!\n");
            return true;
        }
        // A sphere that will be cut has to come from memory by then.
        if (SDSphereData const* const ahead = parts.peek(prefetchDistance)) {
            bool const isCut =
                (split.position < ahead->bbox.max[axis]) & (split.position > ahead->bbox.min[axis]);
            tree.prefetchSphere(isCut ? ahead->sphereIndex : record->sphereIndex);
        }
        if (split.position >= record->bbox.max[axis]) {
            parts.keepLower(*record);
        } else if (split.position <= record->bbox.min[axis]) {
            parts.sendUpper(*record);
        } else {
            CutSphere const cut = cutSphere(tree.centerOf(record->sphereIndex), record->radius,
                                            record->bbox, axis, split.position);
            SDSphereData part = *record;
            part.bbox = cut.upper;
            if (part.bbox.min[axis] <= part.bbox.max[axis])
                parts.sendUpper(part);
            part.bbox = cut.lower;
            if (part.bbox.min[axis] <= part.bbox.max[axis])
                parts.keepLower(part);
        }
        if (isAborted())
            return false;
    }
    return true;
}

/// The plane that splits a node, or none if it shall be a leaf.
template <class Tree, class Subtree>
SplitChoice decideSplit(Tree const& tree, Subtree const& node, SDSphereRecords& data) {
    NodeMeasure const measure = measureRecords(data, node.count);
    if (isEmpty(measure.spheres) ||
        node.count <= leafThreshold(node.depth, tree.leafSizeFactor, tree.maxDepth) ||
        node.level > std::min(tree.maxDepth, levelLimit) ||
        isBeyond(growthLimit(tree.numSpheres), tree) ||
        isSmall(node.region, measure.smallestRadius, tree.minNodeSize))
        return {};
    CandidatePlanes const planes = countSides(measure, data, node.count);
    return chooseSplit(measure, planes, node.region, node.count, node.depth);
}

/// Builds one node. True when it was split: `current` is then its lower child, and its upper one is
/// postponed or with another thread.
template <class Tree, class Subtree>
bool buildOneNode(Tree& tree, Subtree& current, SDSphereRecords& data, SDSphereRecords& scratch,
                  std::vector<Subtree>& postponed, AbortQuestion& isAborted) {
    raiseShared(tree.statMaxDepth, current.depth);
    if (current.count < 1 || isAborted())
        return false;
    SplitChoice const split = decideSplit(tree, current, data);
    if (!split.found()) {
        tree.storeSpheres(current.node, data, current.count, current.depth);
        return false;
    }

    auto* const children = tree.nodes.newElements(2);
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
    Partition parts(data, helper != nullptr ? helper->data : scratch);
    if (!partRecords(tree, split, current.count, parts, isAborted))
        return false;
    lower.count = parts.lowerCount;
    upper.count = parts.upperCount;

    if (helper == nullptr) {
        postponed.push_back(upper);
    } else {
        helper->box = upper.region;
        helper->node = upper.node;
        helper->depth = upper.depth;
        helper->level = upper.level;
        helper->start();
    }
    current = lower;
    return true;
}

} // namespace

template <class Sphere, int NodeBlock, int LeafBlock>
void SDSphereTree<Sphere, NodeBlock, LeafBlock>::storeSpheres(Node* node, SDSphereRecords& data,
                                                              int count, int depth) {
    StoredRun<SDLeafSphere> const run = storeRun(leafSpheres, data, count);
    if (run.count < count)
        debug("[SDSphereTree] Error!\n");
    node->becomeLeaf(run.entries, run.count);
    addShared(statNumLeaves, 1);
    addShared(statDepthSum, depth);
}

template <class Sphere, int NodeBlock, int LeafBlock>
void SDSphereTree<Sphere, NodeBlock, LeafBlock>::buildNode(Node* node, Box const& box,
                                                           SDSphereRecords& data, int count,
                                                           int depth, ProgressCallback* progress,
                                                           SDSphereRecords* scratch, int level) {
    AbortQuestion isAborted(progress, wasAborted);
    buildSubtree(PostponedSubtree<Node, Box>{node, box, count, depth, level}, data, *scratch,
                 isAborted, [&](auto& current, auto& postponed) {
                     return buildOneNode(*this, current, data, *scratch, postponed, isAborted);
                 });
}

template void SDSphereTree<SDSphere, 20000, 20000>::storeSpheres(Node*, SDSphereRecords&, int, int);
template void SDSphereTree<SDSphere, 20000, 20000>::buildNode(Node*, Box const&, SDSphereRecords&,
                                                              int, int, ProgressCallback*,
                                                              SDSphereRecords*, int);

} // namespace Kelpa
