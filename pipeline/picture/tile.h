// A small square of a picture, and what all of them have in common.
#pragma once

#include "kelpa/foundation/vector.h"
#include "kelpa/host/pieces.h"

#include "pipeline/picture/camera.h"
#include "pipeline/picture/footprint.h"
#include "pipeline/picture/image.h"
#include "pipeline/picture/light.h"
#include "pipeline/picture/rods.h"
#include "pipeline/picture/sampling.h"
#include "pipeline/scene/raytape.h"
#include "pipeline/scene/scene.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace pipeline {

// Wide enough for many rays into the sky that go the same way, small enough for what is known of
// all samples to stay near the processor.
constexpr int tileWidth = 16; ///< pixels
constexpr std::size_t pixelsPerTile = std::size_t{tileWidth} * tileWidth;

/// What all tiles of a picture need to know.
struct PicturePlan {
    Scene const& scene;
    Camera camera;
    Lighting light;
    bool needsPlaces;      ///< of what is hit: for light, or for channels that tell them
    std::uint32_t samples; ///< camera rays of a pixel
    std::uint64_t seed;
    Strata strata; ///< of the times of a pixel's samples
    std::array<double, 2> shutter;
    Footprint footprint;
    PictureRods rods;
    Kelpa::Vector rodColor;
    bool isDepthPlanar;
    std::vector<Kelpa::Vector> backgrounds; ///< of each row of the picture
    std::vector<Kelpa::Vector> emptyPixels; ///< what they come to where all samples see them
};

/// A pixel while its samples are added up.
struct TilePixel {
    int x;
    int y;
    std::size_t index; ///< in the image's arrays
    PixelSamples samples;
    Sample2 lens; ///< where its patterns start
    Sample2 sky;
    Kelpa::Vector light; ///< of the samples so far
    float coverage;
    bool hasRods; ///< it may show some
};

/// The upper left pixel of a tile.
struct TilePlace {
    int left;
    int top;
};

/// Samples `first` to `first` + `count` - 1 of every pixel.
struct SampleRange {
    std::uint32_t first;
    std::uint32_t count;
};

/// Adds samples to the tile, as far as it lies in the part that `image` holds; those before them
/// have been added already. Returns false when `goOn` says no: the tile is then left half done.
bool addSamples(PicturePlan const& plan, TilePlace const& tile, SampleRange const& range,
                Image& image, Kelpa::GoOn const& goOn);

/// The most samples of a pixel whose rays are asked together.
constexpr std::uint32_t mostSamplesTogether = 16;

/// The same for at most `mostSamplesTogether`, with rays that are answered later. Called until the
/// tape knows all answers; only then the samples are added. Of each pixel one camera ray for each
/// sample is asked first, and only when these are answered the others.
bool addSamplesLater(PicturePlan const& plan, TilePlace const& tile, SampleRange const& range,
                     Image& image, RayTape& tape, Kelpa::GoOn const& goOn);

} // namespace pipeline
