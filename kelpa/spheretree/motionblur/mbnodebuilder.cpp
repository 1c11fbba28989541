#include "kelpa/foundation/exceptionmsg.h"
#include "kelpa/spheretree/buildjobs.h"
#include "kelpa/spheretree/buildprogress.h"
#include "kelpa/spheretree/buildrecords.h"
#include "kelpa/spheretree/motionblur/mbspheretree.h"
#include "kelpa/spheretree/motionblur/splitjitter.h"
#include "kelpa/spheretree/motionblur/timeboxkernels.h"
#include "kelpa/spheretree/splitchoice.h"

#include <algorithm>
#include <vector>

namespace Kelpa {

namespace {

/// What one pass over a node's records tells, in the node's frame.
struct NodeMeasure {
    TimeBox spheres; ///< around the records' boxes
    float smallestRadius = 1e18F;
};

Vector meanVelocity(MBSphereRecords& data, int count) {
    double sum[3] = {0.0, 0.0, 0.0};
    visitRecords(data, count, [&sum](MBSphereData const& record) {
        for (int axis = 0; axis < 3; ++axis)
            sum[axis] += static_cast<double>(record.bbox.velocity[axis]);
    });
    float const share = 1.0F / static_cast<float>(count);
    return {static_cast<float>(sum[0]) * share, static_cast<float>(sum[1]) * share,
            static_cast<float>(sum[2]) * share};
}

NodeMeasure measureRecords(MBSphereRecords& data, int count, Vector const& velocity) {
    NodeMeasure measure{TimeBox::empty(velocity)};
    visitRecords(data, count, [&measure, &velocity](MBSphereData const& record) {
        measure.spheres.grow(inFrame(record.bbox, velocity));
        if (record.radius < measure.smallestRadius)
            measure.smallestRadius = record.radius;
    });
    return measure;
}

// A node hardly larger than its smallest sphere gains nothing by being split.
bool isSmall(Box const& box, float smallestRadius, float minNodeSize) {
    float const dx = box.max.x - box.min.x;
    float const dy = box.max.y - box.min.y;
    float const dz = box.max.z - box.min.z;
    float const squaredDiagonal = dx * dx + dy * dy + dz * dz;
    float const smallest = std::max(3.0F * smallestRadius, minNodeSize);
    return squaredDiagonal < smallest * smallest;
}

/// The two planes on one axis that separate records: through the centre, and along the nearest
/// bound.
struct AxisPlanes {
    SideCounts centre;
    SideCounts bound;
};

/// The candidate planes of all four axes, with how many records lie on their sides.
struct CandidatePlanes {
    AxisPlanes axes[4];
};

CandidatePlanes countSides(TimeBox const& spheres, MBSphereRecords& data, int count, int level) {
    NearestBound nearest[4];
    SplitJitter jitter(level);
    for (int axis = 0; axis < 4; ++axis) {
        float const f = jitter.nextFraction();
        nearest[axis].centre = (1.0F - f) * spheres.lower(axis) + f * spheres.upper(axis);
    }
    visitRecords(data, count, [&nearest, &spheres](MBSphereData const& record) {
        TimeBox const box = inFrame(record.bbox, spheres.velocity);
        for (int axis = 0; axis < 4; ++axis) {
            nearest[axis].offer(box.lower(axis));
            nearest[axis].offer(box.upper(axis));
        }
    });

    CandidatePlanes planes{};
    for (int axis = 0; axis < 4; ++axis) {
        planes.axes[axis].centre.plane = nearest[axis].centre;
        planes.axes[axis].bound.plane = nearest[axis].position;
    }
    visitRecords(data, count, [&planes, &spheres](MBSphereData const& record) {
        TimeBox const box = inFrame(record.bbox, spheres.velocity);
        for (int axis = 0; axis < 4; ++axis) {
            planes.axes[axis].centre.add(box.lower(axis), box.upper(axis));
            planes.axes[axis].bound.add(box.lower(axis), box.upper(axis));
        }
    });
    return planes;
}

/// `spheres` is the box around the records, within the region in space; `extents` are its extents
/// before it was clipped.
SplitChoice chooseSplit(TimeBox const& spheres, float const (&extents)[4],
                        CandidatePlanes const& planes, TimeBox const& region, int count,
                        int depth) {
    SplitChoice best;
    for (int axis = 0; axis < 4; ++axis) {
        if (extents[axis] < smallestSplitExtent)
            continue;

        // Cuts that take empty space, or time, off the region.
        float const firstBound = spheres.lower(axis);
        if (region.lower(axis) < firstBound)
            best.offerCut(bboxSum(region, axis, firstBound, 0, count), axis, firstBound, depth);
        float const lastBound = spheres.upper(axis);
        if (region.upper(axis) > lastBound)
            best.offerCut(bboxSum(region, axis, lastBound, count, 0), axis, lastBound, depth);

        // Splits between records.
        for (SideCounts const* counts : {&planes.axes[axis].centre, &planes.axes[axis].bound}) {
            double const cost = bboxSum(region, axis, counts->plane, counts->below, counts->above);
            best.offerSplit(cost, axis, counts->plane, depth);
        }
    }
    return best;
}

/// Whether the records that straddle the axis' centre would be doubled more often than a node at
/// this depth may: 4/3 of the count over the whole tree, from 7/3 of it at the root to none at the
/// deepest.
bool doublesTooMany(SideCounts const& centre, int count, int depth, int maxDepth) {
    float const placed = static_cast<float>(static_cast<std::int64_t>(centre.below) + centre.above);
    float const third = static_cast<float>(count) * (1.0F / 3.0F);
    float const allowance =
        7.0F + (-4.0F * static_cast<float>(depth)) / static_cast<float>(maxDepth);
    return placed >= third * allowance;
}

/// What becomes of a node.
struct NodeDecision {
    TimeBox region;    ///< what the node is responsible for, in its own frame
    SplitChoice split; ///< none: the node shall be a leaf
};

template <class Tree, class Subtree>
NodeDecision decideSplit(Tree const& tree, Subtree const& node, MBSphereRecords& data) {
    Vector const velocity = meanVelocity(data, node.count);
    NodeMeasure measure = measureRecords(data, node.count, velocity);
    TimeBox& spheres = measure.spheres;
    float extents[4];
    for (int axis = 0; axis < 4; ++axis)
        extents[axis] = spheres.upper(axis) - spheres.lower(axis);
    NodeDecision decision{inFrame(node.region, velocity), {}};
    for (int axis = 0; axis < 3; ++axis) {
        spheres.box.min[axis] = std::max(spheres.box.min[axis], decision.region.box.min[axis]);
        spheres.box.max[axis] = std::min(spheres.box.max[axis], decision.region.box.max[axis]);
    }

    if (node.level > std::min(tree.maxDepth, levelLimit) ||
        tree.leafSpheres.getCount() > entryBudget(tree.numSpheres) ||
        node.count < leafThreshold(node.depth, tree.leafSizeFactor, tree.maxDepth) ||
        isSmall(decision.region.box, measure.smallestRadius, tree.minNodeSize))
        return decision;
    CandidatePlanes const planes = countSides(spheres, data, node.count, node.level);
    SplitChoice const split =
        chooseSplit(spheres, extents, planes, decision.region, node.count, node.depth);
    if (split.found() &&
        !doublesTooMany(planes.axes[split.axis].centre, node.count, node.depth, tree.maxDepth))
        decision.split = split;
    return decision;
}

/// Parts a node's records between the two sides of its split, cutting those that straddle it; false
/// when the build was aborted on the way.
bool partRecords(SplitChoice const& split, Vector const& velocity, int count,
                 Partition<MBSphereData, 20000>& parts, AbortQuestion& isAborted) {
    int const axis = split.axis;
    for (int i = 0; i < count; ++i) {
        MBSphereData const* const record = parts.read();
        if (record == nullptr)
            return true;
        TimeBox const box = inFrame(record->bbox, velocity);
        if (box.upper(axis) <= split.position) {
            parts.keepLower(*record);
        } else if (box.lower(axis) >= split.position) {
            parts.sendUpper(*record);
        } else {
            MBSphereData upperPart{record->sphereIndex, box, record->radius};
            MBSphereData lowerPart = upperPart;
            upperPart.bbox.lower(axis) = split.position;
            lowerPart.bbox.upper(axis) = split.position;
            parts.sendUpper(upperPart);
            parts.keepLower(lowerPart);
        }
        if (isAborted())
            return false;
    }
    return true;
}

/// Builds one node. True when it was split: `current` is then its lower child, and its upper one is
/// postponed or with another thread.
template <class Tree, class Subtree>
bool buildOneNode(Tree& tree, Subtree& current, MBSphereRecords& data, MBSphereRecords& scratch,
                  std::vector<Subtree>& postponed, AbortQuestion& isAborted) {
    if (current.count < 1 || isAborted())
        return false;
    raiseShared(tree.statMaxDepth, current.level);
    NodeDecision const decision = decideSplit(tree, current, data);
    SplitChoice const& split = decision.split;
    Vector const& velocity = decision.region.velocity;
    if (!split.found()) {
        current.node->velocity = velocity;
        tree.storeSpheres(current.node, data, current.count);
        return false;
    }

    auto* const children = tree.nodes.newElements(2);
    children[0] = {};
    children[1] = {};
    current.node->velocity = velocity;
    current.node->becomeInner(split.axis, split.position, children);
    Subtree lower{children, decision.region, 0, split.childDepth, current.level + 1};
    Subtree upper = lower;
    upper.node = children + 1;
    lower.region.upper(split.axis) = split.position;
    upper.region.lower(split.axis) = split.position;

    MBSphereBuildThread* const helper =
        current.count > handOffThreshold ? claimThreadIfWorthwhile(tree) : nullptr;
    Partition parts(data, helper != nullptr ? helper->data : scratch);
    if (!partRecords(split, velocity, current.count, parts, isAborted))
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
void MBSphereTree<Sphere, NodeBlock, LeafBlock>::storeSpheres(Node* node, MBSphereRecords& data,
                                                              int count) {
    if (count > Node::mostLeafSpheres)
        throw ExceptionMsg("[MBSphereTree] A leaf of %i spheres is larger than %i; let the tree be "
                           "deeper (maxDepth, minNodeSize)",
                           count, Node::mostLeafSpheres);
    StoredRun<MBLeafSphere> const run = storeRun(leafSpheres, data, count);
    node->becomeLeaf(run.entries, run.count);
}

// The two recursions of a node are unrolled: the lower child is the next node of the loop, the
// upper one waits in a list on the heap. So a deep tree needs no deep call stack, which worker
// threads of a host may not have.
template <class Sphere, int NodeBlock, int LeafBlock>
void MBSphereTree<Sphere, NodeBlock, LeafBlock>::buildNode(Node* node, TimeBox const& box,
                                                           MBSphereRecords& data, int count,
                                                           int depth, ProgressCallback* progress,
                                                           MBSphereRecords* scratch, int level) {
    using Subtree = PostponedSubtree<Node, TimeBox>;
    AbortQuestion isAborted(progress);
    std::vector<Subtree> postponed;
    Subtree current{node, box, count, depth, level};
    for (;;) {
        while (buildOneNode(*this, current, data, *scratch, postponed, isAborted))
            continue;
        // Once aborted, every postponed subtree is given up, each after one more question.
        do {
            if (postponed.empty())
                return;
            current = postponed.back();
            postponed.pop_back();
        } while (isAborted());
        moveBack(data, *scratch, current.count);
    }
}

template void MBSphereTree<MBSphere, 20000, 20000>::storeSpheres(Node*, MBSphereRecords&, int);
template void MBSphereTree<MBSphere, 20000, 20000>::buildNode(Node*, TimeBox const&,
                                                              MBSphereRecords&, int, int,
                                                              ProgressCallback*, MBSphereRecords*,
                                                              int);

} // namespace Kelpa
