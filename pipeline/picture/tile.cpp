#include "pipeline/picture/tile.h"

#include "pipeline/picture/tilepasses.h"

#include <algorithm>
#include <array>
#include <span>

namespace pipeline {

namespace {

using Kelpa::Vector;

/// Where a tile's pixels lie in it, in an order in which those near in number are near in the
/// picture (G. M. Morton, 1966): column and row are every other bit of the number.
struct Place {
    std::uint8_t x, y;
};
constexpr std::array<Place, pixelsPerTile> placesInTile = [] {
    std::array<Place, pixelsPerTile> places{};
    for (unsigned number = 0; number < pixelsPerTile; ++number)
        for (unsigned bit = 0; bit < 8; ++bit) {
            places[number].x |= static_cast<std::uint8_t>((number >> (2 * bit) & 1U) << bit);
            places[number].y |= static_cast<std::uint8_t>((number >> (2 * bit + 1) & 1U) << bit);
        }
    return places;
}();

void storePixel(Image& image, std::size_t index, Vector const& light, float coverage) {
    for (int channel = 0; channel < 3; ++channel)
        image.rgb[3 * index + static_cast<std::size_t>(channel)] = light[channel];
    image.alpha[index] = coverage;
}

/// Empties a pixel's further channels.
void clearChannels(Image& image, std::size_t index) {
    if (!image.depth.empty())
        image.depth[index] = depthOfNothing;
    if (!image.id.empty())
        image.id[index] = idOfNothing;
    for (std::size_t component = 3 * index; component < 3 * index + 3; ++component) {
        if (!image.normal.empty())
            image.normal[component] = 0.0F;
        if (!image.position.empty())
            image.position[component] = 0.0F;
    }
}

/// Collects the tile's pixels that particles may show in, and finishes the others.
std::size_t gatherPixels(PicturePlan const& plan, int left, int top, Image& image,
                         TilePixel (&pixels)[pixelsPerTile]) {
    std::size_t count = 0;
    auto const width = static_cast<std::size_t>(image.cropX1 - image.cropX0);
    for (Place const& place : placesInTile) {
        int const x = left + place.x;
        int const y = top + place.y;
        if (x < image.cropX0 || x >= image.cropX1 || y < image.cropY0 || y >= image.cropY1)
            continue;
        std::size_t const index = static_cast<std::size_t>(y - image.cropY0) * width +
                                  static_cast<std::size_t>(x - image.cropX0);
        clearChannels(image, index);
        if (!plan.footprint.reaches(x, y)) {
            storePixel(image, index, plan.emptyPixels[static_cast<std::size_t>(y)], 0.0F);
            continue;
        }
        PixelSamples const samples(x, y, plan.seed);
        pixels[count++] = {x,
                           y,
                           index,
                           samples,
                           samples.start(lensPattern),
                           samples.start(firstOcclusionPattern),
                           {},
                           0.0F};
    }
    return count;
}

} // namespace

void renderTile(PicturePlan const& plan, int left, int top, Image& image, Kelpa::GoOn const& goOn) {
    TilePixel pixels[pixelsPerTile];
    std::size_t const count = gatherPixels(plan, left, top, image, pixels);
    if (count == 0)
        return;
    // On the stack, 700 kB: where threads have taken all the memory that there is, their stacks are
    // still theirs.
    TilePasses passes(plan, std::span(pixels, count));
    std::uint32_t const numPasses =
        (plan.samples + TilePasses::mostSamples - 1) / TilePasses::mostSamples;
    std::uint32_t first = 0;
    for (std::uint32_t pass = 0; pass < numPasses; ++pass) {
        if (goOn && !goOn())
            return;
        // As many in every pass, or one more.
        std::uint32_t const samples = (plan.samples - first) / (numPasses - pass);
        passes.add(first, samples, goOn);
        if (first == 0)
            passes.storeFirstHits(image);
        first += samples;
    }
    for (TilePixel const& pixel : std::span(pixels, count))
        storePixel(image, pixel.index, pixel.light, pixel.coverage);
}

} // namespace pipeline
