#include "kelpa/spheretree/intersectmany.h"
#include "kelpa/spheretree/kernelvariant.h"
#include "kelpa/spheretree/motionblur/mbspheretree.h"
#include "kelpa/spheretree/motionblur/mbtraversal.h"
#include "kelpa/spheretree/traversal.h"

namespace Kelpa {

namespace {

#if defined(__x86_64__)
constexpr MBFindClosest* findClosestBy[kernelVariants] = {scalar::findClosest, sse2::findClosest,
                                                          avx2::findClosest, avx512::findClosest};
#else
constexpr MBFindClosest* findClosestBy[kernelVariants] = {scalar::findClosest};
#endif

#if defined(__x86_64__)
constexpr MBFindClosestOfMany* findClosestOfManyBy[kernelVariants] = {
    scalar::findClosestOfMany, sse2::findClosestOfMany, avx2::findClosestOfMany,
    avx512::findClosestOfMany};
#else
constexpr MBFindClosestOfMany* findClosestOfManyBy[kernelVariants] = {scalar::findClosestOfMany};
#endif

/// What a query answers for the hit that it has found for a ray.
int codeOf(MBTree const& tree, MBSphereRay const& ray) {
    auto const& system = tree.particleSystems.elements[tree.systemOf(*ray.hitRecord->hitSphere)];
    return hitCode(system.particles0->particleType);
}

} // namespace

template <class Sphere, int NodeBlock, int LeafBlock>
int MBSphereTree<Sphere, NodeBlock, LeafBlock>::intersectNode(MBSphereRay& ray) const {
    if (!clipToBox(ray, rootBox.box))
        return 0;
    return findClosestBy[static_cast<int>(chosenVariant())](*this, ray) ? codeOf(*this, ray) : 0;
}

template <class Sphere, int NodeBlock, int LeafBlock>
void MBSphereTree<Sphere, NodeBlock, LeafBlock>::intersectMany(std::span<MBSphereRay> rays,
                                                               int* codes) const {
    auto* const findMany = findClosestOfManyBy[static_cast<int>(chosenVariant())];
    intersectInBox(
        rootBox.box, rays, codes,
        [&](std::span<MBSphereRay*> inBox, bool* found) { findMany(*this, inBox, found); },
        [this](auto const& ray) { return codeOf(*this, ray); });
}

template void MBSphereTree<MBSphere, 20000, 20000>::intersectMany(std::span<MBSphereRay>,
                                                                  int*) const;
template int MBSphereTree<MBSphere, 20000, 20000>::intersectNode(MBSphereRay&) const;

} // namespace Kelpa
