// Hands queries of still trees to this processor's traversal.
#include "kelpa/spheretree/intersectmany.h"
#include "kelpa/spheretree/kernelvariant.h"
#include "kelpa/spheretree/static/sdspheretree.h"
#include "kelpa/spheretree/static/sdtraversal.h"
#include "kelpa/spheretree/traversal.h"

namespace Kelpa {

namespace {

SDQueries const& queries() {
    static constexpr SDQueries const* byVariant[kernelVariants] = KELPA_OF_ALL_VARIANTS(sdQueries);
    return *byVariant[static_cast<int>(chosenVariant())];
}

/// What a query answers for the hit that it has found for a ray.
int codeOf(SDTree const& tree, SDSphereRay const& ray) {
    auto const& system = tree.particleSystems.elements[tree.systemOf(*ray.hit->sphere)];
    return hitCode(system.particles->particleType);
}

/// Whether one walk for all rays of a run is possible and likely to pay.
bool canWalkTogether(SDTree const& tree, RayRun const& run) {
    return queries().findAnyTogether != nullptr && tree.packedLeaves != nullptr &&
           tree.innerLevels <= usualInnerLevels && run.count > 1 && areTogether(run);
}

} // namespace

template <class Sphere, int NodeBlock, int LeafBlock>
int SDSphereTree<Sphere, NodeBlock, LeafBlock>::intersectNode(SDSphereRay& ray) const {
    if (!clipToBox(ray, bbox))
        return 0;
    return queries().findClosest(*this, ray) ? codeOf(*this, ray) : 0;
}

template <class Sphere, int NodeBlock, int LeafBlock>
bool SDSphereTree<Sphere, NodeBlock, LeafBlock>::isOccluded(SDSphereRay& ray) const {
    return clipToBox(ray, bbox) && queries().findAny(*this, ray);
}

template <class Sphere, int NodeBlock, int LeafBlock>
void SDSphereTree<Sphere, NodeBlock, LeafBlock>::intersectMany(std::span<SDSphereRay> rays,
                                                               int* codes) const {
    intersectInBox(
        bbox, rays, codes,
        [this](auto inBox, bool* found) { queries().findClosestOfMany(*this, inBox, found); },
        [this](auto const& ray) { return codeOf(*this, ray); });
}

template <class Sphere, int NodeBlock, int LeafBlock>
void SDSphereTree<Sphere, NodeBlock, LeafBlock>::areOccluded(std::span<SDSphereRay> rays,
                                                             int* occluded) const {
    intersectInBox(
        bbox, rays, occluded,
        [this](auto inBox, bool* found) { queries().findAnyOfMany(*this, inBox, found); },
        [](auto const&) { return 1; });
}

template void SDSphereTree<SDSphere, 20000, 20000>::intersectMany(std::span<SDSphereRay>,
                                                                  int*) const;
template int SDSphereTree<SDSphere, 20000, 20000>::intersectNode(SDSphereRay&) const;
template void SDSphereTree<SDSphere, 20000, 20000>::areOccluded(std::span<SDSphereRay>, int*) const;
template bool SDSphereTree<SDSphere, 20000, 20000>::isOccluded(SDSphereRay&) const;

void intersectApart(SDTree const* const* trees, std::span<SDSphereRay> rays, int* codes) {
    intersectInBoxes(
        trees, rays, codes, [](auto const& tree) -> Box const& { return tree.bbox; },
        queries().findClosestApart, codeOf);
}

void areOccludedApart(SDTree const* const* trees, std::span<SDSphereRay> rays, int* occluded) {
    intersectInBoxes(
        trees, rays, occluded, [](auto const& tree) -> Box const& { return tree.bbox; },
        queries().findAnyApart, [](auto const&, auto const&) { return 1; });
}

std::optional<std::uint64_t> findClosestTogether(SDTree const& tree, RayRun const& run,
                                                 PrimitiveIntersections& result) {
    if (!canWalkTogether(tree, run))
        return {};
    return queries().findClosestTogether(tree, run, result);
}

std::optional<std::uint64_t> findAnyTogether(SDTree const& tree, RayRun const& run) {
    if (!canWalkTogether(tree, run))
        return {};
    return queries().findAnyTogether(tree, run);
}

} // namespace Kelpa
