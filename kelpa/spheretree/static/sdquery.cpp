#include "kelpa/spheretree/intersectmany.h"
#include "kelpa/spheretree/kernelvariant.h"
#include "kelpa/spheretree/static/sdspheretree.h"
#include "kelpa/spheretree/static/sdtraversal.h"
#include "kelpa/spheretree/traversal.h"

namespace Kelpa {

namespace {

#if defined(__x86_64__)
constexpr SDFindClosest* findClosestBy[kernelVariants] = {scalar::findClosest, sse2::findClosest,
                                                          avx2::findClosest, avx512::findClosest};
#else
constexpr SDFindClosest* findClosestBy[kernelVariants] = {scalar::findClosest};
#endif

#if defined(__x86_64__)
constexpr SDFindClosestOfMany* findClosestOfManyBy[kernelVariants] = {
    scalar::findClosestOfMany, sse2::findClosestOfMany, avx2::findClosestOfMany,
    avx512::findClosestOfMany};
#else
constexpr SDFindClosestOfMany* findClosestOfManyBy[kernelVariants] = {scalar::findClosestOfMany};
#endif

/// What a query answers for the hit that it has found for a ray.
int codeOf(SDTree const& tree, SDSphereRay const& ray) {
    auto const& system = tree.particleSystems.elements[tree.systemOf(*ray.hit->sphere)];
    return hitCode(system.particles->particleType);
}

} // namespace

template <class Sphere, int NodeBlock, int LeafBlock>
int SDSphereTree<Sphere, NodeBlock, LeafBlock>::intersectNode(SDSphereRay& ray) const {
    if (!clipToBox(ray, bbox))
        return 0;
    return findClosestBy[static_cast<int>(chosenVariant())](*this, ray) ? codeOf(*this, ray) : 0;
}

template <class Sphere, int NodeBlock, int LeafBlock>
void SDSphereTree<Sphere, NodeBlock, LeafBlock>::intersectMany(std::span<SDSphereRay> rays,
                                                               int* codes) const {
    auto* const findMany = findClosestOfManyBy[static_cast<int>(chosenVariant())];
    intersectInBox(
        bbox, rays, codes,
        [&](std::span<SDSphereRay*> inBox, bool* found) { findMany(*this, inBox, found); },
        [this](auto const& ray) { return codeOf(*this, ray); });
}

template void SDSphereTree<SDSphere, 20000, 20000>::intersectMany(std::span<SDSphereRay>,
                                                                  int*) const;
template int SDSphereTree<SDSphere, 20000, 20000>::intersectNode(SDSphereRay&) const;

} // namespace Kelpa
