// Compiled once for each kind of processor, with `KELPA_VARIANT` as its name.

#include "kelpa/spheretree/static/sdtraversal.h"

#include "kelpa/spheretree/interleaved.h"
#include "kelpa/spheretree/splitchoice.h"
#include "kelpa/spheretree/static/sdwalk.h"

#include <cstdint>

namespace Kelpa::KELPA_VARIANT {

namespace {

/// One of several rays that are on their way at the same time.
template <Goal goal> class RayInFlight {
  public:
    RayInFlight(Tree const& tree, SDSphereRay& askedRay)
        : ray(askedRay), axes(ray), node(tree.root), tMin(ray.tMin), tMax(ray.tMax),
          leaves(tree, ray) {}

    /// Takes the steps of `visitLeaves` without a branch: the processor would guess it, and
    /// half of the time throw away what it has done for the other rays since.
    [[gnu::always_inline]] int step() {
        std::uint64_t const link = node->link;
        int const kind = linkKind(link);
        Node const* const children = linkTarget<Node>(link);
        auto const nearChild = static_cast<std::uint64_t>(axes.nearChild(kind));
        double const tSplit = axes.planeParameter(kind, node->splitPos);
        auto const fromStart = static_cast<float>(tSplit - tMin);
        auto const fromEnd = static_cast<float>(tSplit - tMax);
        std::uint64_t const isInner = flag(kind != Node::leafKind);
        std::uint64_t const isOneSided = flag(fromStart * fromEnd > 0.0F);
        std::uint64_t const isBehind = isOneSided & flag(tSplit < tMin);
        std::uint64_t const isCut = isInner & ~isOneSided;
        postponed.pushIf(isCut, childAt(children, 1 - nearChild), tSplit, tMax);
        tMax = select(isCut, tSplit, tMax);
        Node const* const next = childAt(children, nearChild ^ isBehind);
        node = reinterpret_cast<Node const*>(select(isInner, reinterpret_cast<std::uintptr_t>(next),
                                                    reinterpret_cast<std::uintptr_t>(node)));
        __builtin_prefetch(node);
        return static_cast<int>(isInner);
    }

    void prefetchLeaf() const { leaves.prefetch(*node); }

    [[gnu::always_inline]] bool visitLeaf() {
        leaves.visit(*node, LeafInterval::widened(ray, tMin, tMax));
        if (postponed.isEmpty() || (goal == Goal::any && leaves.hasFound()))
            return false;
        auto const& next = postponed.pop();
        if (!(next.tMin <= ray.hit->t))
            return false;
        node = next.node;
        tMin = next.tMin;
        tMax = next.tMax;
        return true;
    }

    bool finish() { return goal == Goal::any ? leaves.hasFound() : leaves.finish(); }

  private:
    SDSphereRay& ray;
    AxisRays axes;
    Node const* node;
    double tMin;
    double tMax;
    LeafVisitor<goal> leaves;
    PostponedChildren<Node>::Room<usualInnerLevels> room;
    PostponedChildren<Node> postponed{room};
};

template <Goal goal, int Capacity> bool findWith(Tree const& tree, SDSphereRay& ray) {
    LeafVisitor<goal> leaves(tree, ray);
    visitLeaves<goal, Capacity>(ray, leaves, {tree.root, ray.tMin, ray.tMax});
    return goal == Goal::any ? leaves.hasFound() : leaves.finish();
}

template <Goal goal> bool find(Tree const& tree, SDSphereRay& ray) {
    return tree.innerLevels <= usualInnerLevels ? findWith<goal, usualInnerLevels>(tree, ray)
                                                : findWith<goal, levelLimit>(tree, ray);
}

template <Goal goal> void findMany(Tree const& tree, std::span<SDSphereRay*> rays, bool* found) {
    if (tree.innerLevels > usualInnerLevels || areTogether(rays)) {
        for (std::size_t i = 0; i < rays.size(); ++i)
            found[i] = find<goal>(tree, *rays[i]);
        return;
    }
    searchTogether<RayInFlight<goal>>([&tree](std::size_t) -> Tree const& { return tree; }, rays,
                                      found);
}

template <Goal goal>
void findApart(Tree const* const* trees, std::span<SDSphereRay*> rays, bool* found) {
    auto const treeOf = [trees](std::size_t i) -> Tree const& { return *trees[i]; };
    bool isAnyDeep = false;
    for (std::size_t i = 0; i < rays.size(); ++i)
        isAnyDeep |= treeOf(i).innerLevels > usualInnerLevels;
    if (!isAnyDeep)
        return searchTogether<RayInFlight<goal>>(treeOf, rays, found);
    for (std::size_t i = 0; i < rays.size(); ++i)
        found[i] = find<goal>(treeOf(i), *rays[i]);
}

} // namespace

// Defined in a source of its own, for processors that it is compiled for.
#if defined(KELPA_PACKETS)
std::uint64_t findClosestTogether(SDTree const& tree, RayRun const& run,
                                  PrimitiveIntersections& result);
std::uint64_t findAnyTogether(SDTree const& tree, RayRun const& run);
#else
constexpr decltype(SDQueries::findClosestTogether) findClosestTogether = nullptr;
constexpr decltype(SDQueries::findAnyTogether) findAnyTogether = nullptr;
#endif

constinit SDQueries const sdQueries = {
    find<Goal::closest>,      find<Goal::any>,      findMany<Goal::closest>, findMany<Goal::any>,
    findApart<Goal::closest>, findApart<Goal::any>, findClosestTogether,     findAnyTogether};

} // namespace Kelpa::KELPA_VARIANT
