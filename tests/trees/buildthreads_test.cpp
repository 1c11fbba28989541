// Builds on many threads.
#include "tests/support/allocationfailure.h"
#include "tests/support/movingscene.h"
#include "tests/support/testhost.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

namespace kelpatest {
namespace {

using MakeManager = std::function<std::unique_ptr<CountingManager>()>;

template <class Manager, class... Values> MakeManager maker(Values... values) {
    return [=] { return std::make_unique<Manager>(values...); };
}

std::unique_ptr<CountingManager> noManager() {
    return nullptr;
}

template <class Primitive> void expectEmpty(Scene<Primitive>& scene) {
    EXPECT_EQ(scene.tree.root, nullptr);
    EXPECT_EQ(scene.tree.numSpheres, 0);
    EXPECT_EQ(scene.tree.threads, nullptr);
    EXPECT_EQ(scene.tree.doneEvent, nullptr);
    EXPECT_EQ(scene.tree.getMemUsage() + scene.tree.getPackedMemUsage(), 0U);
    RSRay ray = scene.makeRay(RaySource(scene.cloud, 1).make(Aim::inside));
    EXPECT_EQ(scene.owner.intersect(ray), 0);
}

TEST(ThreadManagers, OfAnyMannerGetTheRightTree) {
    struct {
        char const* name;
        MakeManager make;
    } const manners[] = {
        {"at once", maker<RunsAtOnce>()},
        {"a thread per job", maker<ThreadPerJob>()},
        {"one worker", maker<Workers>(1)},
        {"late and newest first", maker<Workers>(3, Workers::Order::newestFirst, 300)},
        {"refuses all", maker<RefusesFrom>(1)},
        {"refuses the second", maker<RefusesFrom>(2)},
        {"refuses the third", maker<RefusesFrom>(3)},
    };
    for (CloudKind const& kind : {uniform, lattice, mixed})
        for (auto const& manner : manners) {
            SCOPED_TRACE(manner.name);
            StillScene scene(kind.make(2, 8000));
            auto const manager = manner.make();
            for (int i = 0; i < 3; ++i)
                scene.tree.build(nullptr, manager.get());
            EXPECT_GE(manager->jobs, getNumProcessors() > 1 ? 6 : 3); // subtrees are handed over
            expectSound(scene.tree);
            expectRightAnswers(scene, 3, 5);
        }
}

TEST(ThreadManagers, FinishThousandsOfSmallBuilds) {
    StillScene scene(uniform.make(1, 100));
    for (MakeManager const& make : {maker<Workers>(2), maker<ThreadPerJob>()}) {
        auto const manager = make();
        for (int i = 0; i < 1000; ++i)
            scene.tree.build(nullptr, manager.get());
        EXPECT_EQ(manager->jobs, 1000);
        expectRightAnswers(scene, 1, 10);
    }
}

TEST(Aborts, LeaveAValidTreeAtEveryPoll) {
    StillScene scene(uniform.make(5, 30));
    RecordingProgress counting;
    scene.tree.build(&counting, nullptr);
    EXPECT_GT(counting.polls, 2 * scene.tree.numSpheres);
    RunsAtOnce manager;
    for (bool const isOnce : {false, true})
        for (bool const isThreaded : {false, true})
            for (long poll = 1; poll <= counting.polls; ++poll) {
                SCOPED_TRACE(poll);
                RecordingProgress progress(poll, isOnce);
                scene.tree.build(&progress, isThreaded ? &manager : nullptr);
                expectSound(scene.tree);
                EXPECT_EQ(askRays(scene, 1, 2).wrong, 0);
                EXPECT_EQ(progress.lines.back().find("  Average spheres/leaf: "), 8U);
                if (poll > scene.tree.numSpheres) { // one more question per postponed node at most
                    EXPECT_LE(progress.polls, poll + scene.tree.innerLevels);
                }
            }
    scene.tree.build(nullptr, nullptr);
    expectRightAnswers(scene, 1, 20);
}

TEST(Aborts, ReachThreadsThatBuild) {
    StillScene scene(uniform.make(6, 8000));
    for (long const poll : {1, 4000, 8001, 9000, 16001, 20000, 24500, 30000, 60000}) {
        SCOPED_TRACE(poll);
        ThreadPerJob manager;
        RecordingProgress progress(poll);
        scene.tree.build(&progress, &manager);
        expectSound(scene.tree);
        EXPECT_EQ(askRays(scene, 1, 3).wrong, 0);
        scene.tree.build(nullptr, &manager);
        expectRightAnswers(scene, 1, 3);
    }
}

/// Builds with the k-th allocation failing, for all k that a build comes to. A build ends either
/// with the one exception type and an empty tree or with the right tree, and the next is right.
template <class SceneType>
void buildWithFailures(SceneType&& scene, MakeManager const& make, bool hasProgress, long howMany) {
    int exceptions = 0;
    bool failed = true;
    for (long k = 0; failed; ++k) {
        SCOPED_TRACE(k);
        auto const manager = make();
        RecordingProgress progress;
        bool isThrown = false;
        {
            FailingAllocations const failure(k, howMany);
            try {
                scene.tree.build(hasProgress ? &progress : nullptr, manager.get(), 0, 0);
            } catch (ExceptionMsg const&) {
                isThrown = true;
            }
            failed = failure.happened();
        }
        if (isThrown) {
            ++exceptions;
            expectEmpty(scene);
            scene.tree.build(nullptr, manager.get(), 0, 0);
        }
        expectSound(scene.tree);
        Tally const tally = askRays(scene, 1, 1, 0.5F);
        EXPECT_EQ(tally.missed + tally.wrong, 0);
    }
    EXPECT_GT(exceptions, 5); // sphere references, blocks of nodes, of entries, of records
}

TEST(FailedAllocations, LeaveAnEmptyTreeThatCanBeBuiltAgain) {
    for (long const howMany : {1L, FailingAllocations::all}) {
        buildWithFailures(StillScene(uniform.make(7, 2500)), noManager, false, howMany);
        buildWithFailures(StillScene(uniform.make(7, 2500)), noManager, true, howMany);
        for (MakeManager const& make : {maker<RunsAtOnce>(), maker<ThreadPerJob>()}) {
            buildWithFailures(StillScene(uniform.make(7, 2500)), make, true, howMany);
            Cloud cloud = moved(uniform.make(7, 2500), Way::scattering, 1);
            buildWithFailures(MovingScene(std::move(cloud)), make, false, howMany);
        }
    }
}

/// Throws at the n-th message.
class ThrowingProgress final : public ProgressCallback {
  public:
    explicit ThrowingProgress(int message) : left(message) {}
    std::int32_t getAbort() override { return 0; }
    void info(int, int, char const*, ...) override {
        if (--left == 0)
            throw std::runtime_error("the host's own");
    }
    int left;
};

TEST(ExceptionsOfTheHost, LeaveTheBuildAfterItsThreads) {
    StillScene scene(uniform.make(8, 8000));
    ThreadPerJob manager;
    for (int message = 1; message <= 18; ++message) {
        ThrowingProgress progress(message);
        EXPECT_THROW(scene.tree.build(&progress, &manager), std::runtime_error);
        expectEmpty(scene);
    }
    scene.tree.build(nullptr, &manager);
    expectRightAnswers(scene, 1, 5);
}

/// Asks a list of rays, singly and together; returns how many answers differ.
template <class Primitive> int askList(Scene<Primitive>& scene, std::uint64_t seed, float time) {
    RaySource source(scene.cloud, seed);
    std::vector<RSRay> rays, answers;
    std::vector<int> codes;
    for (int i = 0; i < 64; ++i) {
        Query query = source.make(static_cast<Aim>(i % numAims));
        query.time = time;
        for (double& from : query.ray.origin)
            from = roundedToSingle(from);
        rays.push_back(scene.makeRay(query));
        answers.push_back(rays.back());
        codes.push_back(scene.owner.intersect(answers.back()));
    }
    return isSameAsList(scene, rays, answers, codes) ? 0 : 1;
}

TEST(Readers, AskTreesWhileOthersAreBuiltFreedAndDestroyed) {
    StillScene stills[] = {StillScene(uniform.make(1, 300)), StillScene(mixed.make(2, 300))};
    MovingScene movings[] = {MovingScene(moved(uniform.make(3, 300), Way::scattering, 1)),
                             MovingScene(moved(mixed.make(4, 300), Way::turning, 2))};
    for (StillScene& scene : stills)
        scene.tree.build(nullptr, nullptr);
    for (MovingScene& scene : movings)
        scene.tree.build(nullptr, nullptr, 0);
    std::atomic<bool> done = false;
    std::atomic<int> misses = 0;
    std::vector<std::thread> readers;
    for (std::uint64_t t = 0; t < 4; ++t)
        readers.emplace_back([&, t] {
            for (std::uint64_t i = t; !done || i < t + 4; ++i) {
                StillScene& still = stills[i % 2];
                MovingScene& moving = movings[i / 2 % 2];
                Tally tally = askRays(still, i % 10, 1);
                misses += tally.missed + tally.wrong + askList(still, i, 0.0F);
                tally = askRays<MovingParticlePrimitive>(moving, i % 10, 1, 0.5F);
                misses += tally.wrong + askList(moving, i, 0.5F);
            }
        });
    ThreadPerJob manager;
    for (std::uint64_t i = 0; i < 10; ++i) {
        StillScene still(uniform.make(i, 4000));
        MovingScene moving(moved(uniform.make(i, 4000), Way::scattering, i));
        still.tree.build(nullptr, &manager);
        moving.tree.build(nullptr, &manager, 0);
        if (i % 2 == 0) {
            still.tree.freeData();
            moving.tree.freeData();
        } else {
            still.tree.build(nullptr, &manager);
            moving.tree.build(nullptr, &manager, 1);
        }
    }
    done = true;
    for (std::thread& reader : readers)
        reader.join();
    EXPECT_EQ(misses, 0);
}

} // namespace
} // namespace kelpatest
