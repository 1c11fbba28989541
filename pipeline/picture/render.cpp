// What all tiles share, and the image around them.
#include "pipeline/picture/render.h"

#include "kelpa/host/pieces.h"

#include "pipeline/files/srgb.h"
#include "pipeline/picture/fingerprint.h"
#include "pipeline/picture/picturepart.h"
#include "pipeline/picture/renderlater.h"
#include "pipeline/picture/tileorder.h"
#include "pipeline/scene/vec.h"

#include <algorithm>
#include <atomic>

namespace pipeline {

namespace {

using Kelpa::Vector;

/// What is seen beside the particles in each row.
std::vector<Vector> backgroundRows(ImageOptions const& options) {
    if (options.transparent)
        return std::vector<Vector>(static_cast<std::size_t>(options.height));
    if (options.background)
        return std::vector<Vector>(static_cast<std::size_t>(options.height), *options.background);
    Vector const top = {linearFromSrgb(0.93), linearFromSrgb(0.945), linearFromSrgb(0.96)};
    Vector const bottom = {linearFromSrgb(0.70), linearFromSrgb(0.725), linearFromSrgb(0.76)};
    std::vector<Vector> rows;
    for (int y = 0; y < options.height; ++y) {
        float const f = (static_cast<float>(y) + 0.5F) / static_cast<float>(options.height);
        rows.push_back(top * (1.0F - f) + bottom * f);
    }
    return rows;
}

/// Pixels all of whose samples see the background.
std::vector<Vector> emptyPixels(std::vector<Vector> const& backgrounds, int samples) {
    float const weight = 1.0F / static_cast<float>(samples);
    std::vector<Vector> pixels(backgrounds.size());
    for (std::size_t row = 0; row < pixels.size(); ++row)
        for (int sample = 0; sample < samples; ++sample)
            pixels[row] = pixels[row] + backgrounds[row] * weight;
    return pixels;
}

/// A grey that is seen before the background.
Vector standingOut(ImageOptions const& image) {
    constexpr Vector dark = {0.03F, 0.03F, 0.03F};
    constexpr Vector pale = {0.7F, 0.7F, 0.7F};
    constexpr float middle = 0.18F; // of linear light, to the eye
    bool const isBehindDark =
        image.background && image.background->y < middle && !image.transparent;
    return isBehindDark ? pale : dark;
}

PicturePlan makePlan(Scene const& scene, Camera const& camera, LightOptions const& light,
                     ImageOptions const& image, Picture::Sky sky) {
    auto const [left, top, right, bottom] = partOf(image);
    auto const samples = static_cast<std::uint32_t>(image.samples);
    std::vector<Vector> const backgrounds = backgroundRows(image);
    Lighting const lighting = makeLighting(light, camera, scene);
    bool const showsShape = light.shade != LightOptions::Shade::flat;
    return {scene,
            camera,
            lighting,
            showsShape || image.hasAovs(),
            samples,
            image.seed,
            Strata(samples),
            image.shutter,
            sky == Picture::Sky::leftOut ? Footprint(scene, camera, left, top, right, bottom)
                                         : Footprint(),
            PictureRods(scene.rods, camera, left, top, right, bottom),
            image.rodColor.value_or(standingOut(image)),
            image.isDepthPlanar,
            backgrounds,
            emptyPixels(backgrounds, image.samples)};
}

/// So many rays wait for trees in files that they take a quarter of what trees in memory do: the
/// more wait, the seldomer is each tree read.
std::size_t raysBeside(StoreFigures const& store) {
    constexpr std::uint64_t bytesOfRay = 150;
    return std::clamp<std::uint64_t>(store.heldBytes / 4 / bytesOfRay, 1U << 16, 1U << 22);
}

} // namespace

Picture::Picture(Scene const& scene, Camera const& camera, LightOptions const& light,
                 ImageOptions const& imageOptions, Sky sky)
    : options(imageOptions), plan(makePlan(scene, camera, light, imageOptions, sky)) {
    if (options.tile)
        tileLabel = textOf({fingerprintOf(scene, camera, light, options), *options.tile,
                            wholeOf(options), options.width, options.height});
    auto const [left, top, right, bottom] = partOf(options);
    firstColumn = left / tileWidth;
    firstRow = top / tileWidth;
    columns = (right - 1) / tileWidth - firstColumn + 1;
    rows = (bottom - 1) / tileWidth - firstRow + 1;
}

Image Picture::emptyImage() const {
    Image image;
    image.width = options.width;
    image.height = options.height;
    auto const [left, top, right, bottom] = partOf(options);
    image.cropX0 = left;
    image.cropY0 = top;
    image.cropX1 = right;
    image.cropY1 = bottom;
    std::size_t const count =
        static_cast<std::size_t>(right - left) * static_cast<std::size_t>(bottom - top);
    image.rgb.resize(3 * count);
    image.alpha.resize(count);
    if (options.depth)
        image.depth.assign(count, depthOfNothing);
    if (options.normal)
        image.normal.resize(3 * count);
    if (options.position)
        image.position.resize(3 * count);
    if (options.id)
        image.id.assign(count, idOfNothing);
    if (options.velocity)
        image.layers.push_back({"velocity", 2});
    for (ColumnLayer const& column : plan.scene.layers)
        image.layers.push_back({columnLayerName(column.name), column.width});
    for (Layer& layer : image.layers)
        layer.values.resize(layer.width * count);
    image.tileLabel = tileLabel;
    PictureFacts& facts = image.facts.emplace();
    facts.worldToCamera = plan.camera.worldToCamera(plan.scene.origin);
    facts.worldToNdc = plan.camera.worldToNdc(plan.scene.origin);
    facts.fov = plan.camera.fov();
    facts.seed = options.seed;
    return image;
}

std::size_t Picture::tileCount() const {
    return static_cast<std::size_t>(columns) * static_cast<std::size_t>(rows);
}

TilePlace Picture::placeOf(std::size_t tile) const {
    auto const column = static_cast<int>(tile % static_cast<std::size_t>(columns));
    auto const row = static_cast<int>(tile / static_cast<std::size_t>(columns));
    return {(firstColumn + column) * tileWidth, (firstRow + row) * tileWidth};
}

void Picture::renderTile(std::size_t tile, Image& image, Kelpa::GoOn const& goOn) const {
    addSamples(tile, 0, plan.samples, image, goOn);
}

bool Picture::addSamples(std::size_t tile, std::uint32_t first, std::uint32_t count, Image& image,
                         Kelpa::GoOn const& goOn) const {
    return pipeline::addSamples(plan, placeOf(tile), {first, count}, image, goOn);
}

bool Picture::addSamplesLater(std::size_t tile, std::uint32_t first, std::uint32_t count,
                              Image& image, RayTape& tape, Kelpa::GoOn const& goOn) const {
    return pipeline::addSamplesLater(plan, placeOf(tile), {first, count}, image, tape, goOn);
}

std::uint32_t Picture::raysFromSurface() const {
    if (!plan.light.hasKey)
        return 0;
    return static_cast<std::uint32_t>(plan.light.occlusionRays) + (plan.light.hasShadows ? 1U : 0U);
}

Image renderImage(Scene const& scene, Camera const& camera, ImageOptions const& options,
                  LightOptions const& light, int threads, PhaseProgress const& progress) {
    Picture const picture(scene, camera, light, options);
    Image image = picture.emptyImage();
    std::size_t const tiles = picture.tileCount();

    TileOrder const order(tiles);
    auto const store = scene.geometry->storeFigures();
    if (store && store->held < store->blocks) {
        NoTransport none;
        RayExchange exchange(scene, *scene.geometry->blocks(), none, threads);
        renderTilesLater(picture, order.shareOf(0, 1), exchange, image,
                         {raysBeside(*store), threads}, progress);
        return image;
    }
    std::atomic<std::size_t> done = 0;
    auto const renderTile = [&](std::size_t turn, Kelpa::GoOn const& goOn) {
        picture.renderTile(order.tileAt(turn), image, goOn);
        ++done;
    };
    auto const watch = [&] {
        if (progress)
            progress(static_cast<double>(done) / static_cast<double>(tiles), 0);
        return true; // it throws to stop
    };
    Kelpa::doPieces(tiles, threads, renderTile, watch);
    return image;
}

} // namespace pipeline
