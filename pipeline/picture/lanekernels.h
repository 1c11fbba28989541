// What a picture computes for every sample, for many of them at once.
#pragma once

#include "kelpa/foundation/vector.h"

#include "pipeline/picture/camera.h"
#include "pipeline/picture/light.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace pipeline {

/// Up to so many vectors, coordinate by coordinate.
template <class Number, std::size_t most> struct Lanes3 {
    Number x[most];
    Number y[most];
    Number z[most];
};

/// The same for a function that is given them: pointers to as many numbers as it is told.
template <class Number> struct Pointers3 {
    Number* x;
    Number* y;
    Number* z;

    Pointers3(Number* xs, Number* ys, Number* zs) : x(xs), y(ys), z(zs) {}
    template <class Own, std::size_t most>
    Pointers3(Lanes3<Own, most>& lanes, std::size_t first = 0)
        : x(lanes.x + first), y(lanes.y + first), z(lanes.z + first) {}
    template <class Own, std::size_t most>
    Pointers3(Lanes3<Own, most> const& lanes, std::size_t first = 0)
        : x(lanes.x + first), y(lanes.y + first), z(lanes.z + first) {}
};

/// Points of the plane, coordinate by coordinate; of patterns (see `sampling.h`) the fractions
/// count.
struct Points2 {
    double const* x;
    double const* y;
};

/// Cells of a picture that spheres may show in: columns [x0, x1] of rows [y0, y1], none where an
/// end lies before its beginning. What lies behind the eye has neither row nor column: all four
/// ends are as far off as they can be.
struct CellBlocks {
    std::int32_t* x0;
    std::int32_t* x1;
    std::int32_t* y0;
    std::int32_t* y1;
};

/// A grid of square cells over a part of a picture, in pixels.
struct CellGrid {
    int left;
    int top;
    int cellWidth;
    int columns;
    int rows;
};

/// Loops without branches over arrays, compiled for several kinds of processors. All compute the
/// same bits.
struct LaneKernels {
    /// Rays through the point of a pattern in each pixel, of which the upper left corner is given:
    /// as `Camera::ray`.
    void (*cameraRays)(Camera const& camera, std::size_t count, Points2 corner, Points2 pattern,
                       Pointers3<double> origin, Pointers3<float> dir);
    /// Directions around unit normals, likelier near them, by points of patterns: the cosine
    /// distribution.
    void (*aroundNormals)(std::size_t count, Pointers3<float const> normal, Points2 pattern,
                          Pointers3<float> dir);
    /// Moves places along directions, to parameter `t`.
    void (*goAlong)(std::size_t count, Pointers3<float const> dir, double const* t,
                    Pointers3<double> place);
    /// Makes the length of vectors 1 and tells how squarely the key light falls onto what has these
    /// normals.
    void (*normalise)(std::size_t count, Lighting const& light, Pointers3<float> normal,
                      float* cosine);
    /// Turns the colour of surfaces into the light that they send against `dir`. `open` is their
    /// share of the sky, `lit` is not 0 where the key light reaches them.
    void (*shade)(std::size_t count, Lighting const& light, Pointers3<float const> normal,
                  Pointers3<float const> dir, float const* cosine, float const* open,
                  std::int32_t const* lit, Pointers3<float> color);
    /// Where spheres may show, rounding included.
    void (*findBlocks)(Camera const& camera, CellGrid const& grid, std::size_t count,
                       Kelpa::Vector const* centers, float const* radii, CellBlocks blocks);
};

/// For the plainest to the widest processors that this one is among; the last is the best.
std::span<LaneKernels const> laneKernels();

} // namespace pipeline
