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

} // namespace

template <class Sphere, int NodeBlock, int LeafBlock>
int MBSphereTree<Sphere, NodeBlock, LeafBlock>::intersectNode(MBSphereRay& ray) const {
    if (!clipToBox(ray, rootBox.box))
        return 0;
    if (!findClosestBy[static_cast<int>(chosenVariant())](*this, ray))
        return 0;
    auto const& system = particleSystems.elements[systemOf(*ray.hitRecord->hitSphere)];
    return hitCode(system.particles0->particleType);
}

template <class Sphere, int NodeBlock, int LeafBlock>
void MBSphereTree<Sphere, NodeBlock, LeafBlock>::intersectMany(std::span<MBSphereRay> rays,
                                                               int* codes) const {
    constexpr std::size_t most = 64;
    for (std::size_t begin = 0; begin < rays.size(); begin += most) {
        MBSphereRay* inBox[most];
        int* codeOf[most];
        std::size_t count = 0;
        for (std::size_t i = begin; i < rays.size() && i < begin + most; ++i) {
            codes[i] = 0;
            inBox[count] = &rays[i];
            codeOf[count] = &codes[i];
            count += clipToBox(rays[i], rootBox.box) ? 1 : 0;
        }
        bool found[most];
        findClosestOfManyBy[static_cast<int>(chosenVariant())](*this, {inBox, count}, found);
        for (std::size_t i = 0; i < count; ++i) {
            if (!found[i])
                continue;
            auto const& system =
                particleSystems.elements[systemOf(*inBox[i]->hitRecord->hitSphere)];
            *codeOf[i] = hitCode(system.particles0->particleType);
        }
    }
}

template void MBSphereTree<MBSphere, 20000, 20000>::intersectMany(std::span<MBSphereRay>,
                                                                  int*) const;
template int MBSphereTree<MBSphere, 20000, 20000>::intersectNode(MBSphereRay&) const;

} // namespace Kelpa
