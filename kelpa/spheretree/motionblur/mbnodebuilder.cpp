// Parts the spheres of one node of a moving tree, in space or in time, until leaves are left.
#include "kelpa/foundation/exceptionmsg.h"
#include "kelpa/spheretree/buildjobs.h"
#include "kelpa/spheretree/buildmemory.h"
#include "kelpa/spheretree/buildprogress.h"
#include "kelpa/spheretree/buildrecords.h"
#include "kelpa/spheretree/motionblur/mbspheretree.h"
#include "kelpa/spheretree/motionblur/splitjitter.h"
#include "kelpa/spheretree/motionblur/timeboxkernels.h"
#include "kelpa/spheretree/splitchoice.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace Kelpa {

namespace {

/// A node's records as its frame sees them, one span per record, in their order. Those of a large
/// node are not kept: at the root they would take more than half of what the records take, and
/// making them again is no slower than reading them from memory.
class Spans {
  public:
    /// For a tree of so many spheres.
    explicit Spans(std::int32_t numSpheres) : mostKept(mostKeptFor(numSpheres)) {}

    /// How many are kept: up to what the last of a processor's caches may hold, and no more than
    /// take a byte a sphere of a large tree.
    static std::int32_t mostKeptFor(std::int32_t numSpheres) {
        constexpr std::int32_t perSpan = sizeof(FrameSpan);
        return std::clamp(numSpheres / perSpan, 1 << 16, 1 << 18);
    }

    /// Sees all records in the frame of `velocity` and shows the spans to `visit`, with the
    /// records.
    template <class Visit>
    void make(MBSphereRecords& data, std::int32_t count, Vector const& velocity, Visit visit) {
        frame = Quad{velocity.x, velocity.y, velocity.z, 0.0F};
        isKept = count <= mostKept;
        if (isKept && spans.size() < static_cast<std::size_t>(count))
            spans.resize(static_cast<std::size_t>(count));
        if (!isKept) {
            visitRecords(data, count,
                         [&](MBSphereData const& record) { visit(of(record), record); });
            return;
        }
        FrameSpan* next = spans.data();
        kept = static_cast<std::size_t>(visitRecords(data, count, [&](MBSphereData const& record) {
            FrameSpan const span = of(record);
            *next++ = span;
            visit(span, record);
        }));
    }

    /// Shows the spans of the same records once more.
    template <class Visit>
    void visit(MBSphereRecords& data, std::int32_t count, Visit visit) const {
        if (!isKept)
            visitRecords(data, count, [&](MBSphereData const& record) { visit(of(record)); });
        else
            std::for_each_n(spans.begin(), kept, visit);
    }

    bool areKept() const { return isKept; }
    FrameSpan const& operator[](std::size_t i) const { return spans[i]; }
    FrameSpan of(MBSphereData const& record) const { return spanInFrame(record.bbox, frame); }

  private:
    std::int32_t mostKept;
    std::vector<FrameSpan> spans; // never shrinks: growing writes to what is written again
    std::size_t kept = 0;
    Quad frame = {};
    bool isKept = false;
};

/// The sum of a node's velocities, which is made along the way, as its records are put in place.
class VelocitySum {
  public:
    void add(MBSphereData const& record) {
        for (int axis = 0; axis < 3; ++axis)
            sum[axis] += static_cast<double>(record.bbox.velocity[axis]);
    }
    Vector mean(int count) const {
        float const share = 1.0F / static_cast<float>(count);
        return {static_cast<float>(sum[0]) * share, static_cast<float>(sum[1]) * share,
                static_cast<float>(sum[2]) * share};
    }

  private:
    double sum[3] = {0.0, 0.0, 0.0};
};

/// What one pass over a node's records tells, in the node's frame.
struct NodeMeasure {
    FrameSpan spheres; ///< around the records' boxes
    float smallestRadius;
};

/// Measures the records, and sees all of them in the frame of `velocity`.
NodeMeasure measureRecords(MBSphereRecords& data, int count, Vector const& velocity, Spans& spans) {
    Quad lowest = splat(Box::empty().min.x);
    Quad highest = splat(Box::empty().max.x);
    float smallestRadius = 1e18F;
    spans.make(data, count, velocity, [&](FrameSpan const& span, MBSphereData const& record) {
        lowest = smaller(span.lower, lowest);
        highest = larger(span.upper, highest);
        smallestRadius = record.radius < smallestRadius ? record.radius : smallestRadius;
    });
    return {{lowest, highest}, smallestRadius};
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

CandidatePlanes countSides(FrameSpan const& spheres, MBSphereRecords& data, int count,
                           Spans const& spans, int level) {
    Quad const f = splitFractions(level);
    NearestBounds nearest{(1.0F - f) * spheres.lower + f * spheres.upper};
    spans.visit(data, count,
                [&nearest](FrameSpan const& span) { nearest.offer(span.lower, span.upper); });
    CandidatePlanes planes{{nearest.centre}, {nearest.position}};
    spans.visit(data, count, [&planes](FrameSpan const& span) {
        planes.centre.add(span.lower, span.upper);
        planes.bound.add(span.lower, span.upper);
    });
    return planes;
}

/// `spheres` is the box around the records, within the region in space; `extents` are its extents
/// before it was clipped.
SplitChoice chooseSplit(FrameSpan const& spheres, Quad extents, CandidatePlanes const& planes,
                        TimeBox const& region, int count, int depth) {
    SplitChoice best;
    for (int axis = 0; axis < 4; ++axis) {
        if (extents[axis] < smallestSplitExtent)
            continue;

        // Cuts that take empty space, or time, off the region.
        float const firstBound = spheres.lower[axis];
        if (region.lower(axis) < firstBound)
            best.offerCut(bboxSum(region, axis, firstBound, 0, count), axis, firstBound, depth);
        float const lastBound = spheres.upper[axis];
        if (region.upper(axis) > lastBound)
            best.offerCut(bboxSum(region, axis, lastBound, count, 0), axis, lastBound, depth);

        // Splits between records.
        for (SideCounter const* counter : {&planes.centre, &planes.bound}) {
            SideCounts const counts = counter->on(axis);
            double const cost = bboxSum(region, axis, counts.plane, counts.below, counts.above);
            best.offerSplit(cost, axis, counts.plane, depth);
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

template <class Tree> GrowthLimit growthLimitOf(Tree const& tree) {
    return tree.numOutsideShutter > 0 ? growthLimitOutsideShutter(tree.numSpheres)
                                      : growthLimit(tree.numSpheres);
}

/// What becomes of a node.
struct NodeDecision {
    TimeBox region;    ///< what the node is responsible for, in its own frame
    SplitChoice split; ///< none: the node shall be a leaf
};

template <class Tree, class Subtree>
NodeDecision decideSplit(Tree const& tree, Subtree const& node, Vector const& velocity,
                         MBSphereRecords& data, Spans& spans) {
    NodeDecision decision{inFrame(node.region, velocity), {}};
    if (node.level > std::min(tree.maxDepth, levelLimit) || isBeyond(growthLimitOf(tree), tree) ||
        node.count < leafThreshold(node.depth, tree.leafSizeFactor, tree.maxDepth))
        return decision;
    NodeMeasure const measure = measureRecords(data, node.count, velocity, spans);
    if (isSmall(decision.region.box, measure.smallestRadius, tree.minNodeSize))
        return decision;

    // In space the records' bounds count only as far as they lie in the region.
    FrameSpan spheres = measure.spheres;
    Quad const extents = spheres.upper - spheres.lower;
    for (int axis = 0; axis < 3; ++axis) {
        spheres.lower[axis] = std::max(spheres.lower[axis], decision.region.box.min[axis]);
        spheres.upper[axis] = std::min(spheres.upper[axis], decision.region.box.max[axis]);
    }
    CandidatePlanes const planes = countSides(spheres, data, node.count, spans, node.level);
    SplitChoice const split =
        chooseSplit(spheres, extents, planes, decision.region, node.count, node.depth);
    if (split.found() &&
        !doublesTooMany(planes.centre.on(split.axis), node.count, node.depth, tree.maxDepth))
        decision.split = split;
    return decision;
}

/// Gives a record the bounds that a node sees it in.
void putInFrame(MBSphereData& record, FrameSpan const& span, Vector const& velocity) {
    record.bbox = {velocity,
                   {{span.lower[0], span.lower[1], span.lower[2]},
                    {span.upper[0], span.upper[1], span.upper[2]}},
                   span.lower[3],
                   span.upper[3]};
}

/// Parts a node's records between the two sides of its split, cutting those that straddle it; false
/// when the build was aborted on the way. `spanOf(i, record)` is the span of record number i.
template <class SpanOf>
bool partRecords(SplitChoice const& split, Vector const& velocity, SpanOf spanOf,
                 Partition<MBSphereData, 20000>& parts, VelocitySum& lowerVelocities,
                 AbortQuestion& isAborted) {
    int const axis = split.axis;
    auto const sides = [&](std::size_t i, MBSphereData const& record) {
        FrameSpan const& span = spanOf(i, record);
        return sidesOf(floatAt(&span.lower, axis), floatAt(&span.upper, axis), split.position);
    };
    auto const cut = [&](std::size_t i, MBSphereData& lower, MBSphereData& upper) {
        putInFrame(lower, spanOf(i, lower), velocity);
        upper.bbox = lower.bbox;
        lower.bbox.upper(axis) = split.position;
        upper.bbox.lower(axis) = split.position;
        return bothSides;
    };
    while (int const parted = parts.partNext(
               sides, [](MBSphereData const&) {}, cut)) {
        for (MBSphereData const& record : parts.newestLower)
            lowerVelocities.add(record);
        if (isAborted(parted))
            return false;
    }
    return true;
}

/// Turns a node, whose velocity is set, into a leaf with the first `count` records.
template <class Tree>
void storeLeaf(typename Tree::Node& node, typename Tree::Stocks& stocks, MBSphereRecords& data,
               int count) {
    constexpr std::int32_t most = Tree::Node::mostLeafSpheres;
    if (count < 1)
        return node.becomeLeaf(nullptr, 0);
    if (count > most)
        throw ExceptionMsg("[MBSphereTree] A leaf of %i spheres is larger than %i; let the tree be "
                           "deeper (maxDepth, minNodeSize)",
                           count, most);
    StoredRun<MBLeafSphere> const run = storeRun(stocks.entries, data, count);
    node.becomeLeaf(run.entries, run.count);
}

/// What a subtree is built with.
template <class Tree> struct Workplace {
    MBSphereRecords& data;    ///< the current node's records come first
    MBSphereRecords& waiting; ///< those of postponed nodes, at the end
    typename Tree::Stocks& stocks;
    AbortQuestion isAborted;
    Spans spans;
    VelocitySum velocities = {}; ///< of the current node's records
};

/// Builds one node. True when it was split: `current` is then its lower child, and its upper one is
/// postponed or with another thread.
template <class Tree, class Subtree>
bool buildOneNode(Tree& tree, Subtree& current, Workplace<Tree>& work,
                  std::vector<Subtree>& postponed) {
    VelocitySum const sum = std::exchange(work.velocities, {});
    if (current.count < 1 || work.isAborted())
        return false;
    raiseShared(tree.statMaxDepth, current.level);
    Vector const velocity = sum.mean(current.count);
    countDeepRecords(tree, current.level, current.count);
    NodeDecision const decision = decideSplit(tree, current, velocity, work.data, work.spans);
    SplitChoice const& split = decision.split;
    if (!split.found()) {
        current.node->velocity = velocity;
        storeLeaf<Tree>(*current.node, work.stocks, work.data, current.count);
        return false;
    }

    auto* const children = work.stocks.nodes.newElements(2);
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
    Partition parts(work.data, current.count, helper != nullptr ? helper->data : work.waiting);
    auto const part = [&](auto spanOf) {
        return partRecords(split, velocity, spanOf, parts, work.velocities, work.isAborted);
    };
    bool const isParted =
        work.spans.areKept()
            ? part([&](std::size_t i, auto const&) -> FrameSpan const& { return work.spans[i]; })
            : part([&](std::size_t, auto const& record) { return work.spans.of(record); });
    if (!isParted)
        return false;
    lower.count = parts.lowerCount;
    upper.count = parts.upperCount;

    handOffOrPostpone(helper, upper, postponed);
    current = lower;
    return true;
}

} // namespace

template <class Sphere, int NodeBlock, int LeafBlock>
void MBSphereTree<Sphere, NodeBlock, LeafBlock>::storeSpheres(Node* node, MBSphereRecords& data,
                                                              int count) {
    Stocks stocks = makeStocks(*this, false);
    storeLeaf<MBSphereTree>(*node, stocks, data, count);
}

template <class Sphere, int NodeBlock, int LeafBlock>
void MBSphereTree<Sphere, NodeBlock, LeafBlock>::buildNode(Node* node, TimeBox const& box,
                                                           MBSphereRecords& data, int count,
                                                           int depth, ProgressCallback* progress,
                                                           MBSphereRecords* scratch, int level) {
    Stocks stocks = makeStocks(*this, false);
    buildNode(node, box, data, count, depth, progress, scratch, level, stocks);
}

template <class Sphere, int NodeBlock, int LeafBlock>
void MBSphereTree<Sphere, NodeBlock, LeafBlock>::buildNode(Node* node, TimeBox const& box,
                                                           MBSphereRecords& data, int count,
                                                           int depth, ProgressCallback* progress,
                                                           MBSphereRecords* scratch, int level,
                                                           Stocks& stocks) {
    MBSphereRecords ownScratch;
    ownScratch.allocator = data.allocator;
    Workplace<MBSphereTree> work{data, scratch == &data ? ownScratch : *scratch, stocks,
                                 AbortQuestion(progress, wasAborted), Spans(numSpheres)};
    std::int32_t const mostSpans = std::clamp(count, 0, Spans::mostKeptFor(numSpheres));
    CountedBytes const spanBytes(*this, sizeof(FrameSpan) * static_cast<std::size_t>(mostSpans));
    auto const addVelocity = [&work](MBSphereData const& record) { work.velocities.add(record); };
    visitRecords(data, count, addVelocity);
    buildSubtree(
        PostponedSubtree<Node, TimeBox>{node, box, count, depth, level}, data, work.waiting,
        work.isAborted,
        [&](auto& current, auto& postponed) {
            return buildOneNode(*this, current, work, postponed);
        },
        addVelocity);
    notePeak(*this); // beside the spans
}

template void MBSphereTree<MBSphere, 20000, 20000>::storeSpheres(Node*, MBSphereRecords&, int);
template void MBSphereTree<MBSphere, 20000, 20000>::buildNode(Node*, TimeBox const&,
                                                              MBSphereRecords&, int, int,
                                                              ProgressCallback*, MBSphereRecords*,
                                                              int);
template void MBSphereTree<MBSphere, 20000, 20000>::buildNode(Node*, TimeBox const&,
                                                              MBSphereRecords&, int, int,
                                                              ProgressCallback*, MBSphereRecords*,
                                                              int, Stocks&);

} // namespace Kelpa
