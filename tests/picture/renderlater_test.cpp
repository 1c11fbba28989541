// Pictures whose rays wait for blocks, or travel to them, beside those whose rays do not.

#include "pipeline/picture/framing.h"
#include "pipeline/picture/render.h"
#include "pipeline/picture/renderlater.h"

#include "tests/support/blockscene.h"
#include "tests/support/pixels.h"
#include "tests/support/threadranks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

namespace {

using kelpatest::blocksOf;
using kelpatest::builtScene;
using kelpatest::DealtBlocks;
using kelpatest::expectSamePixels;
using kelpatest::ThreadRanks;
using namespace pipeline;
using Shade = LightOptions::Shade;

struct Wish {
    ImageOptions image;
    LightOptions light;
};

/// Pictures of every kind of light, with and without channels, of parts and of all.
std::vector<Wish> wishes() {
    std::vector<Wish> all(6);
    for (Wish& wish : all) {
        wish.image.width = 80;
        wish.image.height = 60;
        wish.image.samples = 3;
    }
    ImageOptions& channels = all[0].image;
    channels.depth = channels.normal = channels.id = channels.position = true;
    all[0].light.aoDistance = 0.05;
    all[1].image.samples = 37; // three passes
    all[1].image.crop = {20, 11, 35, 30};
    all[1].light.aoSamples = 7;
    all[2].light.shade = Shade::lit;
    all[2].light.shadows = true;
    all[3].light.shade = Shade::flat;
    all[3].image.id = true;
    all[4].light.shade = Shade::normals;
    all[5].light.shade = Shade::headlight;
    all[5].image.samples = 1;
    return all;
}

Camera cameraOf(Scene const& scene) {
    CameraOptions options;
    options.zoom = 1.6; // some of it leaves the picture, and some of that shows nothing
    return placeCamera(options, 80, 60, 'z', scene.framed(), scene.origin);
}

/// A built scene with rods, and its pictures made at once.
struct Expected {
    explicit Expected(bool isMoving) : scene(builtScene(isMoving, blocksOf(1000))) {
        for (double const x : {-0.9, 0.3})
            scene.rods.push_back({{x, -1.3, -1.2}, {x, 1.3, 1.2}, 0.02});
        for (Wish const& wish : wishes())
            images.push_back(
                renderImage(scene, cameraOf(scene), wish.image, wish.light, 2, nullptr));
    }
    Scene scene;
    std::vector<Image> images;
};

std::vector<std::size_t> everyTile(Picture const& picture, std::size_t first, std::size_t step) {
    std::vector<std::size_t> tiles;
    for (std::size_t tile = first; tile < picture.tileCount(); tile += step)
        tiles.push_back(tile);
    return tiles;
}

TEST(RaysThatWait, MakeTheSamePictureHoweverFewAtATime) {
    for (bool const isMoving : {false, true}) {
        SCOPED_TRACE(isMoving);
        Expected const expected(isMoving);
        std::vector<Wish> const all = wishes();
        for (std::size_t i = 0; i < all.size(); ++i)
            for (auto const& [raysAtATime, threads] :
                 {std::pair(std::size_t{1}, 1), std::pair(std::size_t{20000}, 3),
                  std::pair(std::size_t{1} << 20, 2)}) {
                if (raysAtATime == 1 && i > 0)
                    continue; // tile by tile, which takes its time
                SCOPED_TRACE(testing::Message() << i << " with " << raysAtATime << " rays");
                Picture const picture(expected.scene, cameraOf(expected.scene), all[i].light,
                                      all[i].image);
                Image image = picture.emptyImage();
                NoTransport none;
                RayExchange exchange(expected.scene, *expected.scene.geometry->blocks(), none,
                                     threads);
                renderTilesLater(picture, everyTile(picture, 0, 1), exchange, image,
                                 {raysAtATime, threads}, nullptr);
                expectSamePixels(image, expected.images[i]);
                EXPECT_GT(exchange.figures().asked, exchange.figures().rays);
            }
    }
}

/// Renders a picture by ranks that are threads, each with every n-th tile and some of the blocks.
Image byRanks(ThreadRanks& crew, int ranks, Scene const& scene, Wish const& wish,
              PhaseProgress const& progressOfLast = nullptr) {
    Picture const picture(scene, cameraOf(scene), wish.light, wish.image);
    Image image = picture.emptyImage();
    crew.run([&](ThreadRanks::Rank& rank) {
        DealtBlocks blocks(*scene.geometry->blocks(), rank.rank(), ranks);
        RayExchange exchange(scene, blocks, rank, 1);
        std::vector<std::size_t> const tiles = everyTile(
            picture, static_cast<std::size_t>(rank.rank()), static_cast<std::size_t>(ranks));
        bool const isLast = rank.rank() == ranks - 1;
        try {
            renderTilesLater(picture, tiles, exchange, image, {60000, 1},
                             isLast ? progressOfLast : PhaseProgress());
            EXPECT_TRUE(ranks == 1 || exchange.figures().sent > 0);
        } catch (FailedElsewhere const&) {
            EXPECT_FALSE(isLast);
        } catch (std::length_error const&) {
            EXPECT_TRUE(isLast);
        }
    });
    return image;
}

TEST(RaysThatTravel, MakeTheSamePictureHoweverManyShareItAndWheneverTheyArrive) {
    for (bool const isMoving : {false, true}) {
        SCOPED_TRACE(isMoving);
        Expected const expected(isMoving);
        std::vector<Wish> const all = wishes();
        unsigned seed = 0;
        for (int const ranks : {2, 4, 7})
            for (std::size_t i = 0; i < all.size(); ++i) {
                if (ranks > 2 && i != static_cast<std::size_t>(ranks) / 5)
                    continue; // one kind each is enough
                SCOPED_TRACE(testing::Message() << i << " by " << ranks << ", seed " << seed);
                ThreadRanks crew(ranks, seed++);
                expectSamePixels(byRanks(crew, ranks, expected.scene, all[i]), expected.images[i]);
            }
    }
}

TEST(RaysThatTravel, EndEverywhereWhenOneRankFails) {
    Scene const scene = builtScene(false, blocksOf(1000), 1, 20000);
    for (int const failsAt : {0, 3, 10}) {
        ThreadRanks crew(4, 1);
        int asked = 0;
        byRanks(crew, 4, scene, wishes()[0], [&](double, std::uint64_t) {
            if (asked++ >= failsAt)
                throw std::length_error("of the last one");
        });
    }
}

} // namespace
