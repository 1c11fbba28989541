// What builds ask their host for: which services, in which order, with which arguments.

#include "tests/services/recordinghost.h"
#include "tests/support/movingscene.h"
#include "tests/support/testhost.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace kelpatest {
namespace {

using Calls = std::vector<std::string>;

/// A tree of either kind over as many spheres as wanted, built as hosts build it.
struct StillBuild {
    explicit StillBuild(int count) : scene(uniform.make(1, count)) {}
    void build(ThreadManager* manager, ProgressCallback* progress = nullptr) {
        scene.tree.build(progress, manager);
    }
    static constexpr char const* create = "create null 1 0 null"; ///< manual reset
    static constexpr bool isHere = true; ///< without threads it needs no service at all
    StillScene scene;
};
struct MovingBuild {
    explicit MovingBuild(int count) : scene(moved(uniform.make(1, count), Way::scattering, 2)) {}
    void build(ThreadManager* manager, ProgressCallback* progress = nullptr) {
        scene.tree.build(progress, manager, 0);
    }
    static constexpr char const* create = "create null 0 0 null"; ///< automatic reset
    static constexpr bool isHere = false;
    MovingScene scene;
};

template <class Build> class Services : public testing::Test {
  protected:
    RecordingHost& host = RecordingHost::instance();
};
using Builds = testing::Types<StillBuild, MovingBuild>;
TYPED_TEST_SUITE(Services, Builds);

char const* const wait = "wait 1 0 100 1279";

/// Runs jobs on threads once the build waits, and notes what it is given.
class LateThreads final : public ThreadManager {
  public:
    ~LateThreads() {
        for (std::thread& thread : threads)
            thread.join();
    }
    void runThread(ThreadProcedure* procedure, void* parameter) override {
        RecordingHost::instance().note(parameter == nullptr ? "run" : "run with a parameter");
        EXPECT_EQ(procedure->getThreadName(), nullptr);
        threads.emplace_back([procedure, parameter] {
            RecordingHost::instance().awaitWaiter();
            procedure->proc(parameter);
        });
    }

  private:
    std::vector<std::thread> threads;
};

TYPED_TEST(Services, AreAskedForInOrderAndUnderTheLock) {
    TypeParam build(100);
    auto& tree = build.scene.tree;
    this->host.begin(tree.threadLock);
    LateThreads manager;
    for (int builds = 0; builds < 2; ++builds) // each asks anew
        build.build(&manager);
    Calls once{"processors", build.create, "run", wait, "pulse held", "close held"};
    Calls twice = once;
    twice.insert(twice.end(), once.begin(), once.end());
    EXPECT_EQ(this->host.calls(), twice);
    EXPECT_EQ(tree.numThreads, 3);
    EXPECT_EQ(tree.threads, nullptr);
    expectSound(tree);

    // Null handles are passed on as they are.
    this->host.begin(tree.threadLock);
    this->host.hasNoEvents = true;
    build.build(&manager);
    EXPECT_EQ(this->host.calls(),
              (Calls{"processors", build.create, "run", "wait 1 null 0 100 1279", "pulse null held",
                     "close null held"}));
}

TYPED_TEST(Services, AreNotAskedForWhereNothingRunsElsewhere) {
    TypeParam build(100);
    auto& tree = build.scene.tree;
    this->host.begin(tree.threadLock);
    build.build(nullptr);
    EXPECT_EQ(this->host.calls(), Calls{}); // no event, no wait, and nobody counts processors
    expectSound(tree);

    // One thread of the manager, or none.
    LateThreads manager;
    tree.multiThreaded = 0;
    build.build(&manager);
    EXPECT_EQ(this->host.calls(),
              build.isHere ? Calls{}
                           : (Calls{build.create, "run", wait, "pulse held", "close held"}));

    TypeParam empty(0);
    this->host.begin(empty.scene.tree.threadLock);
    empty.build(&manager);
    EXPECT_EQ(this->host.calls(), Calls{});

    // Fewer processors than one count as one.
    tree.multiThreaded = 1;
    this->host.begin(tree.threadLock);
    this->host.processors = -2;
    build.build(&manager);
    EXPECT_EQ(tree.numThreads, 1);
}

// A pulse that finds nobody waiting is lost on many hosts; a wait would then last its time-out.
TYPED_TEST(Services, NeedNoWaitForJobsThatRanAtOnce) {
    TypeParam build(5000);
    this->host.begin(build.scene.tree.threadLock);
    this->host.losesPulses = true;
    RunsAtOnce manager;
    build.build(&manager);
    EXPECT_EQ(this->host.countOf(wait), 0);
    EXPECT_EQ(this->host.countOf("close held"), 1);
    EXPECT_GT(manager.jobs, 1);
    EXPECT_EQ(this->host.countOf("pulse held"), 1); // by the job that ends last
    RefusesFrom refusing(1);
    build.build(&refusing);
    EXPECT_EQ(this->host.countOf(wait), 0);
    expectSound(build.scene.tree);

    // Jobs of threads are waited for, by as many time-outs as it takes.
    ThreadPerJob threads;
    build.build(&threads);
    EXPECT_GE(this->host.countOf(wait), 1);
    expectSound(build.scene.tree);
}

TYPED_TEST(Services, WaitUntilNoJobRunsWhateverTheHostAnswers) {
    TypeParam build(5000);
    for (int const early : {1, 3, 1000}) {
        this->host.begin(build.scene.tree.threadLock);
        this->host.earlyAnswers = early;
        Workers late(3, Workers::Order::newestFirst, 3000);
        build.build(&late);
        EXPECT_EQ(build.scene.tree.numRunning, 0);
        expectSound(build.scene.tree);
    }
}

} // namespace
} // namespace kelpatest
