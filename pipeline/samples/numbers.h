// Arithmetic and random numbers of the samples.
//
// The same bits come out on every machine: random numbers are made here, and the only operations
// are + - * /, square roots and exact ones such as floor; the library's sines, logarithms and
// distributions differ from machine to machine.
#pragma once

#include "kelpa/foundation/vector.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace pipeline::samples {

struct Point {
    double x = 0.0, y = 0.0, z = 0.0;
};

inline Point operator+(Point a, Point b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
inline Point operator-(Point a, Point b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
inline Point operator*(double s, Point a) {
    return {s * a.x, s * a.y, s * a.z};
}
inline double dot(Point a, Point b) {
    return (a.x * b.x + a.y * b.y) + a.z * b.z;
}
inline double length(Point a) {
    return std::sqrt(dot(a, a));
}
inline Kelpa::Vector vectorOf(Point a) {
    return {static_cast<float>(a.x), static_cast<float>(a.y), static_cast<float>(a.z)};
}
inline double mix(double from, double to, double share) {
    return from + (to - from) * share;
}
inline Point mix(Point from, Point to, double share) {
    return from + share * (to - from);
}
/// 0 up to `from`, 1 from `to` on, smooth between.
inline double smoothStep(double from, double to, double at) {
    double const t = std::clamp((at - from) / (to - from), 0.0, 1.0);
    return t * t * (3.0 - 2.0 * t);
}

struct Turn {
    double cos, sin;
};

/// Cosine and sine of so many full turns, by Taylor's series on an eighth of a turn.
inline Turn turn(double turns) {
    double const quarter = std::floor(turns * 4.0 + 0.5);
    double const angle = (turns - quarter * 0.25) * 6.283185307179586;
    double const square = angle * angle;
    double sin = 0.0;
    double cos = 0.0;
    for (double n = 16.0; n > 0.0; n -= 2.0) { // terms beyond are below 2^-53
        cos = 1.0 - square / (n * (n - 1.0)) * (n == 16.0 ? 1.0 : cos);
        sin = 1.0 - square / (n * (n + 1.0)) * (n == 16.0 ? 1.0 : sin);
    }
    sin *= angle;
    double const quadrant = quarter - 4.0 * std::floor(quarter * 0.25);
    if (quadrant == 0.0)
        return {cos, sin};
    if (quadrant == 1.0)
        return {-sin, cos};
    return quadrant == 2.0 ? Turn{-cos, -sin} : Turn{sin, -cos};
}

/// The natural logarithm of a positive number: ln(m 2^e) = e ln 2 + 2 artanh((m - 1) / (m + 1)).
inline double logarithm(double x) {
    int exponent = 0;
    double const mantissa = std::frexp(x, &exponent);
    double const q = (mantissa - 1.0) / (mantissa + 1.0);
    double sum = 0.0;
    for (double n = 41.0; n > 0.0; n -= 2.0)
        sum = sum * (q * q) + 1.0 / n;
    return exponent * 0.6931471805599453 + 2.0 * q * sum;
}

/// SplitMix64: G. L. Steele, D. Lea, C. H. Flood, "Fast Splittable Pseudorandom Number Generators",
/// OOPSLA 2014. Every particle has its own, so none depends on those before it. An expression draws
/// at most once, since compilers differ in the order in which they take the terms of a sum.
class Random {
  public:
    Random(std::uint64_t seed, std::uint64_t stream) : state(seed) {
        state = next() ^ (stream * 0xd1342543de82ef95U);
    }

    std::uint64_t next() {
        state += 0x9e3779b97f4a7c15U;
        std::uint64_t z = (state ^ (state >> 30)) * 0xbf58476d1ce4e5b9U;
        z = (z ^ (z >> 27)) * 0x94d049bb133111ebU;
        return z ^ (z >> 31);
    }
    /// In [0, 1).
    double uniform() { return static_cast<double>(next() >> 11) * 0x1p-53; }
    /// In [0, 1), small numbers more often: a product of two.
    double small() {
        double const first = uniform();
        return first * uniform();
    }
    double between(double low, double high) { return mix(low, high, uniform()); }
    /// Mean 0, deviation 1, near enough to Gauss's bell: a sum of four.
    double bell() {
        double sum = -2.0;
        for (int draw = 0; draw < 4; ++draw)
            sum += uniform();
        return sum * 1.7320508075688772;
    }
    Point bellPoint() {
        double const x = bell();
        double const y = bell();
        return {x, y, bell()};
    }
    /// Of length 1, all alike.
    Point direction() {
        for (;;) {
            double const x = between(-1.0, 1.0);
            double const y = between(-1.0, 1.0);
            Point const p = {x, y, between(-1.0, 1.0)};
            double const square = dot(p, p);
            if (square > 0.01 && square < 1.0)
                return (1.0 / std::sqrt(square)) * p;
        }
    }

  private:
    std::uint64_t state;
};

} // namespace pipeline::samples
