#pragma once

#include "kelpa/foundation/vector.h"

#include <cmath>

namespace kelpatool {

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

} // namespace kelpatool
