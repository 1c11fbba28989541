#include "pipeline/picture/render.h"

#include "kelpa/host/consoleprogress.h"

#include "pipeline/files/srgb.h"
#include "pipeline/picture/sampling.h"
#include "pipeline/scene/bunch.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <exception>
#include <mutex>
#include <numbers>
#include <system_error>
#include <thread>

namespace kelpatool {

namespace {

using Kelpa::Vector;

constexpr int tileWidth = 8; // a tile is a bunch of 64 rays
static_assert(tileWidth * tileWidth == lanesPerBunch);
constexpr std::int64_t noParticle = -1; // skips nothing: the scene's base index is 0

Vector operator+(Vector const& a, Vector const& b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
Vector operator*(Vector const& a, float s) {
    return {a.x * s, a.y * s, a.z * s};
}
float dot(Vector const& a, Vector const& b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
Vector cross(Vector const& a, Vector const& b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
Vector unit(Vector const& v) {
    float const length = std::sqrt(dot(v, v));
    return length > 0.0F ? v * (1.0F / length) : v;
}
Vector narrow(Vec const& v) {
    return {static_cast<float>(v.x), static_cast<float>(v.y), static_cast<float>(v.z)};
}
Vector mix(Vector const& a, Vector const& b, float f) {
    return a * (1.0F - f) + b * f;
}

// What the uses of a pixel's sample patterns are called.
enum Pattern : std::uint32_t { lensPattern, timePattern, firstOcclusionPattern };

/// Light, as it falls on the whole scene.
struct Lighting {
    Vector towardsKey; ///< unit
    Vector up;
    // Together at most about 1: what is white keeps its shape instead of turning into a white
    // patch.
    float key = 0.64F;    ///< where it falls straight onto a surface
    float sky = 0.45F;    ///< from above ...
    float ground = 0.18F; ///< ... and from below
    bool hasKey = true;
    bool hasShadows = true;
    int occlusionRays = 0; ///< per camera ray
    double occlusionDistance = 0.0;
};

Lighting makeLighting(LightOptions const& options, Camera const& camera, Scene const& scene) {
    Lighting light;
    light.up = narrow(camera.up);
    // From behind the viewer's left shoulder, well above.
    Vector const right = narrow(camera.right);
    Vector const back = narrow(camera.forward) * -1.0F;
    light.towardsKey = unit(right * -0.55F + light.up * 0.8F + back * 0.6F);
    light.hasKey = options.shade != LightOptions::Shade::flat;
    light.hasShadows =
        light.hasKey && options.shadows.value_or(options.shade == LightOptions::Shade::ao);
    light.occlusionRays = options.shade == LightOptions::Shade::ao ? options.aoSamples : 0;
    double const diagonal = boundsOf(scene.framedCenters).diagonal();
    double const radius =
        static_cast<double>(*std::max_element(scene.framedRadii.begin(), scene.framedRadii.end()));
    light.occlusionDistance = options.aoDistance.value_or(std::max(0.1 * diagonal, 2.0 * radius));
    return light;
}

/// A camera ray's hit, ready for light.
struct Surface {
    double place[3];
    Vector normal;
    std::int32_t particle;
    float time;
    /// Where rays that leave begin to count. The surface's own particle they skip anyway, but not
    /// another one in the same place, as copies across a periodic border are: rounding would let
    /// every other ray begin just inside of it.
    double clearance;
    float openSky; ///< part of the sky that is not occluded, weighted by its light
};

/// A direction around the normal, likelier near it: the cosine distribution.
Vector aroundNormal(Vector const& normal, Sample2 const& at) {
    double const phi = 2.0 * std::numbers::pi * at.x;
    double const sine = std::sqrt(at.y);
    auto const x = static_cast<float>(std::cos(phi) * sine);
    auto const y = static_cast<float>(std::sin(phi) * sine);
    auto const z = static_cast<float>(std::sqrt(1.0 - at.y));
    Vector const other = std::abs(normal.x) < 0.6F ? Vector{1, 0, 0} : Vector{0, 1, 0};
    Vector const tangent = unit(cross(normal, other));
    return unit(tangent * x + cross(normal, tangent) * y + normal * z);
}

/// Renders tiles, one thread's share; holds what need not be made anew for each tile.
class TileRenderer {
  public:
    TileRenderer(Scene& renderedScene, Camera const& sceneCamera, Options const& allOptions,
                 Lighting const& sceneLight, Image& picture)
        : scene(renderedScene), camera(sceneCamera), options(allOptions), light(sceneLight),
          image(picture) {}

    /// Renders the tile whose upper left pixel is given, as far as it lies in the part to render.
    void render(int left, int top);

  private:
    struct Pixel {
        int x;
        int y;
        std::size_t index; ///< in the image's arrays
    };

    void renderSample(std::uint32_t sample);
    void findSky(std::uint32_t sample);
    Vector shade(Surface const& surface, Vector const& towardsEye);
    bool isInShadow(Surface const& surface);
    Vector background(int y) const;
    void storeFirstHit(Pixel const& pixel, Surface const& surface, double depth);

    Scene& scene;
    Camera const& camera;
    Options const& options;
    Lighting const& light;
    Image& image;
    std::vector<Pixel> pixels;
    std::vector<PixelSamples> samples;
    Bunch bunch;
    Surface surfaces[lanesPerBunch];
    std::vector<unsigned char> hitLanes;
};

Vector TileRenderer::background(int y) const {
    if (options.image.background)
        return *options.image.background;
    static Vector const top = {linearFromSrgb(0.93), linearFromSrgb(0.945), linearFromSrgb(0.96)};
    static Vector const bottom = {linearFromSrgb(0.70), linearFromSrgb(0.725),
                                  linearFromSrgb(0.76)};
    return mix(top, bottom, (static_cast<float>(y) + 0.5F) / static_cast<float>(image.height));
}

void TileRenderer::storeFirstHit(Pixel const& pixel, Surface const& surface, double depth) {
    auto const at = pixel.index;
    if (!image.depth.empty())
        image.depth[at] = static_cast<float>(depth);
    if (!image.id.empty()) {
        auto const particle = static_cast<std::size_t>(surface.particle);
        image.id[at] =
            scene.ids.empty() ? static_cast<std::int64_t>(particle) : scene.ids[particle];
    }
    for (int axis = 0; axis < 3; ++axis) {
        auto const component = 3 * at + static_cast<std::size_t>(axis);
        double const origin = axis == 0   ? scene.origin.x
                              : axis == 1 ? scene.origin.y
                                          : scene.origin.z;
        if (!image.normal.empty())
            image.normal[component] = surface.normal[axis];
        if (!image.position.empty())
            image.position[component] = static_cast<float>(surface.place[axis] + origin);
    }
}

bool TileRenderer::isInShadow(Surface const& surface) {
    Kelpa::RSRay ray{};
    std::copy(surface.place, surface.place + 3, ray.origin);
    ray.dir = light.towardsKey;
    ray.intervalMin = surface.clearance;
    ray.intervalMax = 1e30;
    ray.time = surface.time;
    ray.skipIndex = surface.particle;
    return scene.geometry->intersect(ray) != 0;
}

Vector TileRenderer::shade(Surface const& surface, Vector const& towardsEye) {
    auto const particle = static_cast<std::size_t>(surface.particle);
    Vector const color = particle < scene.colors.size() ? scene.colors[particle] : scene.color;
    if (!light.hasKey)
        return color;
    // Sky light from above, less from below.
    float const height = 0.5F + 0.5F * dot(surface.normal, light.up);
    float brightness = (light.ground + (light.sky - light.ground) * height) * surface.openSky;
    float highlight = 0.0F;
    float const cosine = dot(surface.normal, light.towardsKey);
    if (cosine > 0.0F && !(light.hasShadows && isInShadow(surface))) {
        brightness += light.key * cosine;
        Vector const half = unit(light.towardsKey + towardsEye);
        float const aligned = std::max(dot(surface.normal, half), 0.0F);
        highlight = 0.06F * std::pow(aligned, 40.0F);
    }
    return color * brightness + Vector{highlight, highlight, highlight};
}

/// Asks how much of the sky each surface sees.
void TileRenderer::findSky(std::uint32_t sample) {
    if (light.occlusionRays == 0)
        return;
    float const share = 1.0F / static_cast<float>(light.occlusionRays);
    for (int k = 0; k < light.occlusionRays; ++k) {
        if (Kelpa::InterruptScope::interrupted()) // thousands of rays may be asked for
            throw Interrupted();
        auto const index = sample * static_cast<std::uint32_t>(light.occlusionRays) +
                           static_cast<std::uint32_t>(k);
        bunch.clear();
        for (unsigned char const lane : hitLanes) {
            Surface const& surface = surfaces[lane];
            Sample2 const at = samples[lane].point(firstOcclusionPattern, index);
            bunch.add(lane, surface.place, aroundNormal(surface.normal, at), surface.clearance,
                      light.occlusionDistance, surface.time, surface.particle);
        }
        bunch.trace(*scene.geometry);
        for (unsigned char const lane : hitLanes) {
            // The nearer the occluder, the darker.
            double const t = bunch.hits.hitT[lane] / light.occlusionDistance;
            auto const open = bunch.hits.hit[lane] == 0 ? 1.0F : static_cast<float>(t * t);
            surfaces[lane].openSky += share * open;
        }
    }
}

void TileRenderer::renderSample(std::uint32_t sample) {
    auto const sampleCount = static_cast<std::uint32_t>(options.image.samples);
    float const weight = 1.0F / static_cast<float>(sampleCount);
    Vector towardsEye[lanesPerBunch];
    bunch.clear();
    for (std::size_t i = 0; i < pixels.size(); ++i) {
        Sample2 const at =
            sampleCount == 1 ? Sample2{0.5, 0.5} : samples[i].point(lensPattern, sample);
        Kelpa::TraceRay const ray = camera.ray(pixels[i].x + at.x, pixels[i].y + at.y);
        // Never exactly at the ends of the shutter: see `intersect`.
        auto const time = static_cast<float>(
            std::clamp(samples[i].stratum(timePattern, sample, sampleCount), 1e-6, 1.0 - 1e-6));
        bunch.add(static_cast<unsigned char>(i), ray.origin, ray.dir, 0.0, 1e30, time, noParticle);
        towardsEye[i] = ray.dir * -1.0F;
    }
    bunch.trace(*scene.geometry);

    hitLanes.clear();
    double depths[lanesPerBunch];
    for (std::size_t i = 0; i < pixels.size(); ++i) {
        if (bunch.hits.hit[i] == 0)
            continue;
        Surface& surface = surfaces[i];
        double const t = bunch.hits.hitT[i];
        Vector const dir = towardsEye[i] * -1.0F;
        double const origin[3] = {bunch.rays.originX[i], bunch.rays.originY[i],
                                  bunch.rays.originZ[i]};
        for (int axis = 0; axis < 3; ++axis)
            surface.place[axis] = origin[axis] + t * static_cast<double>(dir[axis]);
        surface.normal =
            unit({bunch.hits.hitNormalX[i], bunch.hits.hitNormalY[i], bunch.hits.hitNormalZ[i]});
        surface.particle = bunch.hits.hitLocalIndex[i];
        surface.time = bunch.rays.time[i];
        surface.clearance =
            1e-3 *
            static_cast<double>(scene.first->radii[static_cast<std::size_t>(surface.particle)]);
        surface.openSky = light.occlusionRays == 0 ? 1.0F : 0.0F;
        depths[i] = t;
        hitLanes.push_back(static_cast<unsigned char>(i));
    }
    findSky(sample);

    std::size_t next = 0;
    for (std::size_t i = 0; i < pixels.size(); ++i) {
        bool const isHit = next < hitLanes.size() && hitLanes[next] == i;
        next += isHit ? 1 : 0;
        if (isHit && sample == 0)
            storeFirstHit(pixels[i], surfaces[i], depths[i]);
        Vector seen{0.0F, 0.0F, 0.0F};
        if (isHit)
            seen = shade(surfaces[i], towardsEye[i]);
        else if (!options.image.transparent)
            seen = background(pixels[i].y);
        for (int channel = 0; channel < 3; ++channel)
            image.rgb[3 * pixels[i].index + static_cast<std::size_t>(channel)] +=
                weight * seen[channel];
        image.alpha[pixels[i].index] += isHit ? weight : 0.0F;
    }
}

void TileRenderer::render(int left, int top) {
    pixels.clear();
    samples.clear();
    for (int y = std::max(top, image.cropY0); y < std::min(top + tileWidth, image.cropY1); ++y) {
        for (int x = std::max(left, image.cropX0); x < std::min(left + tileWidth, image.cropX1);
             ++x) {
            auto const width = static_cast<std::size_t>(image.cropX1 - image.cropX0);
            pixels.push_back({x, y,
                              static_cast<std::size_t>(y - image.cropY0) * width +
                                  static_cast<std::size_t>(x - image.cropX0)});
            samples.emplace_back(x, y, options.run.seed);
        }
    }
    for (int sample = 0; sample < options.image.samples; ++sample) {
        if (Kelpa::InterruptScope::interrupted())
            throw Interrupted();
        renderSample(static_cast<std::uint32_t>(sample));
    }
}

Image emptyImage(ImageOptions const& options) {
    Image image;
    image.width = options.width;
    image.height = options.height;
    auto const crop =
        options.crop.value_or(std::array<int, 4>{0, 0, options.width, options.height});
    image.cropX0 = crop[0];
    image.cropY0 = crop[1];
    image.cropX1 = crop[2];
    image.cropY1 = crop[3];
    std::size_t const count =
        static_cast<std::size_t>(crop[2] - crop[0]) * static_cast<std::size_t>(crop[3] - crop[1]);
    image.rgb.resize(3 * count);
    image.alpha.resize(count);
    constexpr float nowhere = 1e30F; // the depth of what shows no particle
    if (options.depth)
        image.depth.assign(count, nowhere);
    if (options.normal)
        image.normal.resize(3 * count);
    if (options.position)
        image.position.resize(3 * count);
    if (options.id)
        image.id.assign(count, idOfNothing);
    return image;
}

} // namespace

Image renderImage(Scene& scene, Camera const& camera, Options const& options, int threads,
                  PhaseProgress const& progress) {
    Image image = emptyImage(options.image);
    Lighting const light = makeLighting(options.light, camera, scene);
    int const firstColumn = image.cropX0 / tileWidth;
    int const firstRow = image.cropY0 / tileWidth;
    int const columns = (image.cropX1 - 1) / tileWidth - firstColumn + 1;
    int const rows = (image.cropY1 - 1) / tileWidth - firstRow + 1;
    int const tiles = columns * rows;

    std::atomic<int> nextTile = 0;
    std::atomic<int> tilesDone = 0;
    std::mutex failureMutex;
    std::exception_ptr failure;
    auto const work = [&] {
        try {
            TileRenderer renderer(scene, camera, options, light, image);
            for (int tile = nextTile++; tile < tiles; tile = nextTile++) {
                renderer.render((firstColumn + tile % columns) * tileWidth,
                                (firstRow + tile / columns) * tileWidth);
                int const done = ++tilesDone;
                if (progress)
                    progress(static_cast<double>(done) / tiles, 0);
            }
        } catch (...) {
            std::lock_guard const hold(failureMutex);
            if (failure == nullptr)
                failure = std::current_exception();
            nextTile = tiles; // the others need not go on
        }
    };
    {
        std::vector<std::jthread> helpers;
        try {
            for (int i = 1; i < std::min(threads, tiles); ++i)
                helpers.emplace_back(work);
        } catch (std::system_error const&) {
            // The system grants no more threads; those at work share the tiles.
        }
        work();
    }
    if (failure != nullptr)
        std::rethrow_exception(failure);
    return image;
}

} // namespace kelpatool
