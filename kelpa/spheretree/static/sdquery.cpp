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

} // namespace

template <class Sphere, int NodeBlock, int LeafBlock>
int SDSphereTree<Sphere, NodeBlock, LeafBlock>::intersectNode(SDSphereRay& ray) const {
    if (!clipToBox(ray, bbox))
        return 0;
    if (!findClosestBy[static_cast<int>(chosenVariant())](*this, ray))
        return 0;
    auto const& system = particleSystems.elements[systemOf(*ray.hit->sphere)];
    return hitCode(system.particles->particleType);
}

template <class Sphere, int NodeBlock, int LeafBlock>
void SDSphereTree<Sphere, NodeBlock, LeafBlock>::intersectMany(std::span<SDSphereRay> rays,
                                                               int* codes) const {
    constexpr std::size_t most = 64;
    for (std::size_t begin = 0; begin < rays.size(); begin += most) {
        SDSphereRay* inBox[most];
        int* codeOf[most];
        std::size_t count = 0;
        for (std::size_t i = begin; i < rays.size() && i < begin + most; ++i) {
            codes[i] = 0;
            inBox[count] = &rays[i];
            codeOf[count] = &codes[i];
            count += clipToBox(rays[i], bbox) ? 1 : 0;
        }
        bool found[most];
        findClosestOfManyBy[static_cast<int>(chosenVariant())](*this, {inBox, count}, found);
        for (std::size_t i = 0; i < count; ++i) {
            if (!found[i])
                continue;
            auto const& system = particleSystems.elements[systemOf(*inBox[i]->hit->sphere)];
            *codeOf[i] = hitCode(system.particles->particleType);
        }
    }
}

template void SDSphereTree<SDSphere, 20000, 20000>::intersectMany(std::span<SDSphereRay>,
                                                                  int*) const;
template int SDSphereTree<SDSphere, 20000, 20000>::intersectNode(SDSphereRay&) const;

} // namespace Kelpa
