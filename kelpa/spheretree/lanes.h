#pragma once
// Internal: as many spheres at a time as the processor that a source is compiled for allows.
//
// The traversals are compiled once for each kind of processor. What differs is here: `Lanes` holds
// one float per sphere. Every kind computes the same bits; arithmetic operators work lane by lane,
// comparisons answer with a bit per lane and are false where a NaN takes part.
//
// Nothing here may become a symbol that other sources share, or the linker could pick a version
// that the processor at hand cannot run: so all is forced inline or unnamed.

#include <cstdint>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#define KELPA_INLINE [[gnu::always_inline]] static inline

namespace Kelpa {

namespace {

#if defined(__AVX512F__)

struct Lanes {
    using Floats = __m512;
    static constexpr std::int32_t count = 16;

    KELPA_INLINE Floats load(float const* values) { return _mm512_loadu_ps(values); }
    KELPA_INLINE Floats all(float value) { return _mm512_set1_ps(value); }
    KELPA_INLINE std::uint32_t isGreater(Floats a, Floats b) {
        return _mm512_cmp_ps_mask(a, b, _CMP_GT_OQ);
    }
    KELPA_INLINE std::uint32_t isAtLeast(Floats a, Floats b) {
        return _mm512_cmp_ps_mask(a, b, _CMP_GE_OQ);
    }
    KELPA_INLINE std::uint32_t isEqual(Floats a, Floats b) {
        return _mm512_cmp_ps_mask(a, b, _CMP_EQ_OQ);
    }
    KELPA_INLINE Floats select(std::uint32_t lanes, Floats ifSet, Floats ifClear) {
        return _mm512_mask_mov_ps(ifClear, static_cast<__mmask16>(lanes), ifSet);
    }
    /// The root in some lanes, 0 in the others.
    KELPA_INLINE Floats rootIn(std::uint32_t lanes, Floats values) {
        return _mm512_maskz_sqrt_ps(static_cast<__mmask16>(lanes), values);
    }
    KELPA_INLINE float lowest(Floats values) {
        // Masked forms, since plain ones trip g++ 12's warning about its own headers.
        __m512 const swapped = _mm512_maskz_shuffle_f32x4(0xFFFF, values, values, 0x4E);
        __m512 const half = _mm512_maskz_min_ps(0xFFFF, values, swapped);
        __m128 const low = _mm512_maskz_extractf32x4_ps(0xF, half, 0);
        __m128 const high = _mm512_maskz_extractf32x4_ps(0xF, half, 1);
        return lowestOfFour(_mm_min_ps(low, high));
    }
    KELPA_INLINE float at(Floats values, std::int32_t lane) {
        return _mm512_cvtss_f32(
            _mm512_maskz_compress_ps(static_cast<__mmask16>(1U << lane), values));
    }
    KELPA_INLINE float lowestOfFour(__m128 values) {
        __m128 const pair = _mm_min_ps(values, _mm_movehl_ps(values, values));
        return _mm_cvtss_f32(_mm_min_ss(pair, _mm_movehdup_ps(pair)));
    }
};

#elif defined(__AVX2__)

struct Lanes {
    using Floats = __m256;
    static constexpr std::int32_t count = 8;

    KELPA_INLINE Floats load(float const* values) { return _mm256_loadu_ps(values); }
    KELPA_INLINE Floats all(float value) { return _mm256_set1_ps(value); }
    KELPA_INLINE std::uint32_t isGreater(Floats a, Floats b) {
        return bits(_mm256_cmp_ps(a, b, _CMP_GT_OQ));
    }
    KELPA_INLINE std::uint32_t isAtLeast(Floats a, Floats b) {
        return bits(_mm256_cmp_ps(a, b, _CMP_GE_OQ));
    }
    KELPA_INLINE std::uint32_t isEqual(Floats a, Floats b) {
        return bits(_mm256_cmp_ps(a, b, _CMP_EQ_OQ));
    }
    KELPA_INLINE Floats select(std::uint32_t lanes, Floats ifSet, Floats ifClear) {
        return _mm256_blendv_ps(ifClear, ifSet, where(lanes));
    }
    KELPA_INLINE Floats rootIn(std::uint32_t lanes, Floats values) {
        return _mm256_sqrt_ps(_mm256_and_ps(values, where(lanes)));
    }
    KELPA_INLINE float lowest(Floats values) {
        __m128 const half =
            _mm_min_ps(_mm256_castps256_ps128(values), _mm256_extractf128_ps(values, 1));
        __m128 const pair = _mm_min_ps(half, _mm_movehl_ps(half, half));
        return _mm_cvtss_f32(_mm_min_ss(pair, _mm_movehdup_ps(pair)));
    }
    KELPA_INLINE float at(Floats values, std::int32_t lane) {
        return _mm256_cvtss_f32(_mm256_permutevar8x32_ps(values, _mm256_set1_epi32(lane)));
    }

  private:
    KELPA_INLINE std::uint32_t bits(Floats mask) {
        return static_cast<std::uint32_t>(_mm256_movemask_ps(mask));
    }
    KELPA_INLINE Floats where(std::uint32_t lanes) {
        __m256i const laneBits = _mm256_setr_epi32(1, 2, 4, 8, 16, 32, 64, 128);
        __m256i const set = _mm256_and_si256(_mm256_set1_epi32(static_cast<int>(lanes)), laneBits);
        return _mm256_castsi256_ps(_mm256_cmpeq_epi32(set, laneBits));
    }
};

#elif defined(__SSE2__) && !defined(KELPA_SCALAR)

struct Lanes {
    using Floats = __m128;
    static constexpr std::int32_t count = 4;

    KELPA_INLINE Floats load(float const* values) { return _mm_loadu_ps(values); }
    KELPA_INLINE Floats all(float value) { return _mm_set1_ps(value); }
    KELPA_INLINE std::uint32_t isGreater(Floats a, Floats b) { return bits(_mm_cmpgt_ps(a, b)); }
    KELPA_INLINE std::uint32_t isAtLeast(Floats a, Floats b) { return bits(_mm_cmpge_ps(a, b)); }
    KELPA_INLINE std::uint32_t isEqual(Floats a, Floats b) { return bits(_mm_cmpeq_ps(a, b)); }
    KELPA_INLINE Floats select(std::uint32_t lanes, Floats ifSet, Floats ifClear) {
        return _mm_or_ps(_mm_and_ps(where(lanes), ifSet), _mm_andnot_ps(where(lanes), ifClear));
    }
    KELPA_INLINE Floats rootIn(std::uint32_t lanes, Floats values) {
        return _mm_sqrt_ps(_mm_and_ps(values, where(lanes)));
    }
    KELPA_INLINE float lowest(Floats values) {
        __m128 const pair = _mm_min_ps(values, _mm_movehl_ps(values, values));
        return _mm_cvtss_f32(_mm_min_ss(pair, _mm_shuffle_ps(pair, pair, 1)));
    }
    KELPA_INLINE float at(Floats values, std::int32_t lane) {
        float stored[4];
        _mm_storeu_ps(stored, values);
        return stored[lane];
    }

  private:
    KELPA_INLINE std::uint32_t bits(Floats mask) {
        return static_cast<std::uint32_t>(_mm_movemask_ps(mask));
    }
    KELPA_INLINE Floats where(std::uint32_t lanes) {
        __m128i const laneBits = _mm_setr_epi32(1, 2, 4, 8);
        __m128i const set = _mm_and_si128(_mm_set1_epi32(static_cast<int>(lanes)), laneBits);
        return _mm_castsi128_ps(_mm_cmpeq_epi32(set, laneBits));
    }
};

#else

struct Lanes {
    using Floats = float;
    static constexpr std::int32_t count = 1;

    KELPA_INLINE Floats load(float const* values) { return *values; }
    KELPA_INLINE Floats all(float value) { return value; }
    KELPA_INLINE std::uint32_t isGreater(Floats a, Floats b) { return a > b ? 1 : 0; }
    KELPA_INLINE std::uint32_t isAtLeast(Floats a, Floats b) { return a >= b ? 1 : 0; }
    KELPA_INLINE std::uint32_t isEqual(Floats a, Floats b) { return a == b ? 1 : 0; }
    KELPA_INLINE Floats select(std::uint32_t lanes, Floats ifSet, Floats ifClear) {
        return lanes != 0 ? ifSet : ifClear;
    }
    KELPA_INLINE Floats rootIn(std::uint32_t lanes, Floats value) {
        return lanes != 0 ? __builtin_sqrtf(value) : 0.0F;
    }
    KELPA_INLINE float lowest(Floats value) { return value; }
    KELPA_INLINE float at(Floats value, std::int32_t) { return value; }
};

#endif

} // namespace

} // namespace Kelpa
