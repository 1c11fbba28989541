#pragma once

#include "python/native/geometry.h"

#include <array>
#include <cstddef>
#include <optional>
#include <vector>

namespace kelpapython {

/// A pinhole or parallel camera. Pictures run from the top left corner, row by row.
struct View {
    std::array<double, 3> eye;
    std::array<double, 3> right; ///< unit vectors
    std::array<double, 3> up;
    std::array<double, 3> forward;
    double extent; ///< pinhole: tangent of half the vertical angle; parallel: half the height seen
    bool isParallel;
    int width;
    int height;
};

/// What a hit looks like: lit from the eye, in its plain colour, or coloured by its normal.
enum class Shade { headlight, flat, normals };

struct Look {
    Shade shade = Shade::headlight;
    int samples = 1; ///< per pixel, spread over its area and over the shutter
    std::array<float, 2> shutter = {0.0F, 1.0F};
    Kelpa::Vector color;                     ///< of systems without colours; linear
    std::optional<Kelpa::Vector> background; ///< else what shows no particle is transparent
};

/// A picture that is rendered tile by tile, from any number of threads.
///
/// A sample depends on its pixel and its number alone, so the picture is the same for any number of
/// threads.
class Picture {
  public:
    /// `pixels` takes 4 floats a pixel: linear light, already multiplied by the part of the pixel
    /// that is covered, then that part.
    Picture(Geometry& asked, std::vector<System> const& systems, View const& from,
            Look const& wanted, float* pixels);

    std::size_t tileCount() const { return tileColumns * tileRows; }
    /// Leaves the tile unfinished when `goOn` says false.
    template <class GoOn> void renderTile(std::size_t tile, GoOn const& goOn) const {
        Bunch bunch;
        clearTile(tile);
        for (int sample = 0; sample < look.samples && goOn(); ++sample)
            addSample(tile, sample, bunch);
    }

  private:
    void clearTile(std::size_t tile) const;
    void addSample(std::size_t tile, int sample, Bunch& bunch) const;
    Kelpa::Vector colorOf(std::int64_t index) const;
    Kelpa::Vector shade(Bunch const& bunch, std::size_t lane) const;
    template <class Visit> void forEachPixel(std::size_t tile, Visit const& visit) const;

    Geometry& geometry;
    std::vector<System const*> byBase;
    View view;
    Look look;
    float* rgba;
    std::size_t tileColumns;
    std::size_t tileRows;
};

} // namespace kelpapython
