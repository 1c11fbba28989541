// Compiled with options that let its loops become wide; neither changes a value.
#include "pipeline/scene/blocklanes.h"

#include <limits>

namespace pipeline {

namespace {

constexpr unsigned group = 16;

[[gnu::always_inline]] inline float smaller(float a, float b) {
    return b < a ? b : a;
}
[[gnu::always_inline]] inline float larger(float a, float b) {
    return a < b ? b : a;
}

[[gnu::always_inline]] inline bool enterBoxLoop(LaneRays const& rays, Kelpa::Box const& box,
                                                float* enter) {
    constexpr float never = std::numeric_limits<float>::infinity();
    std::int32_t any = 0;
    for (unsigned first = 0; first < rays.count; first += group)
        for (unsigned i = first; i < first + group; ++i) {
            float const ax = (box.min.x - rays.originX[i]) * rays.inverseX[i];
            float const bx = (box.max.x - rays.originX[i]) * rays.inverseX[i];
            float const ay = (box.min.y - rays.originY[i]) * rays.inverseY[i];
            float const by = (box.max.y - rays.originY[i]) * rays.inverseY[i];
            float const az = (box.min.z - rays.originZ[i]) * rays.inverseZ[i];
            float const bz = (box.max.z - rays.originZ[i]) * rays.inverseZ[i];
            float const in = larger(larger(larger(rays.begin[i], smaller(ax, bx)), smaller(ay, by)),
                                    smaller(az, bz));
            float const out = smaller(smaller(larger(ax, bx), larger(ay, by)), larger(az, bz));
            float const latest = out + (out < 0.0F ? -out : out) * boxRounding;
            bool const isIn = in <= latest && !(static_cast<double>(in) > rays.end[i]);
            enter[i] = isIn ? in : never;
            any |= isIn ? 1 : 0;
        }
    return any != 0;
}

bool enterBox(LaneRays const& rays, Kelpa::Box const& box, float* enter) {
    return enterBoxLoop(rays, box, enter);
}
#if defined(__x86_64__)
[[gnu::target("avx2")]] bool enterBoxAvx2(LaneRays const& rays, Kelpa::Box const& box,
                                          float* enter) {
    return enterBoxLoop(rays, box, enter);
}
[[gnu::target("avx512f,avx512vl,avx512dq")]] bool
enterBoxAvx512(LaneRays const& rays, Kelpa::Box const& box, float* enter) {
    return enterBoxLoop(rays, box, enter);
}
#endif

EnterBox chosenKernel() {
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx512f") != 0 && __builtin_cpu_supports("avx512vl") != 0 &&
        __builtin_cpu_supports("avx512dq") != 0)
        return enterBoxAvx512;
    if (__builtin_cpu_supports("avx2") != 0)
        return enterBoxAvx2;
#endif
    return enterBox;
}

} // namespace

void LaneRays::pad() {
    for (unsigned i = count; i % group != 0; ++i) {
        originX[i] = originY[i] = originZ[i] = 0.0F;
        inverseX[i] = inverseY[i] = inverseZ[i] = 1.0F;
        begin[i] = std::numeric_limits<float>::infinity();
        end[i] = 0.0;
    }
}

EnterBox enterBoxKernel() {
    static EnterBox const kernel = chosenKernel();
    return kernel;
}

} // namespace pipeline
