// Internal: as many spheres at a time as the processor that a source is compiled for allows.
//
// The traversals are compiled once for each kind of processor. What differs is here: `Lanes` holds
// one float per sphere. Every kind computes the same bits; arithmetic operators work lane by lane,
// comparisons answer with a bit per lane and are false where a NaN takes part.
//
// Where a vector has 8 floats or more, lanes also stand for rays; `Doubles` holds their parameters.
// `lower` and `higher` answer with the second operand where a NaN takes part.
//
// Nothing here may become a symbol that other sources share, or the linker could pick a version
// that the processor at hand cannot run: so all is forced inline or unnamed.
#pragma once

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
    KELPA_INLINE void storeIn(std::uint32_t lanes, float* to, Floats values) {
        _mm512_mask_storeu_ps(to, static_cast<__mmask16>(lanes), values);
    }
    KELPA_INLINE Floats lower(Floats a, Floats b) { return _mm512_maskz_min_ps(0xFFFF, a, b); }
    KELPA_INLINE Floats higher(Floats a, Floats b) { return _mm512_maskz_max_ps(0xFFFF, a, b); }
    KELPA_INLINE std::uint32_t isNegative(Floats values) {
        return _mm512_movepi32_mask(_mm512_castps_si512(values));
    }
    KELPA_INLINE std::uint32_t isEqual(std::int32_t const* numbers, std::int32_t number) {
        return _mm512_cmpeq_epi32_mask(_mm512_loadu_si512(numbers), _mm512_set1_epi32(number));
    }
    /// Copies the numbers of some lanes, 0 among them, to `to`; the others become that of lane 0.
    KELPA_INLINE void fill(std::uint32_t* to, std::uint32_t lanes, std::uint32_t const* numbers) {
        __m512i const first = _mm512_set1_epi32(static_cast<int>(numbers[0]));
        _mm512_storeu_si512(to,
                            _mm512_mask_loadu_epi32(first, static_cast<__mmask16>(lanes), numbers));
    }
    /// The four floats at `at(0)` and those at `at(4)`, `at(8)` and `at(12)` behind them.
    template <class At> KELPA_INLINE Floats quads(At const& at) {
        __m512 const first = _mm512_castps128_ps512(_mm_loadu_ps(at(0)));
        __m512 const two = _mm512_maskz_insertf32x4(0xFFFF, first, _mm_loadu_ps(at(4)), 1);
        __m512 const three = _mm512_maskz_insertf32x4(0xFFFF, two, _mm_loadu_ps(at(8)), 2);
        return _mm512_maskz_insertf32x4(0xFFFF, three, _mm_loadu_ps(at(12)), 3);
    }
    /// Makes rows of columns, in every four floats.
    KELPA_INLINE void transposeQuads(Floats& a, Floats& b, Floats& c, Floats& d) {
        __m512d const lowAB = _mm512_castps_pd(_mm512_maskz_unpacklo_ps(0xFFFF, a, b));
        __m512d const highAB = _mm512_castps_pd(_mm512_maskz_unpackhi_ps(0xFFFF, a, b));
        __m512d const lowCD = _mm512_castps_pd(_mm512_maskz_unpacklo_ps(0xFFFF, c, d));
        __m512d const highCD = _mm512_castps_pd(_mm512_maskz_unpackhi_ps(0xFFFF, c, d));
        a = _mm512_castpd_ps(_mm512_maskz_unpacklo_pd(0xFF, lowAB, lowCD));
        b = _mm512_castpd_ps(_mm512_maskz_unpackhi_pd(0xFF, lowAB, lowCD));
        c = _mm512_castpd_ps(_mm512_maskz_unpacklo_pd(0xFF, highAB, highCD));
        d = _mm512_castpd_ps(_mm512_maskz_unpackhi_pd(0xFF, highAB, highCD));
    }
};

/// A double for each lane of `Lanes`, in two vectors.
struct Doubles {
    __m512d low, high;

    KELPA_INLINE Doubles load(double const* at) {
        return {_mm512_loadu_pd(at), _mm512_loadu_pd(at + 8)};
    }
    KELPA_INLINE Doubles all(double value) {
        return {_mm512_set1_pd(value), _mm512_set1_pd(value)};
    }
    KELPA_INLINE Doubles of(__m512 floats) {
        __m512d const pairs = _mm512_castps_pd(floats);
        __m256 const low = _mm256_castpd_ps(_mm512_maskz_extractf64x4_pd(0xF, pairs, 0));
        __m256 const high = _mm256_castpd_ps(_mm512_maskz_extractf64x4_pd(0xF, pairs, 1));
        return {_mm512_maskz_cvtps_pd(0xFF, low), _mm512_maskz_cvtps_pd(0xFF, high)};
    }
    KELPA_INLINE std::uint32_t isLess(Doubles a, Doubles b) {
        return joined(_mm512_cmp_pd_mask(a.low, b.low, _CMP_LT_OQ),
                      _mm512_cmp_pd_mask(a.high, b.high, _CMP_LT_OQ));
    }
    KELPA_INLINE std::uint32_t isAtMost(Doubles a, Doubles b) {
        return joined(_mm512_cmp_pd_mask(a.low, b.low, _CMP_LE_OQ),
                      _mm512_cmp_pd_mask(a.high, b.high, _CMP_LE_OQ));
    }
    KELPA_INLINE Doubles select(std::uint32_t lanes, Doubles ifSet, Doubles ifClear) {
        return {_mm512_mask_mov_pd(ifClear.low, static_cast<__mmask8>(lanes), ifSet.low),
                _mm512_mask_mov_pd(ifClear.high, static_cast<__mmask8>(lanes >> 8), ifSet.high)};
    }
    KELPA_INLINE void storeIn(std::uint32_t lanes, double* to, Doubles values) {
        _mm512_mask_storeu_pd(to, static_cast<__mmask8>(lanes), values.low);
        _mm512_mask_storeu_pd(to + 8, static_cast<__mmask8>(lanes >> 8), values.high);
    }
    KELPA_INLINE __m512 rounded(Doubles a) {
        return joined(_mm512_maskz_cvtpd_ps(0xFF, a.low), _mm512_maskz_cvtpd_ps(0xFF, a.high));
    }
    KELPA_INLINE __m512 roundedUp(Doubles a) {
        constexpr int up = _MM_FROUND_TO_POS_INF | _MM_FROUND_NO_EXC;
        return joined(_mm512_maskz_cvt_roundpd_ps(0xFF, a.low, up),
                      _mm512_maskz_cvt_roundpd_ps(0xFF, a.high, up));
    }

  private:
    KELPA_INLINE std::uint32_t joined(__mmask8 low, __mmask8 high) {
        return static_cast<std::uint32_t>(low) | static_cast<std::uint32_t>(high) << 8;
    }
    KELPA_INLINE __m512 joined(__m256 low, __m256 high) {
        return _mm512_castpd_ps(_mm512_maskz_insertf64x4(
            0xFF, _mm512_castps_pd(_mm512_castps256_ps512(low)), _mm256_castps_pd(high), 1));
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
    KELPA_INLINE void storeIn(std::uint32_t lanes, float* to, Floats values) {
        _mm256_maskstore_ps(to, _mm256_castps_si256(where(lanes)), values);
    }
    KELPA_INLINE Floats lower(Floats a, Floats b) { return _mm256_min_ps(a, b); }
    KELPA_INLINE Floats higher(Floats a, Floats b) { return _mm256_max_ps(a, b); }
    KELPA_INLINE std::uint32_t isNegative(Floats values) { return bits(values); }
    KELPA_INLINE std::uint32_t isEqual(std::int32_t const* numbers, std::int32_t number) {
        __m256i const loaded = _mm256_loadu_si256(reinterpret_cast<__m256i const*>(numbers));
        return bits(_mm256_castsi256_ps(_mm256_cmpeq_epi32(loaded, _mm256_set1_epi32(number))));
    }
    KELPA_INLINE void fill(std::uint32_t* to, std::uint32_t lanes, std::uint32_t const* numbers) {
        __m256 const first = _mm256_castsi256_ps(_mm256_set1_epi32(static_cast<int>(numbers[0])));
        auto const* const at = reinterpret_cast<int const*>(numbers);
        __m256 const some =
            _mm256_castsi256_ps(_mm256_maskload_epi32(at, _mm256_castps_si256(where(lanes))));
        _mm256_storeu_ps(reinterpret_cast<float*>(to), select(lanes, some, first));
    }
    template <class At> KELPA_INLINE Floats quads(At const& at) {
        return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(at(0))),
                                    _mm_loadu_ps(at(4)), 1);
    }
    KELPA_INLINE void transposeQuads(Floats& a, Floats& b, Floats& c, Floats& d) {
        __m256d const lowAB = _mm256_castps_pd(_mm256_unpacklo_ps(a, b));
        __m256d const highAB = _mm256_castps_pd(_mm256_unpackhi_ps(a, b));
        __m256d const lowCD = _mm256_castps_pd(_mm256_unpacklo_ps(c, d));
        __m256d const highCD = _mm256_castps_pd(_mm256_unpackhi_ps(c, d));
        a = _mm256_castpd_ps(_mm256_unpacklo_pd(lowAB, lowCD));
        b = _mm256_castpd_ps(_mm256_unpackhi_pd(lowAB, lowCD));
        c = _mm256_castpd_ps(_mm256_unpacklo_pd(highAB, highCD));
        d = _mm256_castpd_ps(_mm256_unpackhi_pd(highAB, highCD));
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

/// A double for each lane of `Lanes`, in two vectors.
struct Doubles {
    __m256d low, high;

    KELPA_INLINE Doubles load(double const* at) {
        return {_mm256_loadu_pd(at), _mm256_loadu_pd(at + 4)};
    }
    KELPA_INLINE Doubles all(double value) {
        return {_mm256_set1_pd(value), _mm256_set1_pd(value)};
    }
    KELPA_INLINE Doubles of(__m256 floats) {
        return {_mm256_cvtps_pd(_mm256_castps256_ps128(floats)),
                _mm256_cvtps_pd(_mm256_extractf128_ps(floats, 1))};
    }
    KELPA_INLINE std::uint32_t isLess(Doubles a, Doubles b) {
        return bits(_mm256_cmp_pd(a.low, b.low, _CMP_LT_OQ),
                    _mm256_cmp_pd(a.high, b.high, _CMP_LT_OQ));
    }
    KELPA_INLINE std::uint32_t isAtMost(Doubles a, Doubles b) {
        return bits(_mm256_cmp_pd(a.low, b.low, _CMP_LE_OQ),
                    _mm256_cmp_pd(a.high, b.high, _CMP_LE_OQ));
    }
    KELPA_INLINE Doubles select(std::uint32_t lanes, Doubles ifSet, Doubles ifClear) {
        return {_mm256_blendv_pd(ifClear.low, ifSet.low, _mm256_castsi256_pd(where(lanes))),
                _mm256_blendv_pd(ifClear.high, ifSet.high, _mm256_castsi256_pd(where(lanes >> 4)))};
    }
    KELPA_INLINE void storeIn(std::uint32_t lanes, double* to, Doubles values) {
        _mm256_maskstore_pd(to, where(lanes), values.low);
        _mm256_maskstore_pd(to + 4, where(lanes >> 4), values.high);
    }
    KELPA_INLINE __m256 rounded(Doubles a) {
        return _mm256_set_m128(_mm256_cvtpd_ps(a.high), _mm256_cvtpd_ps(a.low));
    }
    /// As the function of the same name.
    KELPA_INLINE __m256 roundedUp(Doubles a) {
        __m256 const nearest = rounded(a);
        Doubles const wide = of(nearest);
        __m256i const isBelow =
            narrowed(_mm256_castpd_si256(_mm256_cmp_pd(wide.low, a.low, _CMP_LT_OQ)),
                     _mm256_castpd_si256(_mm256_cmp_pd(wide.high, a.high, _CMP_LT_OQ)));
        __m256i const bits = _mm256_castps_si256(nearest);
        __m256i const up = _mm256_or_si256(_mm256_srai_epi32(bits, 31), _mm256_set1_epi32(1));
        return _mm256_castsi256_ps(_mm256_add_epi32(bits, _mm256_and_si256(isBelow, up)));
    }

  private:
    KELPA_INLINE std::uint32_t bits(__m256d low, __m256d high) {
        return static_cast<std::uint32_t>(_mm256_movemask_pd(low) | _mm256_movemask_pd(high) << 4);
    }
    KELPA_INLINE __m256i where(std::uint32_t lanes) {
        __m256i const laneBits = _mm256_setr_epi64x(1, 2, 4, 8);
        __m256i const set = _mm256_and_si256(_mm256_set1_epi64x(lanes), laneBits);
        return _mm256_cmpeq_epi64(set, laneBits);
    }
    /// The lower half of each number.
    KELPA_INLINE __m256i narrowed(__m256i low, __m256i high) {
        __m256i const even = _mm256_setr_epi32(0, 2, 4, 6, 0, 2, 4, 6);
        return _mm256_permute2x128_si256(_mm256_permutevar8x32_epi32(low, even),
                                         _mm256_permutevar8x32_epi32(high, even), 0x20);
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

#if defined(__AVX2__)

[[gnu::always_inline]] inline Doubles operator+(Doubles a, Doubles b) {
    return {a.low + b.low, a.high + b.high};
}
[[gnu::always_inline]] inline Doubles operator-(Doubles a, Doubles b) {
    return {a.low - b.low, a.high - b.high};
}
[[gnu::always_inline]] inline Doubles operator*(Doubles a, Doubles b) {
    return {a.low * b.low, a.high * b.high};
}
[[gnu::always_inline]] inline Doubles operator-(Doubles a) {
    return {-a.low, -a.high};
}

#endif

} // namespace

} // namespace Kelpa
