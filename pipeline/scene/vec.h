// Vectors of double and of single precision.
#pragma once

#include "kelpa/foundation/vector.h"

#include <cmath>

namespace pipeline {

/// Three doubles: directions and places of the camera, where single precision would show.
struct Vec {
    double x, y, z;
};

inline Vec operator+(Vec const& a, Vec const& b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
inline Vec operator-(Vec const& a, Vec const& b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
inline Vec operator*(Vec const& a, double s) {
    return {a.x * s, a.y * s, a.z * s};
}
inline double dot(Vec const& a, Vec const& b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
inline Vec cross(Vec const& a, Vec const& b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline Vec unit(Vec const& v) {
    return v * (1.0 / std::sqrt(dot(v, v)));
}
inline Vec wide(Kelpa::Vector const& v) {
    return {static_cast<double>(v.x), static_cast<double>(v.y), static_cast<double>(v.z)};
}

inline Kelpa::Vector operator+(Kelpa::Vector const& a, Kelpa::Vector const& b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
inline Kelpa::Vector operator*(Kelpa::Vector const& a, float s) {
    return {a.x * s, a.y * s, a.z * s};
}
inline float dot(Kelpa::Vector const& a, Kelpa::Vector const& b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
inline Kelpa::Vector cross(Kelpa::Vector const& a, Kelpa::Vector const& b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
/// Of length 1; the zero vector stays.
inline Kelpa::Vector unit(Kelpa::Vector const& v) {
    float const length = std::sqrt(dot(v, v));
    float const scale = length > 0.0F ? 1.0F / length : 1.0F;
    return v * scale;
}
inline Kelpa::Vector narrow(Vec const& v) {
    return {static_cast<float>(v.x), static_cast<float>(v.y), static_cast<float>(v.z)};
}

} // namespace pipeline
