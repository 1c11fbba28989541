// Compiled once for each kind of processor, with `KELPA_VARIANT` as its name.

#include "kelpa/spheretree/motionblur/mbtraversal.h"

#include "kelpa/spheretree/interleaved.h"
#include "kelpa/spheretree/motionblur/mbwalk.h"
#include "kelpa/spheretree/splitchoice.h"

#include <cmath>
#include <cstdint>

namespace Kelpa::KELPA_VARIANT {

namespace {

/// One of several rays that are on their way at the same time.
template <Goal goal, class Node> class RayInFlight {
  public:
    RayInFlight(Tree const& tree, MBSphereRay& askedRay)
        : ray(askedRay), axes(ray), node(rootOf<Node>(tree)),
          time(static_cast<double>(ray.rayTime)), tMin(ray.tMin), tMax(ray.tMax),
          leaves(tree, ray) {}

    /// Takes the steps of `visitLeaves` without a branch: the processor would guess it, and
    /// half of the time throw away what it has done for the other rays since.
    [[gnu::always_inline]] int step() {
        std::uint64_t const isInner = flag(!node->isLeaf());
        int const kind = linkKind(node->link);
        std::uint64_t const isTime = flag(kind == MBSphereNode::timeKind);
        int const axis = kind - static_cast<int>(isTime); // any, where time is split
        Node const* const children = linkTarget<Node>(node->link);
        auto const nearChild = static_cast<std::uint64_t>(axes.nearChild(axis));
        double const tSplit = planeParameterOf(*node, axis, axes, time);
        std::uint64_t const isOneSided = isTime | flag((tSplit - tMin) * (tSplit - tMax) > 0.0);
        std::uint64_t const isBehind = flag(tSplit < tMin);
        std::uint64_t const isCut = isInner & ~isOneSided;
        std::uint64_t const isLater = flag(ray.rayTime > node->splitPos);
        postponed.pushIf(isCut, childAt(children, 1 - nearChild), tSplit, tMax);
        tMax = select(isCut, tSplit, tMax);
        std::uint64_t const child = select(isTime, isLater, nearChild ^ (isOneSided & isBehind));
        node = reinterpret_cast<Node const*>(
            select(isInner, reinterpret_cast<std::uintptr_t>(childAt(children, child)),
                   reinterpret_cast<std::uintptr_t>(node)));
        __builtin_prefetch(node);
        return static_cast<int>(isInner);
    }

    void prefetchLeaf() const { leaves.prefetch(*node); }

    [[gnu::always_inline]] bool visitLeaf() {
        leaves.visit(*node, tMin, tMax);
        if (postponed.isEmpty() || (goal == Goal::any && leaves.hasFound()))
            return false;
        auto const& next = postponed.pop();
        double const nearest = ray.hitRecord->hitT;
        if (next.tMin > nearest)
            return false;
        node = next.node;
        tMin = next.tMin;
        tMax = next.tMax < nearest ? next.tMax : nearest;
        return true;
    }

    bool finish() { return goal == Goal::any ? leaves.hasFound() : leaves.finish(); }

  private:
    MBSphereRay& ray;
    AxisRays axes;
    Node const* node;
    double time;
    double tMin;
    double tMax;
    LeafVisitor<goal> leaves;
    typename PostponedChildren<Node>::template Room<usualInnerLevels> room;
    PostponedChildren<Node> postponed{room};
};

/// Whether rays start so near each other that what one reads of a tree is at hand for the next. A
/// guess from three of them; only the speed depends on it.
bool startTogether(Tree const& tree, std::span<MBSphereRay*> rays) {
    Vector const& min = tree.rootBox.box.min;
    Vector const& max = tree.rootBox.box.max;
    double const size = static_cast<double>((max.x - min.x) + (max.y - min.y) + (max.z - min.z));
    double const* const first = rays[0]->origin;
    auto const isNearFirst = [&](double const* origin) {
        double const distance = std::abs(origin[0] - first[0]) + std::abs(origin[1] - first[1]) +
                                std::abs(origin[2] - first[2]);
        return distance < 0.1 * size;
    };
    return isNearFirst(rays[rays.size() / 2]->origin) && isNearFirst(rays[rays.size() - 1]->origin);
}

template <Goal goal, int Capacity> bool findWith(Tree const& tree, MBSphereRay& ray) {
    LeafVisitor<goal> leaves(tree, ray);
    if (tree.walkNodes != nullptr)
        visitLeaves<goal, Capacity, MBWalkNode>(ray, leaves, {tree.walkNodes, ray.tMin, ray.tMax});
    else
        visitLeaves<goal, Capacity, MBSphereNode>(ray, leaves, {tree.root, ray.tMin, ray.tMax});
    return goal == Goal::any ? leaves.hasFound() : leaves.finish();
}

template <Goal goal> bool find(Tree const& tree, MBSphereRay& ray) {
    return tree.statMaxDepth <= usualInnerLevels ? findWith<goal, usualInnerLevels>(tree, ray)
                                                 : findWith<goal, levelLimit>(tree, ray);
}

/// Searches trees for several rays at a time by way of their walk nodes or, where not all have
/// such, of the others.
template <Goal goal, class TreeOf>
void searchWith(bool haveWalkNodes, TreeOf const& treeOf, std::span<MBSphereRay*> rays,
                bool* found) {
    if (haveWalkNodes)
        searchTogether<RayInFlight<goal, MBWalkNode>>(treeOf, rays, found);
    else
        searchTogether<RayInFlight<goal, MBSphereNode>>(treeOf, rays, found);
}

template <Goal goal> void findMany(Tree const& tree, std::span<MBSphereRay*> rays, bool* found) {
    if (tree.statMaxDepth > usualInnerLevels || areTogether(rays) || startTogether(tree, rays)) {
        for (std::size_t i = 0; i < rays.size(); ++i)
            found[i] = find<goal>(tree, *rays[i]);
        return;
    }
    searchWith<goal>(
        tree.walkNodes != nullptr, [&tree](std::size_t) -> Tree const& { return tree; }, rays,
        found);
}

template <Goal goal>
void findApart(Tree const* const* trees, std::span<MBSphereRay*> rays, bool* found) {
    auto const treeOf = [trees](std::size_t i) -> Tree const& { return *trees[i]; };
    bool isAnyDeep = false;
    bool haveWalkNodes = true;
    for (std::size_t i = 0; i < rays.size(); ++i) {
        isAnyDeep |= treeOf(i).statMaxDepth > usualInnerLevels;
        haveWalkNodes &= treeOf(i).walkNodes != nullptr;
    }
    if (!isAnyDeep)
        return searchWith<goal>(haveWalkNodes, treeOf, rays, found);
    for (std::size_t i = 0; i < rays.size(); ++i)
        found[i] = find<goal>(treeOf(i), *rays[i]);
}

} // namespace

// Defined in a source of its own, for processors that it is compiled for.
#if defined(KELPA_PACKETS)
std::uint64_t findClosestTogether(MBTree const& tree, RayRun const& run,
                                  PrimitiveIntersections& result);
std::uint64_t findAnyTogether(MBTree const& tree, RayRun const& run);
#else
constexpr decltype(MBQueries::findClosestTogether) findClosestTogether = nullptr;
constexpr decltype(MBQueries::findAnyTogether) findAnyTogether = nullptr;
#endif

constinit MBQueries const mbQueries = {
    find<Goal::closest>,      find<Goal::any>,      findMany<Goal::closest>, findMany<Goal::any>,
    findApart<Goal::closest>, findApart<Goal::any>, findClosestTogether,     findAnyTogether};

} // namespace Kelpa::KELPA_VARIANT
