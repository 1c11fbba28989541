// Pinhole and parallel rays through points of the picture, and the way back as matrices.
#include "pipeline/picture/camera.h"

#include <cmath>
#include <numbers>

namespace pipeline {

Kelpa::TraceRay Camera::ray(double pixelX, double pixelY) const {
    Vec const from = isParallel ? parallelOrigin(pixelX, pixelY) : eye;
    Vec const along = isParallel ? forward : pinholeDirection(pixelX, pixelY);
    return {
        {from.x, from.y, from.z},
        {static_cast<float>(along.x), static_cast<float>(along.y), static_cast<float>(along.z)}};
}

namespace {

using Matrix = std::array<double, 16>; ///< row by row

Matrix product(Matrix const& a, Matrix const& b) {
    Matrix result{};
    for (std::size_t row = 0; row < 4; ++row)
        for (std::size_t column = 0; column < 4; ++column)
            for (std::size_t k = 0; k < 4; ++k)
                result[4 * row + column] += a[4 * row + k] * b[4 * k + column];
    return result;
}

Matrix toCamera(Camera const& camera, Vec const& origin) {
    Vec const& r = camera.right;
    Vec const& u = camera.up;
    Vec const b = camera.forward * -1.0;
    Vec const eye = camera.eye + origin;
    return {r.x, u.x, b.x, 0.0, r.y,          u.y,          b.y,          0.0,
            r.z, u.z, b.z, 0.0, -dot(eye, r), -dot(eye, u), -dot(eye, b), 1.0};
}

std::array<float, 16> single(Matrix const& matrix) {
    std::array<float, 16> result{};
    for (std::size_t i = 0; i < result.size(); ++i)
        result[i] = static_cast<float>(matrix[i]);
    return result;
}

} // namespace

std::array<float, 16> Camera::worldToCamera(Vec const& origin) const {
    return single(toCamera(*this, origin));
}

std::array<float, 16> Camera::worldToNdc(Vec const& origin) const {
    double const y = 1.0 / tanHalfHeight;
    double const x = y * height / width;
    Matrix const parallel = {x, 0, 0, 0, 0, y, 0, 0, 0, 0, -1, 0, 0, 0, 0, 1};
    Matrix const pinhole = {x, 0, 0, 0, 0, y, 0, 0, 0, 0, -1, -1, 0, 0, -1, 0};
    return single(product(toCamera(*this, origin), isParallel ? parallel : pinhole));
}

double Camera::fov() const {
    return isParallel ? 0.0 : 2.0 * std::atan(tanHalfHeight) * 180.0 / std::numbers::pi;
}

} // namespace pipeline
