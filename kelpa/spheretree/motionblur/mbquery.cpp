// Hands queries of moving trees to this processor's traversal.
#include "kelpa/spheretree/intersectmany.h"
#include "kelpa/spheretree/kernelvariant.h"
#include "kelpa/spheretree/motionblur/mbspheretree.h"
#include "kelpa/spheretree/motionblur/mbtraversal.h"
#include "kelpa/spheretree/traversal.h"

namespace Kelpa {

namespace {

MBQueries const& queries() {
    static constexpr MBQueries const* byVariant[kernelVariants] = KELPA_OF_ALL_VARIANTS(mbQueries);
    return *byVariant[static_cast<int>(chosenVariant())];
}

/// What a query answers for the hit that it has found for a ray.
int codeOf(MBTree const& tree, MBSphereRay const& ray) {
    auto const& system = tree.particleSystems.elements[tree.systemOf(*ray.hitRecord->hitSphere)];
    return hitCode(system.particles0->particleType);
}

/// Whether one walk for all rays of a run is possible and likely to pay.
bool canWalkTogether(MBTree const& tree, RayRun const& run) {
    return queries().findAnyTogether != nullptr && tree.walkNodes != nullptr &&
           tree.statMaxDepth <= usualInnerLevels && run.count > 1 && areTogether(run);
}

} // namespace

template <class Sphere, int NodeBlock, int LeafBlock>
int MBSphereTree<Sphere, NodeBlock, LeafBlock>::intersectNode(MBSphereRay& ray) const {
    if (!clipToBox(ray, rootBox.box))
        return 0;
    return queries().findClosest(*this, ray) ? codeOf(*this, ray) : 0;
}

template <class Sphere, int NodeBlock, int LeafBlock>
bool MBSphereTree<Sphere, NodeBlock, LeafBlock>::isOccluded(MBSphereRay& ray) const {
    return clipToBox(ray, rootBox.box) && queries().findAny(*this, ray);
}

template <class Sphere, int NodeBlock, int LeafBlock>
void MBSphereTree<Sphere, NodeBlock, LeafBlock>::intersectMany(std::span<MBSphereRay> rays,
                                                               int* codes) const {
    intersectInBox(
        rootBox.box, rays, codes,
        [this](auto inBox, bool* found) { queries().findClosestOfMany(*this, inBox, found); },
        [this](auto const& ray) { return codeOf(*this, ray); });
}

template <class Sphere, int NodeBlock, int LeafBlock>
void MBSphereTree<Sphere, NodeBlock, LeafBlock>::areOccluded(std::span<MBSphereRay> rays,
                                                             int* occluded) const {
    intersectInBox(
        rootBox.box, rays, occluded,
        [this](auto inBox, bool* found) { queries().findAnyOfMany(*this, inBox, found); },
        [](auto const&) { return 1; });
}

template void MBSphereTree<MBSphere, 20000, 20000>::intersectMany(std::span<MBSphereRay>,
                                                                  int*) const;
template int MBSphereTree<MBSphere, 20000, 20000>::intersectNode(MBSphereRay&) const;
template void MBSphereTree<MBSphere, 20000, 20000>::areOccluded(std::span<MBSphereRay>, int*) const;
template bool MBSphereTree<MBSphere, 20000, 20000>::isOccluded(MBSphereRay&) const;

void intersectApart(MBTree const* const* trees, std::span<MBSphereRay> rays, int* codes) {
    intersectInBoxes(
        trees, rays, codes, [](auto const& tree) -> Box const& { return tree.rootBox.box; },
        queries().findClosestApart, codeOf);
}

void areOccludedApart(MBTree const* const* trees, std::span<MBSphereRay> rays, int* occluded) {
    intersectInBoxes(
        trees, rays, occluded, [](auto const& tree) -> Box const& { return tree.rootBox.box; },
        queries().findAnyApart, [](auto const&, auto const&) { return 1; });
}

std::optional<std::uint64_t> findClosestTogether(MBTree const& tree, RayRun const& run,
                                                 PrimitiveIntersections& result) {
    if (!canWalkTogether(tree, run))
        return {};
    return queries().findClosestTogether(tree, run, result);
}

std::optional<std::uint64_t> findAnyTogether(MBTree const& tree, RayRun const& run) {
    if (!canWalkTogether(tree, run))
        return {};
    return queries().findAnyTogether(tree, run);
}

} // namespace Kelpa
