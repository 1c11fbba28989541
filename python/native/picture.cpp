#include "python/native/picture.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>

namespace kelpapython {

namespace {

using Kelpa::Vector;

constexpr int tileWidth = 8; // a tile is a bunch of 64 rays

Vector narrow(std::array<double, 3> const& v) {
    return {static_cast<float>(v[0]), static_cast<float>(v[1]), static_cast<float>(v[2])};
}
Vector unit(Vector const& v) {
    float const length = std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
    return length > 0.0F ? Vector{v.x / length, v.y / length, v.z / length} : v;
}
float dot(Vector const& a, std::array<double, 3> const& b) {
    Vector const n = narrow(b);
    return a.x * n.x + a.y * n.y + a.z * n.z;
}

struct CameraRay {
    Vector origin;
    Vector direction; // of length 1
};

/// The ray through a point of the picture; (0, 0) is its top left corner.
CameraRay cameraRay(View const& view, double x, double y) {
    double const aspect = static_cast<double>(view.width) / view.height;
    double const across = (2.0 * x / view.width - 1.0) * (view.extent * aspect);
    double const upwards = (1.0 - 2.0 * y / view.height) * view.extent;
    std::array<double, 3> shifted;
    auto const& from = view.isParallel ? view.eye : view.forward;
    for (std::size_t axis = 0; axis < 3; ++axis)
        shifted[axis] = from[axis] + across * view.right[axis] + upwards * view.up[axis];
    if (view.isParallel)
        return {narrow(shifted), narrow(view.forward)};
    double const length =
        std::sqrt(shifted[0] * shifted[0] + shifted[1] * shifted[1] + shifted[2] * shifted[2]);
    for (double& component : shifted)
        component /= length;
    return {narrow(view.eye), narrow(shifted)};
}

/// Fractions that look random but are the same for the same pixel (M. Jarzynski and M. Olano, "Hash
/// Functions for GPU Rendering", JCGT 9(3), 2020: pcg3d).
std::array<double, 3> pixelFractions(int x, int y) {
    std::uint32_t a = static_cast<std::uint32_t>(x) * 1664525U + 1013904223U;
    std::uint32_t b = static_cast<std::uint32_t>(y) * 1664525U + 1013904223U;
    std::uint32_t c = 1013904223U;
    for (int round = 0; round < 2; ++round) {
        a += b * c;
        b += c * a;
        c += a * b;
        a ^= a >> 16U;
        b ^= b >> 16U;
        c ^= c >> 16U;
    }
    constexpr double step = 1.0 / 4294967296.0;
    return {a * step, b * step, c * step};
}

struct SamplePoint {
    double x;
    double y;
    double time; // fraction of the shutter
};

/// Where in pixel and shutter a sample lies: the additive recurrence with the powers of the root of
/// g^4 = g + 1, shifted per pixel (M. Roberts, "The Unreasonable Effectiveness of Quasirandom
/// Sequences", 2018). A single sample lies in the middle of its pixel.
SamplePoint samplePoint(int x, int y, int sample, int samples) {
    constexpr double g = 1.2207440846057596;
    std::array<double, 3> const shift = pixelFractions(x, y);
    auto const fraction = [sample](double step, double start) {
        double const sum = start + (sample + 1) * step;
        return sum - std::floor(sum);
    };
    double const time = fraction(1.0 / (g * g * g), shift[2]);
    if (samples == 1)
        return {0.5, 0.5, time};
    return {fraction(1.0 / g, shift[0]), fraction(1.0 / (g * g), shift[1]), time};
}

} // namespace

Picture::Picture(Geometry& asked, std::vector<System> const& systems, View const& from,
                 Look const& wanted, float* pixels)
    : geometry(asked), view(from), look(wanted), rgba(pixels),
      tileColumns(static_cast<std::size_t>((from.width - 1) / tileWidth + 1)),
      tileRows(static_cast<std::size_t>((from.height - 1) / tileWidth + 1)) {
    for (System const& system : systems)
        if (system.count() > 0)
            byBase.push_back(&system);
    std::sort(byBase.begin(), byBase.end(),
              [](System const* a, System const* b) { return a->base < b->base; });
}

/// Calls `visit(x, y, rgba)` for the tile's pixels, as far as they lie in the picture.
template <class Visit> void Picture::forEachPixel(std::size_t tile, Visit const& visit) const {
    int const left = static_cast<int>(tile % tileColumns) * tileWidth;
    int const top = static_cast<int>(tile / tileColumns) * tileWidth;
    for (int y = top; y < std::min(top + tileWidth, view.height); ++y)
        for (int x = left; x < std::min(left + tileWidth, view.width); ++x)
            visit(x, y, rgba + 4 * (static_cast<std::ptrdiff_t>(y) * view.width + x));
}

void Picture::clearTile(std::size_t tile) const {
    forEachPixel(tile, [](int, int, float* pixel) { std::fill(pixel, pixel + 4, 0.0F); });
}

Vector Picture::colorOf(std::int64_t index) const {
    // The last system that begins at or before the index: their ranges are disjoint.
    auto const behind =
        std::upper_bound(byBase.begin(), byBase.end(), index,
                         [](std::int64_t i, System const* system) { return i < system->base; });
    System const& system = **(behind - 1);
    if (system.first.numColors != system.count())
        return look.color;
    return system.first.colors[index - system.base];
}

Vector Picture::shade(Bunch const& bunch, std::size_t lane) const {
    Vector const normal = unit(
        {bunch.hits.hitNormalX[lane], bunch.hits.hitNormalY[lane], bunch.hits.hitNormalZ[lane]});
    if (look.shade == Shade::normals) {
        // The camera's axes: right is red, up is green, towards the eye is blue.
        auto const channel = [](float component) { return 0.5F + 0.5F * component; };
        return {channel(dot(normal, view.right)), channel(dot(normal, view.up)),
                channel(-dot(normal, view.forward))};
    }
    Vector const color = colorOf(bunch.hits.hitIndex[lane]);
    if (look.shade == Shade::flat)
        return color;
    // Some light comes from everywhere, so that rims do not vanish before a black ground.
    constexpr float ambient = 0.15F;
    float const cosine = -(normal.x * bunch.rays.dirX[lane] + normal.y * bunch.rays.dirY[lane] +
                           normal.z * bunch.rays.dirZ[lane]);
    float const light = ambient + (1.0F - ambient) * std::max(cosine, 0.0F);
    return {color.x * light, color.y * light, color.z * light};
}

void Picture::addSample(std::size_t tile, int sample, Bunch& bunch) const {
    bunch.clear();
    forEachPixel(tile, [&](int x, int y, float*) {
        SamplePoint const at = samplePoint(x, y, sample, look.samples);
        CameraRay const ray = cameraRay(view, x + at.x, y + at.y);
        // Never at the very ends of the shutter, where moving particles may be missed.
        double const part = std::clamp(at.time, 1e-6, 1.0 - 1e-6);
        double const time = static_cast<double>(look.shutter[0]) * (1.0 - part) +
                            static_cast<double>(look.shutter[1]) * part;
        bunch.add(ray.origin, ray.direction, 0.0, std::numeric_limits<double>::infinity(),
                  static_cast<float>(time), -1);
    });
    geometry.trace(bunch);

    float const weight = 1.0F / static_cast<float>(look.samples);
    std::size_t lane = 0;
    forEachPixel(tile, [&](int, int, float* pixel) {
        bool const isHit = bunch.hits.hit[lane] != 0;
        bool const isCovered = isHit || look.background.has_value();
        Vector const seen = isHit ? shade(bunch, lane) : look.background.value_or(Vector{0, 0, 0});
        ++lane;
        for (int channel = 0; channel < 3; ++channel)
            pixel[channel] += weight * seen[channel];
        pixel[3] += isCovered ? weight : 0.0F;
    });
}

} // namespace kelpapython
