// Internal: four floats that are computed with as one, each as it would be alone.
#pragma once

#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Kelpa {

using Quad = float __attribute__((vector_size(16)));
/// One truth per element: -1 where a comparison holds, else 0.
using QuadMask = std::int32_t __attribute__((vector_size(16)));

/// Reads four consecutive floats from any address.
[[gnu::always_inline]] inline Quad loadQuad(void const* floats) {
    Quad q;
    std::memcpy(&q, floats, sizeof q);
    return q;
}

/// One of consecutive floats, without a branch over its number.
[[gnu::always_inline]] inline float floatAt(void const* floats, int number) {
    float value;
    std::memcpy(&value, static_cast<char const*>(floats) + 4 * number, sizeof value);
    return value;
}

[[gnu::always_inline]] inline void storeQuad(void* floats, Quad q) {
    std::memcpy(floats, &q, sizeof q);
}

/// Makes rows of columns.
[[gnu::always_inline]] inline void transpose(Quad (&rows)[4]) {
    Quad const low01 = __builtin_shufflevector(rows[0], rows[1], 0, 4, 1, 5);
    Quad const low23 = __builtin_shufflevector(rows[2], rows[3], 0, 4, 1, 5);
    Quad const high01 = __builtin_shufflevector(rows[0], rows[1], 2, 6, 3, 7);
    Quad const high23 = __builtin_shufflevector(rows[2], rows[3], 2, 6, 3, 7);
    rows[0] = __builtin_shufflevector(low01, low23, 0, 1, 4, 5);
    rows[1] = __builtin_shufflevector(low01, low23, 2, 3, 6, 7);
    rows[2] = __builtin_shufflevector(high01, high23, 0, 1, 4, 5);
    rows[3] = __builtin_shufflevector(high01, high23, 2, 3, 6, 7);
}

[[gnu::always_inline]] inline Quad splat(float value) {
    return Quad{value, value, value, value};
}

/// `q` with another fourth element, in registers: written to memory by itself, it would hold up
/// whoever reads all four from there.
[[gnu::always_inline]] inline Quad withFourth(Quad q, float fourth) {
    return __builtin_shufflevector(q, splat(fourth), 0, 1, 2, 7);
}

[[gnu::always_inline]] inline Quad select(QuadMask mask, Quad ifSet, Quad ifClear) {
    return reinterpret_cast<Quad>((reinterpret_cast<QuadMask>(ifSet) & mask) |
                                  (reinterpret_cast<QuadMask>(ifClear) & ~mask));
}

/// `a` where it is smaller, else `b`: a NaN in `a` gives `b`, and so does an equal `a`.
[[gnu::always_inline]] inline Quad smaller(Quad a, Quad b) {
#if defined(__SSE2__)
    return _mm_min_ps(a, b); // which g++ 12 does not see in the comparison
#else
    return select(a < b, a, b);
#endif
}
[[gnu::always_inline]] inline Quad larger(Quad a, Quad b) {
#if defined(__SSE2__)
    return _mm_max_ps(a, b);
#else
    return select(a > b, a, b);
#endif
}

[[gnu::always_inline]] inline Quad magnitude(Quad q) {
    constexpr std::int32_t allButSign = 0x7FFFFFFF;
    return reinterpret_cast<Quad>(reinterpret_cast<QuadMask>(q) &
                                  QuadMask{allButSign, allButSign, allButSign, allButSign});
}

} // namespace Kelpa
