// Chooses the pixels of a tile that need samples, and finishes the others.
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

Vector lightOf(Image const& image, std::size_t index) {
    float const* const rgb = image.rgb.data() + 3 * index;
    return {rgb[0], rgb[1], rgb[2]};
}

/// Empties a pixel's further channels.
void clearChannels(Image& image, std::size_t index) {
    if (!image.depth.empty())
        image.depth[index] = depthOfNothing;
    if (!image.id.empty())
        image.id[index] = idOfNothing;
    for (Layer& layer : image.layers)
        std::fill_n(layer.values.begin() + static_cast<std::ptrdiff_t>(layer.width * index),
                    layer.width, 0.0F);
    for (std::size_t component = 3 * index; component < 3 * index + 3; ++component) {
        if (!image.normal.empty())
            image.normal[component] = 0.0F;
        if (!image.position.empty())
            image.position[component] = 0.0F;
    }
}

/// Adds samples that see the background to a pixel that no particle shows in.
void addEmptySamples(PicturePlan const& plan, int row, SampleRange const& range, Image& image,
                     std::size_t index) {
    auto const y = static_cast<std::size_t>(row);
    if (range.first == 0 && range.count == plan.samples)
        return storePixel(image, index, plan.emptyPixels[y], 0.0F);
    float const weight = 1.0F / static_cast<float>(plan.samples);
    Vector light = range.first == 0 ? Vector{} : lightOf(image, index);
    for (std::uint32_t sample = 0; sample < range.count; ++sample)
        light = light + plan.backgrounds[y] * weight;
    storePixel(image, index, light, 0.0F);
}

/// Calls `visit` for each of the tile's pixels that lies in the image's part: with its place in the
/// image's arrays, whether rods may show in it, and whether anything may.
template <class Visit>
void forEachPixel(PicturePlan const& plan, TilePlace const& tile, Image const& image,
                  Visit const& visit) {
    auto const width = static_cast<std::size_t>(image.cropX1 - image.cropX0);
    for (Place const& place : placesInTile) {
        int const x = tile.left + place.x;
        int const y = tile.top + place.y;
        if (x < image.cropX0 || x >= image.cropX1 || y < image.cropY0 || y >= image.cropY1)
            continue;
        std::size_t const index = static_cast<std::size_t>(y - image.cropY0) * width +
                                  static_cast<std::size_t>(x - image.cropX0);
        bool const hasRods = plan.rods.reaches(x, y);
        visit(x, y, index, hasRods, hasRods || plan.footprint.reaches(x, y));
    }
}

TilePixel pixelAt(PicturePlan const& plan, int x, int y, std::size_t index, bool hasRods,
                  bool isFirst, Image const& image) {
    PixelSamples const samples(x, y, plan.seed);
    return {x,
            y,
            index,
            samples,
            samples.start(lensPattern),
            samples.start(firstOcclusionPattern),
            isFirst ? Vector{} : lightOf(image, index),
            isFirst ? 0.0F : image.alpha[index],
            hasRods};
}

/// Collects the tile's pixels that particles may show in.
std::size_t gatherPixels(PicturePlan const& plan, TilePlace const& tile, SampleRange const& range,
                         Image const& image, TilePixel (&pixels)[pixelsPerTile]) {
    std::size_t count = 0;
    bool const isFirst = range.first == 0;
    forEachPixel(plan, tile, image,
                 [&](int x, int y, std::size_t index, bool hasRods, bool isReached) {
                     if (isReached)
                         pixels[count++] = pixelAt(plan, x, y, index, hasRods, isFirst, image);
                 });
    return count;
}

/// Finishes the other pixels, and empties the further channels of all.
void finishOthers(PicturePlan const& plan, TilePlace const& tile, SampleRange const& range,
                  Image& image) {
    forEachPixel(plan, tile, image, [&](int, int y, std::size_t index, bool, bool isReached) {
        if (range.first == 0)
            clearChannels(image, index);
        if (!isReached)
            addEmptySamples(plan, y, range, image, index);
    });
}

void storePixels(Image& image, std::span<TilePixel const> pixels) {
    for (TilePixel const& pixel : pixels)
        storePixel(image, pixel.index, pixel.light, pixel.coverage);
}

} // namespace

bool addSamples(PicturePlan const& plan, TilePlace const& tile, SampleRange const& range,
                Image& image, Kelpa::GoOn const& goOn) {
    TilePixel pixels[pixelsPerTile];
    std::size_t const count = gatherPixels(plan, tile, range, image, pixels);
    finishOthers(plan, tile, range, image);
    if (count == 0)
        return true;
    // On the stack, 700 kB: where threads have taken all the memory that there is, their stacks are
    // still theirs.
    TilePasses passes(plan, std::span(pixels, count));
    std::uint32_t const numPasses =
        (range.count + TilePasses::mostSamples - 1) / TilePasses::mostSamples;
    std::uint32_t done = 0;
    for (std::uint32_t pass = 0; pass < numPasses; ++pass) {
        // As many in every pass, or one more.
        std::uint32_t const samples = (range.count - done) / (numPasses - pass);
        if (!passes.add({range.first + done, samples}, *plan.scene.geometry, goOn))
            return false;
        if (range.first + done == 0)
            passes.storeFirstHits(image);
        done += samples;
    }
    storePixels(image, std::span(pixels, count));
    return true;
}

bool addSamplesLater(PicturePlan const& plan, TilePlace const& tile, SampleRange const& range,
                     Image& image, RayTape& tape, Kelpa::GoOn const& goOn) {
    TilePixel pixels[pixelsPerTile];
    std::size_t const count = gatherPixels(plan, tile, range, image, pixels);
    TilePasses passes(plan, std::span(pixels, count), &tape);
    tape.want(Wanted::hit);
    if (!passes.findSurfaces(range, tape, goOn))
        return false;
    if (tape.lacksAnswers())
        return true;
    tape.want(Wanted::distance);
    if (!passes.findLight(tape, goOn))
        return false;
    if (tape.lacksAnswers())
        return true;
    passes.addToPixels();
    finishOthers(plan, tile, range, image);
    if (range.first == 0)
        passes.storeFirstHits(image);
    storePixels(image, std::span(pixels, count));
    return true;
}

} // namespace pipeline
