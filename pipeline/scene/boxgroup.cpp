// Compiled with options that let its loops become wide; neither changes a value.
#include "pipeline/scene/boxgroup.h"

#include "pipeline/scene/forprocessor.h"

#include <iterator>
#include <vector>

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

// Both ends of a stretch are rounded, so that the ray may seem to leave before it enters (T. Ize,
// "Robust BVH Ray Traversal", 2013, section 3).
[[gnu::always_inline]] inline float withRoom(float leave) {
    constexpr float rounding = 0x1p-21F;
    return leave + (leave < 0.0F ? -leave : leave) * rounding;
}

[[gnu::always_inline]] inline std::uint32_t enterGroupLoop(BoxGroup const& boxes, BoxRay const& ray,
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
        float const latest = withRoom(out);
        stretches.enter[i] = in;
        stretches.leave[i] = latest;
        // Not a branch, else the loop stays narrow.
        bool const isIn = static_cast<int>(in <= latest) & static_cast<int>(in <= end);
        entered |= isIn ? 1U << i : 0U;
    }
    return entered;
}

struct Range {
    float low, high;
};

/// Where products of what lies in two ranges lie.
[[gnu::always_inline]] inline Range product(float lowA, float highA, float lowB, float highB) {
    float const a = lowA * lowB;
    float const b = lowA * highB;
    float const c = highA * lowB;
    float const d = highA * highB;
    return {smaller(smaller(a, b), smaller(c, d)), larger(larger(a, b), larger(c, d))};
}

/// Where rays that begin and go within bounds enter at the earliest and leave at the latest what
/// lies between two planes.
[[gnu::always_inline]] inline Range between(float min, float max, float lowFrom, float highFrom,
                                            float lowInverse, float highInverse) {
    Range const a = product(min - highFrom, min - lowFrom, lowInverse, highInverse);
    Range const b = product(max - highFrom, max - lowFrom, lowInverse, highInverse);
    return {smaller(a.low, b.low), larger(a.high, b.high)};
}

[[gnu::always_inline]] inline std::uint32_t mayEnterLoop(BoxGroup const& boxes, BoxRay const& least,
                                                         BoxRay const& greatest) {
    std::uint32_t may = 0;
    for (unsigned i = 0; i < BoxGroup::most; ++i) {
        Range const x = between(boxes.minX[i], boxes.maxX[i], least.origin.x, greatest.origin.x,
                                least.inverse.x, greatest.inverse.x);
        Range const y = between(boxes.minY[i], boxes.maxY[i], least.origin.y, greatest.origin.y,
                                least.inverse.y, greatest.inverse.y);
        Range const z = between(boxes.minZ[i], boxes.maxZ[i], least.origin.z, greatest.origin.z,
                                least.inverse.z, greatest.inverse.z);
        float const in = larger(larger(larger(least.begin, x.low), y.low), z.low);
        float const out = smaller(smaller(x.high, y.high), z.high);
        may |= in <= withRoom(out) ? 1U << i : 0U;
    }
    return may;
}

// A list's rays are taken so many at a time.
constexpr unsigned atOnce = 16;

/// What of some numbers is least and greatest: halves of them beside each other, in as many steps
/// as there are, so that each is a few instructions.
template <unsigned count>
[[gnu::always_inline]] inline Range rangeOf(float const* low, float const* high) {
    if constexpr (count == 1) {
        return {low[0], high[0]};
    } else {
        constexpr unsigned half = count / 2;
        float lower[half];
        float higher[half];
        for (unsigned i = 0; i < half; ++i) {
            lower[i] = smaller(low[i], low[i + half]);
            higher[i] = larger(high[i], high[i + half]);
        }
        return rangeOf<half>(lower, higher);
    }
}

[[gnu::always_inline]] inline void invertLoop(BoxRays& rays, BoxRay& least, BoxRay& greatest) {
    for (float* const inverse : {rays.inverseX, rays.inverseY, rays.inverseZ})
        for (unsigned k = 0; k < BoxRays::most; ++k)
            inverse[k] = boundedReciprocal(inverse[k]);
    float const* const from[] = {rays.originX,  rays.originY,  rays.originZ, rays.inverseX,
                                 rays.inverseY, rays.inverseZ, rays.begin};
    float* const to[][2] = {
        {&least.origin.x, &greatest.origin.x},   {&least.origin.y, &greatest.origin.y},
        {&least.origin.z, &greatest.origin.z},   {&least.inverse.x, &greatest.inverse.x},
        {&least.inverse.y, &greatest.inverse.y}, {&least.inverse.z, &greatest.inverse.z},
        {&least.begin, &greatest.begin}};
    for (unsigned value = 0; value < std::size(from); ++value) {
        Range const range = rangeOf<BoxRays::most>(from[value], from[value]);
        *to[value][0] = range.low;
        *to[value][1] = range.high;
    }
}

[[gnu::always_inline]] inline std::uint64_t enterBoxLoop(BoxGroup const& boxes, unsigned box,
                                                         BoxRays const& rays, float const* ends,
                                                         float* enter) {
    float const minX = boxes.minX[box];
    float const minY = boxes.minY[box];
    float const minZ = boxes.minZ[box];
    float const maxX = boxes.maxX[box];
    float const maxY = boxes.maxY[box];
    float const maxZ = boxes.maxZ[box];
    std::uint64_t all = 0;
    for (unsigned first = 0; first < BoxRays::most; first += atOnce) {
        float ins[atOnce];
        std::uint32_t entered = 0;
        for (unsigned i = 0; i < atOnce; ++i) {
            unsigned const k = first + i;
            float const ax = (minX - rays.originX[k]) * rays.inverseX[k];
            float const bx = (maxX - rays.originX[k]) * rays.inverseX[k];
            float const ay = (minY - rays.originY[k]) * rays.inverseY[k];
            float const by = (maxY - rays.originY[k]) * rays.inverseY[k];
            float const az = (minZ - rays.originZ[k]) * rays.inverseZ[k];
            float const bz = (maxZ - rays.originZ[k]) * rays.inverseZ[k];
            float const in = larger(larger(larger(rays.begin[k], smaller(ax, bx)), smaller(ay, by)),
                                    smaller(az, bz));
            float const out = smaller(smaller(larger(ax, bx), larger(ay, by)), larger(az, bz));
            ins[i] = in;
            bool const isIn =
                static_cast<int>(in <= withRoom(out)) & static_cast<int>(in <= ends[k]);
            entered |= isIn ? 1U << i : 0U;
        }
        for (unsigned i = 0; i < atOnce; ++i)
            enter[first + i] = ins[i];
        all |= static_cast<std::uint64_t>(entered) << first;
    }
    return all;
}

[[gnu::always_inline]] inline std::uint64_t areBeforeLoop(float const* enter, float const* ends) {
    // In parts as wide as an index: shorter ones are unrolled before they could become vectors.
    constexpr unsigned part = 32;
    std::uint64_t all = 0;
    for (unsigned first = 0; first < BoxRays::most; first += part) {
        std::uint32_t before = 0;
        for (unsigned i = 0; i < part; ++i)
            before |= enter[first + i] <= ends[first + i] ? 1U << i : 0U;
        all |= static_cast<std::uint64_t>(before) << first;
    }
    return all;
}

// The loops as functions for one kind of processors.
#define KELPA_BOX_KERNELS(kind, ...)                                                               \
    namespace kind {                                                                               \
    __VA_ARGS__ std::uint32_t enterGroup(BoxGroup const& boxes, BoxRay const& ray, float end,      \
                                         GroupStretches& to) {                                     \
        return enterGroupLoop(boxes, ray, end, to);                                                \
    }                                                                                              \
    __VA_ARGS__ void invert(BoxRays& rays, BoxRay& least, BoxRay& greatest) {                      \
        invertLoop(rays, least, greatest);                                                         \
    }                                                                                              \
    __VA_ARGS__ std::uint32_t mayEnter(BoxGroup const& boxes, BoxRay const& least,                 \
                                       BoxRay const& greatest) {                                   \
        return mayEnterLoop(boxes, least, greatest);                                               \
    }                                                                                              \
    __VA_ARGS__ std::uint64_t enterBox(BoxGroup const& boxes, unsigned box, BoxRays const& rays,   \
                                       float const* ends, float* enter) {                          \
        return enterBoxLoop(boxes, box, rays, ends, enter);                                        \
    }                                                                                              \
    __VA_ARGS__ std::uint64_t areBefore(float const* enter, float const* ends) {                   \
        return areBeforeLoop(enter, ends);                                                         \
    }                                                                                              \
    constexpr BoxKernels kernels = {enterGroup, invert, mayEnter, enterBox, areBefore};            \
    }

KELPA_BOX_KERNELS(any)
#if defined(__x86_64__)
KELPA_BOX_KERNELS(avx2, [[gnu::target("avx2")]])
#if defined(__clang__) // which does not know how wide one may wish
KELPA_BOX_KERNELS(avx512, [[gnu::target("avx512f,avx512vl,avx512dq")]])
#else
KELPA_BOX_KERNELS(avx512, [[gnu::target("avx512f,avx512vl,avx512dq,prefer-vector-width=512")]])
#endif
#endif

} // namespace

BoxRay::BoxRay(double x, double y, double z, Kelpa::Vector const& dir, double tMin)
    : origin{static_cast<float>(x), static_cast<float>(y), static_cast<float>(z)},
      inverse{boundedReciprocal(dir.x), boundedReciprocal(dir.y), boundedReciprocal(dir.z)},
      begin(static_cast<float>(tMin)) {
}

std::span<BoxKernels const> boxKernels() {
#if defined(__x86_64__)
    static std::vector<BoxKernels> const found =
        formsForProcessor(any::kernels, avx2::kernels, avx512::kernels);
#else
    static std::vector<BoxKernels> const found = {any::kernels};
#endif
    return found;
}

} // namespace pipeline
