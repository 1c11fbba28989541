// Camera rays, surfaces, sky and shadow of some samples, step by step.
#include "pipeline/picture/tilepasses.h"

#include "pipeline/scene/vec.h"

#include <algorithm>
#include <cmath>

namespace pipeline {

namespace {

using Kelpa::Vector;

constexpr std::int64_t noParticle = -1; // skips nothing: the scene's base index is 0
constexpr double endless = 1e30;

// Directions are told apart by their octant and by a grid over it.
constexpr unsigned gridBits = 4;
constexpr unsigned directionKinds = 8U << (2 * gridBits);

// So few rays into the sky at a time that all of a bunch go about the same way.
constexpr std::size_t skyRaysAtOnce = 16;

/// Whether work that comes to ray number `ray` is to end. Asked rarely enough to cost nothing, and
/// often enough for whoever turns a picture of millions of particles: each 4096 rays, some ms.
bool isStopped(std::size_t ray, Kelpa::GoOn const& goOn) {
    constexpr std::size_t raysBetween = 4096;
    return ray % raysBetween == 0 && goOn && !goOn();
}

/// A number for the directions that lie near one another; within an octant it follows Morton's
/// curve over where they meet the plane |x| + |y| + |z| = 1.
unsigned directionKind(float x, float y, float z) {
    constexpr unsigned end = 1U << gridBits;
    unsigned kind = (x < 0.0F ? 1U : 0U) | (y < 0.0F ? 2U : 0U) | (z < 0.0F ? 4U : 0U);
    float const scale = static_cast<float>(end) / (std::abs(x) + std::abs(y) + std::abs(z));
    unsigned const u = std::min(static_cast<unsigned>(std::abs(x) * scale), end - 1);
    unsigned const v = std::min(static_cast<unsigned>(std::abs(y) * scale), end - 1);
    for (unsigned bit = gridBits; bit-- > 0;)
        kind = kind << 2U | (u >> bit & 1U) << 1U | (v >> bit & 1U);
    return kind;
}

} // namespace

bool TilePasses::add(SampleRange const& range, RayTarget& target, Kelpa::GoOn const& goOn) {
    if (!findSurfaces(range, target, goOn) || !findLight(target, goOn))
        return false;
    addToPixels();
    return true;
}

bool TilePasses::findSurfaces(SampleRange const& range, RayTarget& target,
                              Kelpa::GoOn const& goOn) {
    firstSample = range.first;
    sampleCount = range.count;
    surfaces.count = 0;
    rodHits.clear();
    for (int lane = 0; lane < lanesPerBunch; ++lane) {
        bunch.lanes[lane] = static_cast<unsigned char>(lane);
        bunch.tMins[lane] = 0.0;
        bunch.tMaxs[lane] = endless;
        bunch.rays.skipIndex[lane] = noParticle;
        bunch.rays.time[lane] = 0.5F; // of particles that stand still
    }
    for (std::uint32_t sample = 0; sample < sampleCount; ++sample)
        lensSteps[sample] = PixelSamples::step(firstSample + sample);
    std::size_t const slots = pixels.size() * sampleCount;
    for (std::size_t slot = 0; slot < slots; slot += lanesPerBunch) {
        if (isStopped(slot, goOn))
            return false;
        traceCameraRays(slot, std::min<std::size_t>(lanesPerBunch, slots - slot), target);
    }
    finishSurfaces();
    return true;
}

bool TilePasses::findLight(RayTarget& target, Kelpa::GoOn const& goOn) {
    if (plan.light.hasKey) {
        if (!findSky(target, goOn))
            return false;
        findShadows(target);
        kernels.shade(surfaces.count, plan.light, surfaces.normal, surfaces.dir, surfaces.cosine,
                      surfaces.open, surfaces.lit, surfaces.color);
    } else if (plan.light.shade == LightOptions::Shade::headlight) {
        lightFromEye();
    } else if (plan.light.shade == LightOptions::Shade::normals) {
        showNormals();
    }
    return true;
}

/// Of a place in the shutter, 0 to 1; never exactly at its ends: see `intersect`.
float TilePasses::timeAt(double part) const {
    auto const [opens, closes] = plan.shutter;
    double const inside = std::clamp(part, 1e-6, 1.0 - 1e-6);
    return static_cast<float>(opens * (1.0 - inside) + closes * inside);
}

void TilePasses::traceCameraRays(std::size_t firstSlot, std::size_t count, RayTarget& target) {
    // Of each lane, its pixel and the sample.
    std::uint16_t pixelOf[lanesPerBunch];
    std::uint16_t sampleOf[lanesPerBunch];
    double corner[2][lanesPerBunch];
    double pattern[2][lanesPerBunch];
    double onLens[2][lanesPerBunch];
    bool const hasLens = plan.camera.lensRadius > 0.0 && plan.samples > 1;
    std::size_t pixel = firstSlot / sampleCount;
    std::size_t sample = firstSlot % sampleCount;
    for (std::size_t lane = 0; lane < count; ++lane) {
        pixelOf[lane] = static_cast<std::uint16_t>(pixel);
        sampleOf[lane] = static_cast<std::uint16_t>(sample);
        TilePixel const& seen = pixels[pixel];
        Sample2 const& step = lensSteps[sample];
        corner[0][lane] = seen.x;
        corner[1][lane] = seen.y;
        pattern[0][lane] = plan.samples == 1 ? 0.5 : seen.lens.x + step.x;
        pattern[1][lane] = plan.samples == 1 ? 0.5 : seen.lens.y + step.y;
        if (plan.scene.second != nullptr)
            bunch.rays.time[lane] =
                timeAt(plan.strata.at(seen.samples, firstSample + sampleOf[lane]));
        if (hasLens) {
            Sample2 const at = plan.strata.onLens(seen.samples, firstSample + sampleOf[lane]);
            onLens[0][lane] = at.x;
            onLens[1][lane] = at.y;
        }
        bunch.hits.hitT[lane] = endless;
        bunch.hits.hit[lane] = 0;
        if (++sample == sampleCount) {
            sample = 0;
            ++pixel;
        }
    }
    auto& rays = bunch.rays;
    kernels.cameraRays(plan.camera, count, {corner[0], corner[1]}, {pattern[0], pattern[1]},
                       {rays.originX, rays.originY, rays.originZ},
                       {rays.dirX, rays.dirY, rays.dirZ});
    if (hasLens)
        leaveLens(count, onLens);
    bunch.numLanes = count;
    bunch.trace(target);
    for (std::size_t lane = 0; lane < count; ++lane)
        addSeen(pixelOf[lane], sampleOf[lane], lane);
}

/// Lets the rays of a pinhole leave from points of its lens, each to where it meets the plane of
/// focus.
void TilePasses::leaveLens(std::size_t count, double (&pattern)[2][lanesPerBunch]) {
    // Across the axis, directions by the cosine distribution are even over a disk (T. Malley's
    // method, P. Shirley and K. Chiu, "A Low Distortion Map Between Disk and Square", 1997).
    Camera const& camera = plan.camera;
    Vector const forward = narrow(camera.forward);
    Lanes3<float, lanesPerBunch> axis;
    Lanes3<float, lanesPerBunch> around;
    std::fill_n(axis.x, count, forward.x);
    std::fill_n(axis.y, count, forward.y);
    std::fill_n(axis.z, count, forward.z);
    kernels.aroundNormals(count, {axis.x, axis.y, axis.z}, {pattern[0], pattern[1]},
                          {around.x, around.y, around.z});
    auto& rays = bunch.rays;
    for (std::size_t lane = 0; lane < count; ++lane) {
        Vec const direction = wide({rays.dirX[lane], rays.dirY[lane], rays.dirZ[lane]});
        Vec const sharp = direction * (camera.focus / dot(direction, camera.forward));
        Vec const toSide = wide({around.x[lane], around.y[lane], around.z[lane]});
        Vec const across =
            (toSide - camera.forward * dot(toSide, camera.forward)) * camera.lensRadius;
        Vector const along = narrow(unit(sharp - across));
        rays.originX[lane] = camera.eye.x + across.x;
        rays.originY[lane] = camera.eye.y + across.y;
        rays.originZ[lane] = camera.eye.z + across.z;
        rays.dirX[lane] = along.x;
        rays.dirY[lane] = along.y;
        rays.dirZ[lane] = along.z;
    }
}

/// Adds what the ray of a lane has met first.
void TilePasses::addSeen(std::uint16_t pixel, std::uint16_t sample, std::size_t lane) {
    bool const isHit = bunch.hits.hit[lane] != 0;
    if (pixels[pixel].hasRods) {
        auto const& rays = bunch.rays;
        Vec const from = {rays.originX[lane], rays.originY[lane], rays.originZ[lane]};
        double const end = isHit ? bunch.hits.hitT[lane] : endless;
        Vec const along = wide({rays.dirX[lane], rays.dirY[lane], rays.dirZ[lane]});
        double const t = plan.rods.hit(from, along, end);
        if (t < end) {
            rodHits.push_back({pixel, sample, depthOf(t, along)});
            return;
        }
    }
    if (isHit)
        addSurface(pixel, sample, lane);
}

void TilePasses::addSurface(std::uint16_t pixel, std::uint16_t sample, std::size_t lane) {
    auto const& rays = bunch.rays;
    auto const& hits = bunch.hits;
    std::size_t const i = surfaces.count++;
    surfaces.pixel[i] = pixel;
    surfaces.sample[i] = sample;
    surfaces.particle[i] = hits.hitIndex[lane];
    if (!plan.needsPlaces)
        return;
    surfaces.place.x[i] = rays.originX[lane];
    surfaces.place.y[i] = rays.originY[lane];
    surfaces.place.z[i] = rays.originZ[lane];
    surfaces.dir.x[i] = rays.dirX[lane];
    surfaces.dir.y[i] = rays.dirY[lane];
    surfaces.dir.z[i] = rays.dirZ[lane];
    surfaces.t[i] = hits.hitT[lane];
    surfaces.time[i] = rays.time[lane];
    surfaces.normal.x[i] = hits.hitNormalX[lane];
    surfaces.normal.y[i] = hits.hitNormalY[lane];
    surfaces.normal.z[i] = hits.hitNormalZ[lane];
}

/// Finds all that light needs to know of the surfaces.
void TilePasses::finishSurfaces() {
    for (std::size_t i = 0; i < surfaces.count; ++i) {
        Vector const& color = colorOf(i);
        surfaces.color.x[i] = color.x;
        surfaces.color.y[i] = color.y;
        surfaces.color.z[i] = color.z;
    }
    if (!plan.needsPlaces)
        return;
    kernels.goAlong(surfaces.count, surfaces.dir, surfaces.t, surfaces.place);
    kernels.normalise(surfaces.count, plan.light, surfaces.normal, surfaces.cosine);
    for (std::size_t i = 0; i < surfaces.count; ++i) {
        surfaces.clearance[i] = 1e-3 * static_cast<double>(radiusOf(i));
        surfaces.open[i] = plan.light.occlusionRays == 0 ? 1.0F : 0.0F;
    }
}

/// Asks how much of the sky each surface sees.
bool TilePasses::findSky(RayTarget& target, Kelpa::GoOn const& goOn) {
    if (surfaces.count == 0)
        return true;
    auto const rays = static_cast<std::uint32_t>(plan.light.occlusionRays);
    auto const raysAtOnce = static_cast<std::uint32_t>(mostSkyRays / surfaces.count);
    float const share = 1.0F / static_cast<float>(rays);
    for (std::uint32_t first = 0; first < rays; first += raysAtOnce) {
        std::uint32_t const count = std::min(raysAtOnce, rays - first);
        makeSkyRays(first, count);
        orderSkyRays(count);
        if (!traceSkyRays(count * surfaces.count, target, goOn))
            return false;
        for (std::uint32_t ray = 0; ray < count; ++ray)
            for (std::size_t i = 0; i < surfaces.count; ++i)
                surfaces.open[i] += share * skyRays.open[ray * surfaces.count + i];
    }
    return true;
}

void TilePasses::makeSkyRays(std::uint32_t firstRay, std::uint32_t rayCount) {
    double pattern[2][mostSurfaces];
    auto const rays = static_cast<std::uint32_t>(plan.light.occlusionRays);
    for (std::uint32_t ray = 0; ray < rayCount; ++ray) {
        Sample2 steps[mostSamples];
        for (std::uint32_t sample = 0; sample < sampleCount; ++sample)
            steps[sample] = PixelSamples::step((firstSample + sample) * rays + firstRay + ray);
        for (std::size_t i = 0; i < surfaces.count; ++i) {
            Sample2 const& start = pixels[surfaces.pixel[i]].sky;
            Sample2 const& step = steps[surfaces.sample[i]];
            pattern[0][i] = start.x + step.x;
            pattern[1][i] = start.y + step.y;
        }
        kernels.aroundNormals(surfaces.count, surfaces.normal, {pattern[0], pattern[1]},
                              {skyRays.dir, ray * surfaces.count});
    }
}

/// Sorts the rays by kinds of directions; within a kind they follow the surfaces.
void TilePasses::orderSkyRays(std::uint32_t rayCount) {
    std::uint16_t kinds[mostSkyRays];
    std::size_t next[directionKinds + 1] = {};
    std::size_t const total = rayCount * surfaces.count;
    for (std::size_t ray = 0; ray < total; ++ray) {
        kinds[ray] = static_cast<std::uint16_t>(
            directionKind(skyRays.dir.x[ray], skyRays.dir.y[ray], skyRays.dir.z[ray]));
        ++next[kinds[ray] + 1U];
    }
    for (unsigned kind = 0; kind < directionKinds; ++kind)
        next[kind + 1] += next[kind];
    for (std::size_t surface = 0; surface < surfaces.count; ++surface)
        for (std::size_t ray = surface; ray < total; ray += surfaces.count)
            skyRays.order[next[kinds[ray]]++] = {static_cast<std::uint16_t>(ray),
                                                 static_cast<std::uint16_t>(surface)};
}

bool TilePasses::traceSkyRays(std::size_t total, RayTarget& target, Kelpa::GoOn const& goOn) {
    double const distance = plan.light.occlusionDistance;
    for (std::size_t begin = 0; begin < total; begin += skyRaysAtOnce) {
        if (isStopped(begin, goOn))
            return false;
        std::size_t const end = std::min(begin + skyRaysAtOnce, total);
        bunch.clear();
        for (std::size_t i = begin; i < end; ++i) {
            auto const [ray, surface] = skyRays.order[i];
            addLeavingRay(surface, {skyRays.dir.x[ray], skyRays.dir.y[ray], skyRays.dir.z[ray]},
                          distance);
        }
        bunch.trace(target);
        for (std::size_t lane = 0; lane < bunch.numLanes; ++lane) {
            // The nearer the occluder, the darker.
            double const t = bunch.hits.hitT[lane] / distance;
            skyRays.open[skyRays.order[begin + lane].ray] =
                bunch.hits.hit[lane] == 0 ? 1.0F : static_cast<float>(t * t);
        }
    }
    return true;
}

/// Asks which surfaces the key light reaches.
void TilePasses::findShadows(RayTarget& target) {
    std::size_t asked[lanesPerBunch];
    bunch.clear();
    auto const ask = [&] {
        std::uint64_t const occluded = bunch.occluded(target);
        for (std::size_t lane = 0; lane < bunch.numLanes; ++lane)
            surfaces.lit[asked[lane]] = (occluded >> lane & 1U) == 0 ? 1 : 0;
        bunch.clear();
    };
    for (std::size_t i = 0; i < surfaces.count; ++i) {
        surfaces.lit[i] = surfaces.cosine[i] > 0.0F ? 1 : 0;
        if (surfaces.lit[i] == 0 || !plan.light.hasShadows)
            continue;
        asked[bunch.numLanes] = i;
        addLeavingRay(i, plan.light.towardsKey, endless);
        if (bunch.numLanes == lanesPerBunch)
            ask();
    }
    ask();
}

/// Adds a ray that leaves a surface to the bunch.
void TilePasses::addLeavingRay(std::size_t surface, Vector const& dir, double end) {
    bunch.add(static_cast<unsigned char>(bunch.numLanes),
              {surfaces.place.x[surface], surfaces.place.y[surface], surfaces.place.z[surface]},
              dir, surfaces.clearance[surface], end, surfaces.time[surface],
              surfaces.particle[surface]);
}

void TilePasses::lightFromEye() {
    // Some light comes from everywhere, so that rims do not vanish before a black ground.
    constexpr float ambient = 0.15F;
    for (std::size_t i = 0; i < surfaces.count; ++i) {
        Vector const normal = {surfaces.normal.x[i], surfaces.normal.y[i], surfaces.normal.z[i]};
        Vector const dir = {surfaces.dir.x[i], surfaces.dir.y[i], surfaces.dir.z[i]};
        float const light = ambient + (1.0F - ambient) * std::max(-dot(normal, dir), 0.0F);
        surfaces.color.x[i] *= light;
        surfaces.color.y[i] *= light;
        surfaces.color.z[i] *= light;
    }
}

/// Right is red, up is green, towards the eye is blue.
void TilePasses::showNormals() {
    for (std::size_t i = 0; i < surfaces.count; ++i) {
        Vector const normal = {surfaces.normal.x[i], surfaces.normal.y[i], surfaces.normal.z[i]};
        surfaces.color.x[i] = 0.5F + 0.5F * dot(normal, plan.light.right);
        surfaces.color.y[i] = 0.5F + 0.5F * dot(normal, plan.light.up);
        surfaces.color.z[i] = 0.5F + 0.5F * dot(normal, plan.light.back);
    }
}

void TilePasses::addToPixels() {
    float const weight = 1.0F / static_cast<float>(plan.samples);
    std::size_t next = 0;
    auto rod = rodHits.begin();
    for (std::size_t p = 0; p < pixels.size(); ++p) {
        TilePixel& pixel = pixels[p];
        Vector const& background = plan.backgrounds[static_cast<std::size_t>(pixel.y)];
        for (std::uint32_t sample = 0; sample < sampleCount; ++sample) {
            bool const isHit = next < surfaces.count && surfaces.pixel[next] == p &&
                               surfaces.sample[next] == sample;
            Vector seen = background;
            if (isHit) {
                seen = {surfaces.color.x[next], surfaces.color.y[next], surfaces.color.z[next]};
                pixel.coverage += weight;
                ++next;
            } else if (rod != rodHits.end() && rod->pixel == p && rod->sample == sample) {
                seen = plan.rodColor;
                pixel.coverage += weight;
                ++rod;
            }
            pixel.light = pixel.light + seen * weight;
        }
    }
}

} // namespace pipeline
