// Scenes whose particles ranks have in common, beside those that one process has.

#include "pipeline/picture/fingerprint.h"
#include "pipeline/picture/framing.h"
#include "pipeline/picture/rendertogether.h"

#include "tests/support/blockscene.h"
#include "tests/support/pixels.h"
#include "tests/support/threadranks.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <numeric>

namespace {

using kelpatest::blockScene;
using kelpatest::expectSamePixels;
using kelpatest::ThreadRanks;
using namespace pipeline;

ImageOptions const channels = [] {
    ImageOptions image;
    image.width = 80;
    image.height = 60;
    image.samples = 2;
    image.depth = image.normal = image.id = image.position = true;
    return image;
}();

Camera cameraOf(Scene const& scene) {
    return placeTurntable({}, 80, 60, 'z', scene.framed(), scene.origin).turned(0.1);
}

/// A scene to be built, with colours and ids of its own.
Scene coloredScene(bool isMoving, std::size_t count) {
    Scene scene = blockScene(isMoving, count);
    for (std::size_t i = 0; i < count; ++i) {
        float const part = static_cast<float>(i) / static_cast<float>(count);
        scene.colors.push_back({part, 1.0F - part, 0.5F});
        scene.ids.push_back(static_cast<std::int64_t>(7 * i));
    }
    return scene;
}

TreeOptions optionsOf(std::int64_t block, int rank, int ranks) {
    TreeOptions options = kelpatest::blocksOf(block);
    options.share = {rank, ranks};
    return options;
}

/// The picture that ranks make of a scene, none of which keeps more than its own blocks.
Image byRanks(int ranks, std::int64_t block, Scene (*make)(), std::uint64_t fingerprint) {
    Image whole;
    std::atomic<std::int64_t> held = 0;
    std::int64_t const total = make().first->size();
    ThreadRanks crew(ranks, static_cast<unsigned>(ranks));
    crew.run([&](ThreadRanks::Rank& rank) {
        Scene scene = make();
        kelpatest::RecordingProgress progress;
        buildScene(scene, {progress, 1 + rank.rank() % 2},
                   optionsOf(block, rank.rank(), rank.ranks()), &rank);
        EXPECT_LE(scene.first->size(), total / ranks + block);
        held += scene.first->size();
        Camera const camera = cameraOf(scene);
        EXPECT_EQ(fingerprintOf(scene, camera, {}, channels), fingerprint);
        RankFigures figures;
        Image image = renderTogether(scene, camera, channels, {}, rank, 1, {}, figures);
        if (rank.rank() == 0)
            whole = std::move(image);
    });
    EXPECT_EQ(held, total);
    return whole;
}

template <bool isMoving, std::size_t count> Scene sceneOf() {
    return coloredScene(isMoving, count);
}

void expectTheSame(Scene (*make)(), std::int64_t block, std::initializer_list<int> ranks) {
    Scene scene = make();
    kelpatest::RecordingProgress progress;
    buildScene(scene, {progress, 1}, kelpatest::blocksOf(block));
    Camera const camera = cameraOf(scene);
    Image const expected = renderImage(scene, camera, channels, {}, 1, {});
    for (int const number : ranks) {
        SCOPED_TRACE(number);
        expectSamePixels(byRanks(number, block, make, fingerprintOf(scene, camera, {}, channels)),
                         expected);
    }
}

TEST(SharedParticles, MakeTheSamePictureWithEachRankHoldingItsOwn) {
    expectTheSame(sceneOf<false, 20000>, 500, {2, 5});
    expectTheSame(sceneOf<true, 20000>, 300, {3});
}

TEST(SharedParticles, MakeTheSamePictureWhereRanksHaveNone) {
    expectTheSame(sceneOf<false, 20000>, 20000, {3}); // one block
    expectTheSame(sceneOf<false, 40>, 10, {7});
}

TEST(SharedParticles, EndEverywhereWhenOneRankFailsAtAnyTime) {
    for (int const failsAt : {0, 1, 4}) {
        ThreadRanks crew(3);
        std::atomic<int> told = 0;
        crew.run([&](ThreadRanks::Rank& rank) {
            Scene scene = blockScene(false, 20000);
            kelpatest::RecordingProgress progress;
            int asked = 0;
            BuildRun const run{progress, 1, [&](double, std::uint64_t) {
                                   if (rank.rank() == 1 && asked++ >= failsAt)
                                       throw std::length_error("of the second one");
                               }};
            auto const build = [&] {
                buildScene(scene, run, optionsOf(500, rank.rank(), 3), &rank);
            };
            if (rank.rank() == 1)
                EXPECT_THROW(rank.together(build), std::length_error);
            else
                EXPECT_THROW(rank.together(build), FailedElsewhere);
            ++told;
        });
        EXPECT_EQ(told, 3);
    }
}

} // namespace
