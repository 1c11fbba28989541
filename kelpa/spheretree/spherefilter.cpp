#include "kelpa/spheretree/spherefilter.h"

#include "kelpa/foundation/hitkernels.h"

#include <atomic>
#include <cassert>
#include <cmath>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace Kelpa {

namespace {

// Every variant takes the steps of `hitSphere` in its order, so that it finds the same numbers; a
// sphere is ruled out where the ray passes it, where it is entered behind the interval, or where it
// is left before. Comparisons with a NaN rule nothing out. No root is taken of a negative number:
// hosts may trap invalid operations. (A maximum with a NaN is its second operand.)

std::uint32_t filterScalar(RayFilter const& ray, SphereArrays const& spheres, std::int32_t first,
                           std::int32_t count) {
    std::uint32_t possible = 0;
    for (std::int32_t k = 0; k < count; ++k) {
        Vector const toCenter = fromTo(ray.origin, spheres.center(first + k));
        float const radius = spheres.radius(first + k);
        float const tClosest = dot(toCenter, ray.dir) / ray.squaredLength;
        Vector const offset = {ray.dir.x * tClosest - toCenter.x, ray.dir.y * tClosest - toCenter.y,
                               ray.dir.z * tClosest - toCenter.z};
        float const h = dot(offset, offset) - radius * radius;
        float const halfChord = std::sqrt(h > 0.0F ? 0.0F : -h / ray.squaredLength);
        bool const isMissed =
            h > 0.0F || tClosest - halfChord >= ray.latest || tClosest + halfChord < ray.earliest;
        possible |= (isMissed ? 0U : 1U) << k;
    }
    return possible;
}

#if defined(__x86_64__)

std::uint32_t lanesBelow(std::int32_t count) {
    return (1U << count) - 1U;
}

std::uint32_t filterSse2(RayFilter const& ray, SphereArrays const& spheres, std::int32_t first,
                         std::int32_t count) {
    __m128 const dirX = _mm_set1_ps(ray.dir.x);
    __m128 const dirY = _mm_set1_ps(ray.dir.y);
    __m128 const dirZ = _mm_set1_ps(ray.dir.z);
    __m128 const squaredLength = _mm_set1_ps(ray.squaredLength);
    std::uint32_t missed = 0;
    for (std::int32_t k = 0; k < count; k += 4) {
        std::int32_t const at = first + k;
        __m128 const x = _mm_sub_ps(_mm_loadu_ps(spheres.x + at), _mm_set1_ps(ray.origin.x));
        __m128 const y = _mm_sub_ps(_mm_loadu_ps(spheres.y + at), _mm_set1_ps(ray.origin.y));
        __m128 const z = _mm_sub_ps(_mm_loadu_ps(spheres.z + at), _mm_set1_ps(ray.origin.z));
        __m128 const radius = spheres.radiusStep == 0 ? _mm_set1_ps(spheres.radii[0])
                                                      : _mm_loadu_ps(spheres.radii + at);
        __m128 const b =
            _mm_add_ps(_mm_add_ps(_mm_mul_ps(x, dirX), _mm_mul_ps(y, dirY)), _mm_mul_ps(z, dirZ));
        __m128 const tClosest = _mm_div_ps(b, squaredLength);
        __m128 const ex = _mm_sub_ps(_mm_mul_ps(dirX, tClosest), x);
        __m128 const ey = _mm_sub_ps(_mm_mul_ps(dirY, tClosest), y);
        __m128 const ez = _mm_sub_ps(_mm_mul_ps(dirZ, tClosest), z);
        __m128 const squaredOffset =
            _mm_add_ps(_mm_add_ps(_mm_mul_ps(ex, ex), _mm_mul_ps(ey, ey)), _mm_mul_ps(ez, ez));
        __m128 const h = _mm_sub_ps(squaredOffset, _mm_mul_ps(radius, radius));
        __m128 const minusH = _mm_xor_ps(h, _mm_set1_ps(-0.0F));
        __m128 const halfChord =
            _mm_sqrt_ps(_mm_max_ps(_mm_setzero_ps(), _mm_div_ps(minusH, squaredLength)));
        __m128 const isMissed = _mm_or_ps(
            _mm_cmpgt_ps(h, _mm_setzero_ps()),
            _mm_or_ps(_mm_cmpge_ps(_mm_sub_ps(tClosest, halfChord), _mm_set1_ps(ray.latest)),
                      _mm_cmplt_ps(_mm_add_ps(tClosest, halfChord), _mm_set1_ps(ray.earliest))));
        missed |= static_cast<std::uint32_t>(_mm_movemask_ps(isMissed)) << k;
    }
    return ~missed & lanesBelow(count);
}

__attribute__((target("avx2"))) std::uint32_t filterAvx2(RayFilter const& ray,
                                                         SphereArrays const& spheres,
                                                         std::int32_t first, std::int32_t count) {
    __m256 const dirX = _mm256_set1_ps(ray.dir.x);
    __m256 const dirY = _mm256_set1_ps(ray.dir.y);
    __m256 const dirZ = _mm256_set1_ps(ray.dir.z);
    __m256 const squaredLength = _mm256_set1_ps(ray.squaredLength);
    std::uint32_t missed = 0;
    for (std::int32_t k = 0; k < count; k += 8) {
        std::int32_t const at = first + k;
        __m256 const x =
            _mm256_sub_ps(_mm256_loadu_ps(spheres.x + at), _mm256_set1_ps(ray.origin.x));
        __m256 const y =
            _mm256_sub_ps(_mm256_loadu_ps(spheres.y + at), _mm256_set1_ps(ray.origin.y));
        __m256 const z =
            _mm256_sub_ps(_mm256_loadu_ps(spheres.z + at), _mm256_set1_ps(ray.origin.z));
        __m256 const radius = spheres.radiusStep == 0 ? _mm256_set1_ps(spheres.radii[0])
                                                      : _mm256_loadu_ps(spheres.radii + at);
        __m256 const b = _mm256_add_ps(
            _mm256_add_ps(_mm256_mul_ps(x, dirX), _mm256_mul_ps(y, dirY)), _mm256_mul_ps(z, dirZ));
        __m256 const tClosest = _mm256_div_ps(b, squaredLength);
        __m256 const ex = _mm256_sub_ps(_mm256_mul_ps(dirX, tClosest), x);
        __m256 const ey = _mm256_sub_ps(_mm256_mul_ps(dirY, tClosest), y);
        __m256 const ez = _mm256_sub_ps(_mm256_mul_ps(dirZ, tClosest), z);
        __m256 const squaredOffset = _mm256_add_ps(
            _mm256_add_ps(_mm256_mul_ps(ex, ex), _mm256_mul_ps(ey, ey)), _mm256_mul_ps(ez, ez));
        __m256 const h = _mm256_sub_ps(squaredOffset, _mm256_mul_ps(radius, radius));
        __m256 const minusH = _mm256_xor_ps(h, _mm256_set1_ps(-0.0F));
        __m256 const halfChord = _mm256_sqrt_ps(
            _mm256_max_ps(_mm256_setzero_ps(), _mm256_div_ps(minusH, squaredLength)));
        __m256 const isMissed =
            _mm256_or_ps(_mm256_cmp_ps(h, _mm256_setzero_ps(), _CMP_GT_OQ),
                         _mm256_or_ps(_mm256_cmp_ps(_mm256_sub_ps(tClosest, halfChord),
                                                    _mm256_set1_ps(ray.latest), _CMP_GE_OQ),
                                      _mm256_cmp_ps(_mm256_add_ps(tClosest, halfChord),
                                                    _mm256_set1_ps(ray.earliest), _CMP_LT_OQ)));
        missed |= static_cast<std::uint32_t>(_mm256_movemask_ps(isMissed)) << k;
    }
    return ~missed & lanesBelow(count);
}

__attribute__((target("avx512f"))) std::uint32_t filterAvx512(RayFilter const& ray,
                                                              SphereArrays const& spheres,
                                                              std::int32_t first,
                                                              std::int32_t count) {
    __m512 const dirX = _mm512_set1_ps(ray.dir.x);
    __m512 const dirY = _mm512_set1_ps(ray.dir.y);
    __m512 const dirZ = _mm512_set1_ps(ray.dir.z);
    __m512 const squaredLength = _mm512_set1_ps(ray.squaredLength);
    __m512 const x =
        _mm512_sub_ps(_mm512_loadu_ps(spheres.x + first), _mm512_set1_ps(ray.origin.x));
    __m512 const y =
        _mm512_sub_ps(_mm512_loadu_ps(spheres.y + first), _mm512_set1_ps(ray.origin.y));
    __m512 const z =
        _mm512_sub_ps(_mm512_loadu_ps(spheres.z + first), _mm512_set1_ps(ray.origin.z));
    __m512 const radius = spheres.radiusStep == 0 ? _mm512_set1_ps(spheres.radii[0])
                                                  : _mm512_loadu_ps(spheres.radii + first);
    __m512 const b = _mm512_add_ps(_mm512_add_ps(_mm512_mul_ps(x, dirX), _mm512_mul_ps(y, dirY)),
                                   _mm512_mul_ps(z, dirZ));
    __m512 const tClosest = _mm512_div_ps(b, squaredLength);
    __m512 const ex = _mm512_sub_ps(_mm512_mul_ps(dirX, tClosest), x);
    __m512 const ey = _mm512_sub_ps(_mm512_mul_ps(dirY, tClosest), y);
    __m512 const ez = _mm512_sub_ps(_mm512_mul_ps(dirZ, tClosest), z);
    __m512 const squaredOffset = _mm512_add_ps(
        _mm512_add_ps(_mm512_mul_ps(ex, ex), _mm512_mul_ps(ey, ey)), _mm512_mul_ps(ez, ez));
    __m512 const h = _mm512_sub_ps(squaredOffset, _mm512_mul_ps(radius, radius));
    // All that is left is for the lanes that the ray does not pass.
    std::uint32_t possible =
        ~static_cast<std::uint32_t>(_mm512_cmp_ps_mask(h, _mm512_setzero_ps(), _CMP_GT_OQ)) &
        lanesBelow(count);
    if (possible == 0)
        return 0;
    __m512 const minusH =
        _mm512_castsi512_ps(_mm512_xor_si512(_mm512_castps_si512(h), _mm512_set1_epi32(INT32_MIN)));
    // Masked forms, since plain ones trip g++ 12's warning about its own headers.
    __m512 const halfChord = _mm512_maskz_sqrt_ps(static_cast<__mmask16>(possible),
                                                  _mm512_div_ps(minusH, squaredLength));
    possible &= ~static_cast<std::uint32_t>(_mm512_cmp_ps_mask(
        _mm512_sub_ps(tClosest, halfChord), _mm512_set1_ps(ray.latest), _CMP_GE_OQ));
    possible &= ~static_cast<std::uint32_t>(_mm512_cmp_ps_mask(
        _mm512_add_ps(tClosest, halfChord), _mm512_set1_ps(ray.earliest), _CMP_LT_OQ));
    return possible;
}

#endif

SphereFilter widestFilter() {
    for (FilterVariant const variant :
         {FilterVariant::avx512, FilterVariant::avx2, FilterVariant::sse2})
        if (SphereFilter const filter = sphereFilter(variant))
            return filter;
    return filterScalar;
}

std::atomic<SphereFilter>& filterInUse() {
    static std::atomic<SphereFilter> filter = widestFilter();
    return filter;
}

} // namespace

SphereFilter sphereFilter(FilterVariant variant) {
    switch (variant) {
    case FilterVariant::scalar:
        return filterScalar;
#if defined(__x86_64__)
    case FilterVariant::sse2:
        return filterSse2;
    case FilterVariant::avx2:
        return __builtin_cpu_supports("avx2") != 0 ? filterAvx2 : nullptr;
    case FilterVariant::avx512:
        return __builtin_cpu_supports("avx512f") != 0 ? filterAvx512 : nullptr;
#endif
    default:
        return nullptr;
    }
}

SphereFilter chosenSphereFilter() {
    return filterInUse().load(std::memory_order_relaxed);
}

void chooseSphereFilter(FilterVariant variant) {
    assert(sphereFilter(variant) != nullptr);
    filterInUse().store(sphereFilter(variant), std::memory_order_relaxed);
}

} // namespace Kelpa
