// kelpa bench: speed of builds and rays with a file's particles.
#include "kelpa/host/consoleprogress.h"
#include "kelpa/host/pieces.h"

#include "pipeline/picture/framing.h"
#include "pipeline/picture/sampling.h"
#include "pipeline/scene/bounds.h"
#include "pipeline/scene/bunch.h"

#include "tool/commands/commands.h"
#include "tool/process/standardstreams.h"
#include "tool/report/phases.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <memory>
#include <numbers>
#include <utility>

namespace pipeline::tool {

namespace {

/// Coordinates in [0, 1) for ray `index`: as many dimensions as asked for, each evenly spread.
class RayNumbers {
  public:
    explicit RayNumbers(std::uint32_t rayIndex) : hash(mixed(rayIndex)) {}
    double next() {
        hash = mixed(hash + 0x9E3779B9U);
        return hash * 0x1p-32;
    }
    /// Evenly over the unit sphere.
    Vec direction() {
        double const z = 2.0 * next() - 1.0;
        double const phi = 2.0 * std::numbers::pi * next();
        double const s = std::sqrt(1.0 - z * z);
        return {s * std::cos(phi), s * std::sin(phi), z};
    }

  private:
    std::uint32_t hash;
};

// Within the shutter, neither end included.
float timeOf(RayNumbers& numbers) {
    return static_cast<float>(0.001 + 0.998 * numbers.next());
}

Kelpa::RSRay rayFrom(Vec const& origin, Vec const& dir, float time, std::int64_t skipIndex) {
    Kelpa::RSRay ray{};
    ray.origin[0] = origin.x;
    ray.origin[1] = origin.y;
    ray.origin[2] = origin.z;
    ray.dir = narrow(dir);
    ray.intervalMax = 1e30;
    ray.time = time;
    ray.skipIndex = skipIndex;
    return ray;
}

using Rays = std::vector<Kelpa::RSRay>;

/// Rays through the pixels of a framed picture, in tiles of 64.
Rays cameraRays(Scene const& scene, int count) {
    constexpr int tile = 8;
    int const tilesAcross = std::max(1, static_cast<int>(std::ceil(std::sqrt(count / 64.0))));
    int const width = tilesAcross * tile;
    Camera const camera = placeCamera({}, width, width, scene.upAxis, scene.framed(), scene.origin);
    Rays rays;
    for (int i = 0; i < count; ++i) {
        int const lane = i % lanesPerBunch;
        int const at = i / lanesPerBunch;
        int const column = at % tilesAcross * tile + lane % tile;
        int const row = at / tilesAcross * tile + lane / tile;
        auto const ray = camera.ray(column + 0.5, row + 0.5);
        RayNumbers numbers(static_cast<std::uint32_t>(i));
        rays.push_back(rayFrom({ray.origin[0], ray.origin[1], ray.origin[2]}, wide(ray.dir),
                               timeOf(numbers), -1));
    }
    return rays;
}

/// Rays that leave, in any direction of the outer half space, where the camera's rays hit; none
/// when those hit nothing.
Rays bouncedRays(Scene& scene, Rays const& camera) {
    Rays hits;
    for (Kelpa::RSRay ray : camera) {
        if (scene.geometry->intersect(ray) != 0)
            hits.push_back(ray);
    }
    Rays rays;
    for (std::size_t i = 0; !hits.empty() && i < camera.size(); ++i) {
        Kelpa::RSRay const& hit = hits[i % hits.size()];
        RayNumbers numbers(static_cast<std::uint32_t>(i));
        Vec dir = numbers.direction();
        if (dot(dir, wide(hit.hitNormal)) < 0.0)
            dir = dir * -1.0;
        Vec const place =
            Vec{hit.origin[0], hit.origin[1], hit.origin[2]} + wide(hit.dir) * hit.hitT;
        rays.push_back(rayFrom(place, dir, hit.time, hit.hitIndex));
    }
    return rays;
}

/// Rays along lines through two points of the bounds, from outside.
Rays randomRays(Scene& scene, int count) {
    Bounds const bounds = scene.geometry->bounds().value_or(Bounds{});
    Vec const size = bounds.max - bounds.min;
    double const outside = bounds.diagonal();
    Rays rays;
    for (int i = 0; i < count; ++i) {
        RayNumbers numbers(static_cast<std::uint32_t>(i));
        auto const inside = [&] {
            double const x = numbers.next();
            double const y = numbers.next();
            return bounds.min + Vec{size.x * x, size.y * y, size.z * numbers.next()};
        };
        Vec const p = inside();
        Vec const along = inside() - p;
        Vec const dir = dot(along, along) > 0.0 ? unit(along) : Vec{0.0, 0.0, 1.0};
        rays.push_back(rayFrom(p - dir * outside, dir, timeOf(numbers), -1));
    }
    return rays;
}

void traceSingly(Geometry& geometry, Rays const& rays, std::size_t begin, std::size_t end) {
    for (std::size_t i = begin; i < end; ++i) {
        Kelpa::RSRay ray = rays[i];
        geometry.intersect(ray);
    }
}

void traceList(Geometry& geometry, Bunch& bunch, Rays const& rays, std::size_t begin,
               std::size_t end) {
    bunch.clear();
    for (std::size_t i = begin; i < end; ++i) {
        double const origin[3] = {rays[i].origin[0], rays[i].origin[1], rays[i].origin[2]};
        bunch.add(static_cast<unsigned char>(i - begin), origin, rays[i].dir, 0.0, 1e30,
                  rays[i].time, rays[i].skipIndex);
    }
    bunch.trace(geometry);
}

/// Traces all rays once, the threads sharing them evenly; the seconds that took.
double traceAll(Geometry& geometry, Rays const& rays, bool inLists, int threads) {
    std::size_t const lists = (rays.size() + lanesPerBunch - 1) / lanesPerBunch;
    auto const shares = static_cast<std::size_t>(threads);
    auto const traceShare = [&](std::size_t share, Kelpa::GoOn const& goOn) {
        auto const bunch = std::make_unique<Bunch>();
        for (std::size_t list = lists * share / shares; list < lists * (share + 1) / shares;
             ++list) {
            if (!goOn())
                return;
            std::size_t const begin = list * lanesPerBunch;
            std::size_t const end = std::min(begin + lanesPerBunch, rays.size());
            if (inLists)
                traceList(geometry, *bunch, rays, begin, end);
            else
                traceSingly(geometry, rays, begin, end);
        }
    };
    Stopwatch const time;
    Kelpa::doPieces(shares, threads, traceShare,
                    [] { return !Kelpa::InterruptScope::interrupted(); });
    double const seconds = time.seconds();
    throwIfInterrupted();
    return seconds;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

/// Million per second, with three digits or more.
std::string rate(double count, double seconds) {
    return fmt::format("{:.3g}", count / seconds * 1e-6);
}

int shareOfHits(Scene& scene, Rays const& rays) {
    std::size_t hits = 0;
    for (Kelpa::RSRay ray : rays)
        hits += scene.geometry->intersect(ray) != 0 ? 1U : 0U;
    return static_cast<int>(
        std::lround(100.0 * static_cast<double>(hits) / static_cast<double>(rays.size())));
}

void measureRays(Scene& scene, char const* motion, char const* kind, Rays const& rays,
                 Options const& options) {
    if (rays.empty())
        return;
    int const threads = threadCount(options.run);
    std::array<std::vector<double>, 2> seconds;
    for (int run = 0; run < options.benchRuns; ++run)
        for (bool const inLists : {false, true})
            seconds[inLists ? 1 : 0].push_back(traceAll(*scene.geometry, rays, inLists, threads));
    auto const count = static_cast<double>(rays.size());
    fmt::print("{:<7} {:<8} {:>6} million rays/s singly, {:>6} in lists of {}, {} % hit\n", motion,
               kind, rate(count, median(seconds[0])), rate(count, median(seconds[1])),
               lanesPerBunch, shareOfHits(scene, rays));
    finishStandardOutput();
}

void measure(Options const& options, ParticleSet const& particles, char const* motion) {
    std::vector<double> seconds;
    Scene scene;
    for (int run = 0; run < options.benchRuns; ++run) {
        scene = {}; // the last one's memory is free before the next is built
        Options quiet = options;
        quiet.run.quiet = options.run.quiet || run > 0; // its notes once
        scene = readyScene(quiet, particles);
        BuildReport report(quiet.run);
        Stopwatch const time;
        buildScene(scene, quiet.run, quiet.tree, report);
        seconds.push_back(time.seconds());
    }
    TreeStatistics const tree = scene.geometry->statistics();
    auto const spheres = static_cast<double>(tree.used);
    fmt::print("{:<7} {:<8} {:>6} million spheres/s, {:.3f} s, {:.0f} bytes a sphere, {:.0f} while "
               "built\n",
               motion, "build", rate(spheres, median(seconds)), median(seconds),
               tree.bytesPerSphere(), static_cast<double>(tree.peakBytes) / spheres);
    finishStandardOutput();
    Rays const camera = cameraRays(scene, options.benchRays);
    measureRays(scene, motion, "camera", camera, options);
    measureRays(scene, motion, "bounced", bouncedRays(scene, camera), options);
    measureRays(scene, motion, "random", randomRays(scene, options.benchRays), options);
}

} // namespace

int runBench(Options const& given) {
    Options options = given;
    std::string const& file = options.particles.files[0];
    ParticleSet const particles = readParticles(file, options, false);
    int const threads = threadCount(options.run);
    fmt::print("{}: {} particles, {} thread{}, median of {} run{}\n", printable(baseName(file)),
               withCommas(particles.positions.size()), threads, threads == 1 ? "" : "s",
               options.benchRuns, options.benchRuns == 1 ? "" : "s");
    Motion motion = std::exchange(options.scene.motion.motion, Still{});
    measure(options, particles, "still");
    if (!isMoving(motion) && !particles.velocities.empty())
        motion = AlongVelocities{};
    options.scene.motion.motion = motion;
    if (isMoving(motion))
        measure(options, particles, "moving");
    else
        noteTo(options.run)({"no velocities in the file; --motion FILE measures moving particles"});
    finishStandardOutput();
    return 0;
}

} // namespace pipeline::tool
