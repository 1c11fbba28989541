// Compiled with options that let its loops become wide; neither changes a value.
#include "pipeline/scene/boxgroup.h"

namespace pipeline {

namespace {

// As trees bound it, so that no product with a coordinate is infinite or not a number.
float boundedReciprocal(float component) {
    constexpr float largest = 1e18F;
    float const q = 1.0F / component;
    float const below = q < largest ? q : largest;
    return below > -largest ? below : -largest;
}

[[gnu::always_inline]] inline float smaller(float a, float b) {
    return b < a ? b : a;
}
[[gnu::always_inline]] inline float larger(float a, float b) {
    return a < b ? b : a;
}

[[gnu::always_inline]] inline std::uint32_t enterLoop(BoxGroup const& boxes, BoxRay const& ray,
                                                      float end, GroupStretches& stretches) {
    BoxRay const held = ray; // no store below can change it
    std::uint32_t entered = 0;
    for (unsigned i = 0; i < BoxGroup::most; ++i) {
        float const ax = (boxes.minX[i] - held.origin.x) * held.inverse.x;
        float const bx = (boxes.maxX[i] - held.origin.x) * held.inverse.x;
        float const ay = (boxes.minY[i] - held.origin.y) * held.inverse.y;
        float const by = (boxes.maxY[i] - held.origin.y) * held.inverse.y;
        float const az = (boxes.minZ[i] - held.origin.z) * held.inverse.z;
        float const bz = (boxes.maxZ[i] - held.origin.z) * held.inverse.z;
        float const in =
            larger(larger(larger(held.begin, smaller(ax, bx)), smaller(ay, by)), smaller(az, bz));
        float const out = smaller(smaller(larger(ax, bx), larger(ay, by)), larger(az, bz));
        // Both ends are rounded, so that the ray may seem to leave before it enters (T. Ize,
        // "Robust BVH Ray Traversal", 2013, section 3).
        constexpr float rounding = 0x1p-21F;
        float const latest = out + (out < 0.0F ? -out : out) * rounding;
        stretches.enter[i] = in;
        stretches.leave[i] = latest;
        // Not a branch, else the loop stays narrow.
        bool const isIn = static_cast<int>(in <= latest) & static_cast<int>(in <= end);
        entered |= isIn ? 1U << i : 0U;
    }
    return entered;
}

std::uint32_t enter(BoxGroup const& boxes, BoxRay const& ray, float end, GroupStretches& to) {
    return enterLoop(boxes, ray, end, to);
}
#if defined(__x86_64__)
[[gnu::target("avx2")]] std::uint32_t enterAvx2(BoxGroup const& boxes, BoxRay const& ray, float end,
                                                GroupStretches& to) {
    return enterLoop(boxes, ray, end, to);
}
[[gnu::target("avx512f,avx512vl,avx512dq,prefer-vector-width=512")]] std::uint32_t
enterAvx512(BoxGroup const& boxes, BoxRay const& ray, float end, GroupStretches& to) {
    return enterLoop(boxes, ray, end, to);
}
#endif

EnterGroup chosenForm() {
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512vl") != 0 &&
        __builtin_cpu_supports("avx512dq") != 0)
        return enterAvx512;
    if (__builtin_cpu_supports("avx2") != 0)
        return enterAvx2;
#endif
    return enter;
}

} // namespace

BoxRay::BoxRay(double x, double y, double z, Kelpa::Vector const& dir, double tMin)
    : origin{static_cast<float>(x), static_cast<float>(y), static_cast<float>(z)},
      inverse{boundedReciprocal(dir.x), boundedReciprocal(dir.y), boundedReciprocal(dir.z)},
      begin(static_cast<float>(tMin)) {
}

EnterGroup plainEnterGroup() {
    return enter;
}

EnterGroup enterGroup() {
    static EnterGroup const form = chosenForm();
    return form;
}

} // namespace pipeline
