// What pictures show: their channels, their parts, their numbers and their cameras.

#include "pipeline/files/numberplace.h"
#include "pipeline/picture/framing.h"
#include "pipeline/picture/render.h"
#include "pipeline/picture/tileorder.h"
#include "pipeline/samples/samples.h"
#include "pipeline/scene/scene.h"

#include "tests/support/clouds.h"
#include "tests/support/pixels.h"
#include "tests/support/testhost.h"
#include "tool/options/options.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <numeric>
#include <set>
#include <utility>
#include <vector>

namespace {

using kelpatest::expectSamePixels;
using kelpatest::Random;
using pipeline::numberedName;
using pipeline::Vec;

TEST(OutputNames, TakeTheNumberInTheirOnePlace) {
    EXPECT_EQ(numberedName("a.####.png", 7), "a.0007.png");
    EXPECT_EQ(numberedName("a%04d.exr", 123456), "a123456.exr");
    EXPECT_EQ(numberedName("%d", 0), "0");
    EXPECT_EQ(numberedName("#1/%d%/a#%b.png", 12), "#1/%d%/a12%b.png") << "a folder's name stays";
    EXPECT_TRUE(pipeline::hasNumberPlace("x/#.png"));
    EXPECT_FALSE(pipeline::hasNumberPlace("#/50%.png"));
    EXPECT_THROW(numberedName("a.png", 1), std::invalid_argument);
    EXPECT_THROW(numberedName("#-%d.png", 1), std::invalid_argument);
}

TEST(Turntables, GoRoundAtOneDistanceThatHoldsAllSpheres) {
    for (unsigned seed = 0; seed < 200; ++seed) {
        SCOPED_TRACE(seed);
        Random random(seed);
        std::vector<Kelpa::Vector> const centers = {{0, 0, 0}, {4, 0, 0}, random.inCube(1.0F)};
        std::vector<float> const radii = {0.5F, 0.5F, 0.1F};
        pipeline::CameraOptions options;
        options.ortho = seed % 2 == 1;
        if (seed % 3 == 0)
            options.view = pipeline::View::top;
        Vec const centre = pipeline::FramedSpheres(centers, radii).bounds().centre();
        double narrowest = 1e30; // how far the spheres stay from the frame, over all pictures
        auto const sight = placeTurntable(options, 160, 90, 'y', {centers, radii}, {0, 0, 0});
        Vec const first = sight.camera.eye - centre;
        for (int picture = 0; picture < 12; ++picture) {
            auto const camera = sight.turned(picture / 12.0);
            Vec const away = camera.eye - centre;
            EXPECT_NEAR(dot(away, away), dot(first, first), 1e-9);
            EXPECT_NEAR(away.y, first.y, 1e-9) << "the axis is the upward one";
            EXPECT_NEAR(away.x,
                        first.x * std::cos(picture * 0.5235987755982988) +
                            first.z * std::sin(picture * 0.5235987755982988),
                        1e-9);
            for (std::size_t i = 0; i < centers.size(); ++i) {
                Vec const c = pipeline::wide(centers[i]) - camera.eye;
                double const tangent = camera.tanHalfHeight;
                double const across = std::abs(dot(c, camera.up));
                double const room =
                    camera.isParallel
                        ? tangent - across
                        : (dot(c, camera.forward) * tangent - across) / std::hypot(1.0, tangent);
                narrowest = std::min(narrowest, room - static_cast<double>(radii[i]));
                EXPECT_GT(dot(c, camera.forward), 0.5);
            }
        }
        EXPECT_GT(narrowest, 0.0);
    }
}

// ------------------------------------------------------------ pictures ----

using pipeline::Image;
using pipeline::ParticleSet;
using pipeline::tool::Options;

/// Renders particles, on their way to `second` if there is one.
Image render(Options options, ParticleSet const& particles, ParticleSet const* second,
             int threads = 1) {
    options.particles.files = {"first"};
    auto const ignore = [](auto const&...) {};
    pipeline::Scene scene = makeScene(options.scene, particles, second, {}, ignore, ignore);
    kelpatest::RecordingProgress progress;
    buildScene(scene, {progress}, options.tree);
    auto const camera = placeCamera(options.camera, options.image.width, options.image.height,
                                    scene.upAxis, scene.framed(), scene.origin);
    return renderImage(scene, camera, options.image, options.light, threads, {});
}

pipeline::ImageOptions allChannels(int width, int height, int samples) {
    pipeline::ImageOptions image;
    image.width = width;
    image.height = height;
    image.samples = samples;
    image.depth = image.normal = image.id = image.position = true;
    return image;
}

TEST(Channels, TellWhereThePixelsMiddleRayMeetsWhichParticle) {
    ParticleSet particles;
    particles.positions = {{-1, 0, 0}, {1, 0.5F, 0.25F}, {0, -1, -3}};
    particles.radii = {0.75F, 0.5F, 1.0F};
    std::int64_t const wide = (std::int64_t{1} << 40) + 7; // its low half is another's id
    particles.ids = {7, wide, -1};
    Options options;
    options.camera.eye = {0, 0, 8};
    options.camera.lookAt = {0, 0, 0};
    options.camera.up = {0, 1, 0};
    options.image = allChannels(90, 60, 1);
    options.image.crop = {20, 10, 85, 55};
    Image const image = render(options, particles, nullptr);

    std::map<std::int64_t, int> pixelsOf;
    for (std::size_t at = 0; at < image.depth.size(); ++at) {
        ++pixelsOf[image.id[at]];
        if (image.depth[at] == 1e30F) {
            EXPECT_EQ(image.id[at], pipeline::idOfNothing);
            EXPECT_EQ(image.alpha[at] + image.normal[3 * at], 0.0F);
            continue;
        }
        std::size_t const i = image.id[at] == 7 ? 0U : image.id[at] == -1 ? 2U : 1U;
        Vec const place = {static_cast<double>(image.position[3 * at]),
                           static_cast<double>(image.position[3 * at + 1]),
                           static_cast<double>(image.position[3 * at + 2])};
        Vec const fromEye = place - Vec{0, 0, 8};
        EXPECT_NEAR(std::sqrt(dot(fromEye, fromEye)), static_cast<double>(image.depth[at]), 1e-5);
        Vec const out = (place - pipeline::wide(particles.positions[i])) *
                        (1.0 / static_cast<double>(particles.radii[i]));
        EXPECT_NEAR(out.x, static_cast<double>(image.normal[3 * at]), 1e-5);
        EXPECT_NEAR(out.z, static_cast<double>(image.normal[3 * at + 2]), 1e-5);
        EXPECT_NEAR(dot(out, out), 1.0, 1e-5);
        double const perPixel = std::tan(17.5 * 0.017453292519943295) / 30.0 * -fromEye.z;
        EXPECT_NEAR(place.x / perPixel + 45.0, static_cast<double>(20 + at % 65) + 0.5, 1e-3);
        EXPECT_NEAR(30.0 - place.y / perPixel, static_cast<double>(10 + at / 65) + 0.5, 1e-3);
    }
    for (std::int64_t const id : {std::int64_t{7}, wide, std::int64_t{-1}})
        EXPECT_GT(pixelsOf[id], 50) << id;
}

/// Copies a part into the whole that it is of.
void paste(Image const& part, Image& whole) {
    for (int y = part.cropY0; y < part.cropY1; ++y) {
        for (int x = part.cropX0; x < part.cropX1; ++x) {
            auto const from = static_cast<std::size_t>(
                (y - part.cropY0) * (part.cropX1 - part.cropX0) + x - part.cropX0);
            auto const to = static_cast<std::size_t>(y * whole.width + x);
            whole.alpha[to] = part.alpha[from];
            whole.depth[to] = part.depth[from];
            whole.id[to] = part.id[from];
            for (std::size_t k = 0; k < 3; ++k) {
                whole.rgb[3 * to + k] = part.rgb[3 * from + k];
                whole.normal[3 * to + k] = part.normal[3 * from + k];
                whole.position[3 * to + k] = part.position[3 * from + k];
            }
        }
    }
}

TEST(Tiles, RenderedApartOnAnyThreadsMakeTheWholeBitForBit) {
    ParticleSet still = pipeline::generateParticles("galaxy", 4000, 5, [](auto const&...) {});
    std::copy_n(still.positions.begin(), 1000, still.positions.begin() + 1000); // ties
    still.radii.assign(still.positions.size(), 4.0F * still.radii[0]);
    ParticleSet moved = still;
    Random random(2);
    for (Kelpa::Vector& p : moved.positions) {
        Kelpa::Vector const step = random.inCube(0.3F);
        p = {p.x + step.x, p.y + step.y, p.z + step.z};
    }
    for (ParticleSet const* const second :
         {static_cast<ParticleSet const*>(nullptr), static_cast<ParticleSet const*>(&moved)}) {
        SCOPED_TRACE(second == nullptr ? "still" : "moving");
        Options options;
        options.image = allChannels(61, 43, 5);
        Image const whole = render(options, still, second);
        std::size_t const covered =
            whole.alpha.size() -
            static_cast<std::size_t>(std::count(whole.alpha.begin(), whole.alpha.end(), 0.0F));
        EXPECT_GT(covered, 500U);
        Image pasted = whole;
        pasted.rgb.assign(pasted.rgb.size(), -1.0F);
        pasted.alpha.assign(pasted.alpha.size(), -1.0F);
        int threads = 0;
        for (auto const& crop :
             {std::array{0, 0, 61, 1}, std::array{0, 1, 13, 43}, std::array{13, 1, 14, 30},
              std::array{14, 1, 61, 30}, std::array{13, 30, 61, 43}}) {
            options.image.crop = crop;
            paste(render(options, still, second, 1 + threads++ % 4), pasted);
        }
        expectSamePixels(pasted, whole);
    }
}

TEST(Scenes, CountAndFrameWhatTreesTake) {
    // The last one's places are finite, and the way between them is not.
    ParticleSet first;
    first.positions = {{0, 0, 0}, {1, 2, 3}, {-3e38F, 0, 0}};
    first.radii = {0.5F, 0.25F, 1};
    ParticleSet second = first;
    second.positions[2].x = 3e38F;
    auto const ignore = [](auto const&...) {};
    pipeline::SceneOptions options;
    options.motion.shutter = {0.0, 1.0};
    pipeline::Scene scene = makeScene(options, first, &second, {}, ignore, ignore);
    kelpatest::RecordingProgress progress;
    buildScene(scene, {progress}, {});
    EXPECT_EQ(scene.geometry->statistics().used, 2);
    EXPECT_EQ(scene.rejected.notFinite, 1U);
    EXPECT_EQ(scene.rejected.notPositive, 0U);
    std::vector<float> radii;
    scene.framed().forEach([&](Kelpa::Vector const&, float r) { radii.push_back(r); });
    EXPECT_EQ(radii, (std::vector<float>{0.5F, 0.5F, 0.25F, 0.25F}));
    EXPECT_EQ(scene.framed().bounds().diagonal(), std::sqrt(14.0));
}

TEST(Tiles, RenderedInAnyOrderOverAnOlderPictureReplaceIt) {
    ParticleSet const particles =
        pipeline::generateParticles("splash", 3000, 5, [](auto const&...) {});
    Options options;
    options.image = allChannels(50, 41, 18); // more samples than are taken at once
    auto const ignore = [](auto const&...) {};
    pipeline::Scene scene = makeScene(options.scene, particles, nullptr, {}, ignore, ignore);
    kelpatest::RecordingProgress progress;
    buildScene(scene, {progress}, options.tree);
    using Sky = pipeline::Picture::Sky;
    auto const pictureFrom = [&](pipeline::View view, Sky sky = Sky::leftOut) {
        options.camera.view = view;
        auto const camera =
            placeCamera(options.camera, 50, 41, scene.upAxis, scene.framed(), scene.origin);
        return pipeline::Picture(scene, camera, options.light, options.image, sky);
    };
    auto const render = [](pipeline::Picture const& picture, std::size_t first, Image& image) {
        for (std::size_t i = 0; i < picture.tileCount(); ++i)
            picture.renderTile((first + 5 * i) % picture.tileCount(), image);
    };
    pipeline::Picture const top = pictureFrom(pipeline::View::top);
    pipeline::Picture const front = pictureFrom(pipeline::View::front);
    pipeline::Picture const soon = pictureFrom(pipeline::View::front, Sky::traced);
    ASSERT_NE(front.tileCount() % 5, 0U);
    Image image = top.emptyImage();
    Image expected = image;
    render(top, 0, image);
    render(front, 0, expected);
    EXPECT_NE(image.rgb, expected.rgb);
    render(front, 7, image);
    expectSamePixels(image, expected);

    // Some samples at a time, as who looks on wants them, and begun without a look at particles.
    Image grown = image;
    Image lost = image;
    std::uint32_t first = 0;
    std::size_t stopped = 0;
    for (std::uint32_t const count : {1U, 1U, 5U, 11U}) {
        for (std::size_t tile = 0; tile < front.tileCount(); ++tile) {
            stopped += front.addSamples(tile, first, count, lost, [] { return false; }) ? 0 : 1;
            EXPECT_TRUE(soon.addSamples(tile, first, count, grown));
        }
        first += count;
        EXPECT_EQ(grown.rgb == expected.rgb, first == 18) << first;
    }
    EXPECT_GT(stopped, 0U);
    EXPECT_EQ(grown.alpha, expected.alpha);
    EXPECT_EQ(grown.depth, expected.depth);
    EXPECT_EQ(grown.id, expected.id);
}

/// The largest factor between a part of the tiles, from a fifth on, and its part of their cost.
double mostMisled(std::size_t columns, std::size_t rows,
                  std::function<double(double x, double y)> const& costAt) {
    pipeline::TileOrder const order(columns * rows);
    std::set<std::size_t> seen;
    std::vector<double> costs;
    for (std::size_t turn = 0; turn < columns * rows; ++turn) {
        std::size_t const tile = order.tileAt(turn);
        EXPECT_TRUE(seen.insert(tile).second && tile < columns * rows);
        costs.push_back(costAt(static_cast<double>(tile % columns) / static_cast<double>(columns),
                               static_cast<double>(tile / columns) / static_cast<double>(rows)));
    }
    double const all = std::accumulate(costs.begin(), costs.end(), 0.0);
    double sum = 0.0;
    double most = 1.0;
    for (std::size_t done = 1; done <= costs.size(); ++done) {
        sum += costs[done - 1];
        double const ratio =
            sum / all * static_cast<double>(costs.size()) / static_cast<double>(done);
        if (5 * done >= costs.size())
            most = std::max({most, ratio, 1.0 / ratio});
    }
    return most;
}

TEST(Tiles, AreDealtOutSoThatEachPartOfThemTakesItsPartOfTheTime) {
    for (auto const& [columns, rows] : std::vector<std::pair<std::size_t, std::size_t>>{
             {160, 90}, {240, 135}, {120, 68}, {80, 80}, {64, 512}, {16, 1}, {7, 3}, {1, 1}}) {
        SCOPED_TRACE(columns);
        bool const isLarge = columns * rows > 5000;
        auto const floorBelow = [](double, double y) { return y < 0.6 ? 0.1 : 1.0; };
        auto const ball = [](double x, double y) {
            return std::hypot(x - 0.5, y - 0.5) < 0.3 ? 1.0 : 0.05;
        };
        auto const ramp = [](double x, double y) { return x * x + y; };
        for (double const misled :
             {mostMisled(columns, rows, floorBelow), mostMisled(columns, rows, ball),
              mostMisled(columns, rows, ramp)})
            EXPECT_LT(misled, isLarge ? 1.15 : 1e9);
    }
}

TEST(Lenses, SeeNothingBesideTheirFootprint) {
    for (unsigned seed = 0; seed < 30; ++seed) {
        SCOPED_TRACE(seed);
        Random random(seed);
        ParticleSet particles;
        for (int i = 0; i < 20; ++i) {
            particles.positions.push_back(random.inCube(3.0F));
            particles.radii.push_back(random.between(0.05F, 0.6F));
        }
        ParticleSet later = particles;
        for (Kelpa::Vector& place : later.positions)
            place = pipeline::narrow(pipeline::wide(place) + pipeline::wide(random.inCube(0.5F)));
        bool const moves = seed % 3 == 0;
        Options options;
        options.scene.motion.motion =
            moves ? pipeline::Motion{pipeline::ToFile{"b"}} : pipeline::Motion{pipeline::Still{}};
        options.camera.eye = {0, 0, seed % 2 == 0 ? 4.0F : 9.0F}; // among them, or before them
        options.camera.lookAt = {0, 0, 0};
        options.image = allChannels(60, 40, 5);
        auto const ignore = [](auto const&...) {};
        pipeline::Scene scene =
            makeScene(options.scene, particles, moves ? &later : nullptr, {}, ignore, ignore);
        kelpatest::RecordingProgress progress;
        buildScene(scene, {progress}, options.tree);
        auto camera = placeCamera(options.camera, 60, 40, 'y', scene.framed(), scene.origin);
        camera.lensRadius = static_cast<double>(random.between(0.01F, 1.5F));
        camera.focus = static_cast<double>(random.between(0.5F, 12.0F));
        using Sky = pipeline::Picture::Sky;
        auto const with = [&](Sky sky) {
            pipeline::Picture const picture(scene, camera, {}, options.image, sky);
            Image image = picture.emptyImage();
            for (std::size_t tile = 0; tile < picture.tileCount(); ++tile)
                picture.renderTile(tile, image);
            return image;
        };
        Image const all = with(Sky::traced);
        EXPECT_EQ(with(Sky::leftOut).rgb, all.rgb);
        EXPECT_EQ(with(Sky::leftOut).depth, all.depth);
        EXPECT_EQ(renderImage(scene, camera, options.image, {}, 2, {}).rgb, all.rgb);
    }
}

TEST(Lenses, AreSharpInTheirFocusAlone) {
    // In the focus a ball keeps its edge, elsewhere it fades.
    auto const partlyCovered = [](double focus) {
        ParticleSet disk;
        disk.positions = {{0, 0, 0}};
        disk.radii = {1.0F};
        Options options;
        options.image.width = options.image.height = 40;
        options.image.samples = 64;
        pipeline::Scene scene = makeScene(
            options.scene, disk, nullptr, {}, [](auto const&...) {}, [](auto const&...) {});
        kelpatest::RecordingProgress progress;
        buildScene(scene, {progress}, options.tree);
        auto camera = placeCamera({}, 40, 40, 'z', scene.framed(), scene.origin);
        double const distance = std::sqrt(pipeline::dot(camera.eye, camera.eye));
        camera.lensRadius = 0.1 * distance;
        camera.focus = focus * distance;
        Image const image = renderImage(scene, camera, options.image, {}, 1, {});
        return std::count_if(image.alpha.begin(), image.alpha.end(),
                             [](float a) { return a > 0.02F && a < 0.98F; });
    };
    auto const sharp = partlyCovered(1.0);
    EXPECT_GT(partlyCovered(0.4), sharp + sharp / 2);
    EXPECT_GT(partlyCovered(4.0), sharp + sharp / 2);
}

} // namespace
