// Some samples of every pixel of a tile.
#pragma once

#include "pipeline/picture/lanekernels.h"
#include "pipeline/picture/tile.h"
#include "pipeline/scene/bunch.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace pipeline {

/// Takes samples of a tile's pixels, pass by pass.
///
/// All samples of a pass go through each step together, so that full bunches of rays that lie close
/// together are asked: first all camera rays, pixel by pixel, then the rays from what they hit.
///
/// A step asks the same rays in the same order whenever it is given the same answers to those of
/// the step before, and none of its rays depends on the answers to its others.
class TilePasses {
  public:
    /// Samples of each pixel in one pass.
    static constexpr std::uint32_t mostSamples = mostSamplesTogether;

    /// `pixels`, at most a tile's, stay where they are. With a `tape`, which is then asked the
    /// camera rays, it tells how what they hit looks; else the scene does.
    TilePasses(PicturePlan const& picturePlan, std::span<TilePixel> tilePixels,
               RayTape const* asked = nullptr)
        : plan(picturePlan), pixels(tilePixels), tape(asked) {}

    /// Adds the light of `range`, at most `mostSamples`, to every pixel. Asks `goOn` every few
    /// thousand rays; returns false when it says no, and the pixels are then worth nothing.
    bool add(SampleRange const& range, RayTarget& target, Kelpa::GoOn const& goOn);

    // The steps of `add`, one after the other; those with rays end early as it does.

    /// Finds what the camera rays of `range` meet.
    bool findSurfaces(SampleRange const& range, RayTarget& target, Kelpa::GoOn const& goOn);
    /// Finds the light that goes from there to the eye.
    bool findLight(RayTarget& target, Kelpa::GoOn const& goOn);
    void addToPixels();

    /// Fills the image's further channels from the first samples of the last pass.
    void storeFirstHits(Image& image) const;

  private:
    static constexpr std::size_t mostSurfaces = pixelsPerTile * mostSamples;
    static constexpr std::size_t mostSkyRays = 2 * mostSurfaces;

    /// What camera rays have hit, in the order of pixels and their samples.
    struct Surfaces {
        std::size_t count;
        std::uint16_t pixel[mostSurfaces];
        std::uint16_t sample[mostSurfaces];  ///< of the pass
        std::int64_t particle[mostSurfaces]; ///< its place in the scene
        Lanes3<float, mostSurfaces> dir;
        double t[mostSurfaces];
        float time[mostSurfaces];
        Lanes3<double, mostSurfaces> place; ///< first the camera ray's origin
        Lanes3<float, mostSurfaces> normal; ///< unit
        /// Where rays that leave begin to count. The surface's own particle they skip anyway, but
        /// not another one in the same place, as copies across a periodic border are: rounding
        /// would let every other ray begin just inside of it.
        double clearance[mostSurfaces];
        float cosine[mostSurfaces];        ///< of the angle between normal and key light
        float open[mostSurfaces];          ///< part of the sky that is not occluded
        std::int32_t lit[mostSurfaces];    ///< 1 where the key light falls
        Lanes3<float, mostSurfaces> color; ///< in the end the light that they send to the eye
    };

    /// What a sample sees of rods, where they are nearer than all particles.
    struct RodHit {
        std::uint16_t pixel;
        std::uint16_t sample;
        double depth;
    };

    /// Rays from surfaces into the sky: the first of every surface, then the second, and so on.
    struct SkyRays {
        struct Place {
            std::uint16_t ray;
            std::uint16_t surface;
        };
        Lanes3<float, mostSkyRays> dir;
        float open[mostSkyRays];
        Place order[mostSkyRays]; ///< those that go into like directions together
    };

    float timeAt(double part) const;
    void traceCameraRays(std::size_t firstSlot, std::size_t count, RayTarget& target);
    void leaveLens(std::size_t count, double (&pattern)[2][lanesPerBunch]);
    void addSeen(std::uint16_t pixel, std::uint16_t sample, std::size_t lane);
    void storeLayers(Image& image, std::size_t surface, std::size_t at) const;
    std::array<float, 2> motionOf(std::size_t surface) const;
    double depthOf(double t, Vec const& along) const;
    void addSurface(std::uint16_t pixel, std::uint16_t sample, std::size_t lane);
    void finishSurfaces();
    ParticleLook const& lookOnTape(std::size_t surface) const;
    Kelpa::Vector const& colorOf(std::size_t surface) const;
    float radiusOf(std::size_t surface) const;
    std::int64_t idOf(std::size_t surface) const;
    bool findSky(RayTarget& target, Kelpa::GoOn const& goOn);
    void makeSkyRays(std::uint32_t firstRay, std::uint32_t rayCount);
    void orderSkyRays(std::uint32_t rayCount);
    bool traceSkyRays(std::size_t total, RayTarget& target, Kelpa::GoOn const& goOn);
    void findShadows(RayTarget& target);
    void addLeavingRay(std::size_t surface, Kelpa::Vector const& dir, double end);
    void lightFromEye();
    void showNormals();

    PicturePlan const& plan;
    std::span<TilePixel> pixels;
    RayTape const* tape;
    LaneKernels const& kernels = laneKernels().back();
    std::uint32_t firstSample = 0; ///< of the pass
    std::uint32_t sampleCount = 0;
    Sample2 lensSteps[mostSamples];
    Bunch bunch;
    Surfaces surfaces;
    std::vector<RodHit> rodHits; ///< in the order of pixels and their samples
    SkyRays skyRays;
};

} // namespace pipeline
