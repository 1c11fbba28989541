// What builds hold of memory, and how they end where the system has no more of it.

#include "kelpa/foundation/blockpool.h"

#include "tests/support/allocationfailure.h"
#include "tests/support/movingscene.h"
#include "tests/support/testhost.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <set>
#include <thread>
#include <vector>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KELPA_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define KELPA_SANITIZED 1
#endif
#endif

namespace kelpatest {
namespace {

TEST(BlockPools, GiveEveryThreadBlocksOfItsOwn) {
    constexpr std::size_t bytes = 100000;
    constexpr int numBlocks = 60; // more than a slab holds
    for (BlockPool::Source const source : {BlockPool::Source::heap, BlockPool::Source::slabs}) {
        std::int64_t held = 0;
        {
            BlockPool pool(bytes, source, &held);
            std::vector<std::thread> threads;
            for (int t = 1; t <= 3; ++t)
                threads.emplace_back([&pool, t] {
                    for (int round = 0; round < 20; ++round) {
                        std::vector<void*> blocks;
                        for (int k = 0; k < numBlocks / 3; ++k)
                            std::memset(blocks.emplace_back(pool.take()), t, bytes);
                        for (void* const block : blocks) {
                            auto const* const content = static_cast<unsigned char*>(block);
                            EXPECT_EQ(content[0] + content[bytes - 1], 2 * t);
                            pool.giveBack(block);
                        }
                    }
                });
            for (std::thread& thread : threads)
                thread.join();
            std::int64_t const most = held;
            EXPECT_GE(most, static_cast<std::int64_t>(bytes) * numBlocks / 3);
            EXPECT_LE(most, static_cast<std::int64_t>(bytes) * (numBlocks + 42)); // a slab: 42
            std::set<void*> blocks;
            for (int k = 0; k < numBlocks / 3; ++k)
                blocks.insert(pool.take());
            EXPECT_EQ(blocks.size(), static_cast<std::size_t>(numBlocks / 3));
            EXPECT_EQ(held, most); // those of the threads, once more
            for (void* const block : blocks)
                pool.giveBack(block);
            pool.release();
            EXPECT_EQ(held, 0);
            FailingAllocations const failure(0);
            EXPECT_EQ(pool.take(), nullptr);
            pool.giveBack(pool.take());
        }
        EXPECT_EQ(held, 0);
    }
}

constexpr int large = 1 << 17; // spheres: enough for slabs

template <class SceneType> void expectUsable(SceneType& scene) {
    Tally const tally = askRays(scene, 1, 1, 0.5F);
    EXPECT_EQ(tally.missed + tally.wrong, 0);
}

/// Builds; what fails must be the one exception type and leave an empty tree. True if it failed.
template <class SceneType> bool failsToBuild(SceneType& scene, ThreadManager* manager) {
    try {
        scene.tree.build(nullptr, manager, 0, 0);
    } catch (ExceptionMsg const&) {
        EXPECT_EQ(scene.tree.root, nullptr);
        EXPECT_EQ(scene.tree.getMemUsage() + scene.tree.getPackedMemUsage(), 0U);
        return true;
    }
    return false;
}

template <class SceneType> void failOneAllocationOfMany(SceneType&& scene, ThreadManager* manager) {
    int failures = 0;
    bool happened = true;
    for (long k = 0; happened; k += 1 + k / 3) {
        SCOPED_TRACE(k);
        FailingAllocations const failure(k, 1);
        failures += failsToBuild(scene, manager) ? 1 : 0;
        happened = failure.happened();
    }
    EXPECT_GT(failures, 5);
    expectUsable(scene);
}

TEST(LargeBuilds, EndInOneWayWhenAnAllocationFails) {
    RunsAtOnce manager;
    failOneAllocationOfMany(StillScene(uniform.make(1, large)), nullptr);
    failOneAllocationOfMany(StillScene(uniform.make(1, large)), &manager);
    failOneAllocationOfMany(MovingScene(moved(uniform.make(1, large), Way::scattering, 1)),
                            nullptr);
}

template <class SceneType> void expectExactCounts(SceneType&& scene) {
    Workers manager(2);
    scene.tree.build(nullptr, &manager, 0, 0);
    expectSound(scene.tree);
    EXPECT_GT(manager.jobs, 1);
}

// Threads take nodes and entries by the hundred there, and use up not all of them.
TEST(LargeBuilds, OnSeveralThreadsCountWhatIsInTheTree) {
    expectExactCounts(StillScene(uniform.make(1, large)));
    expectExactCounts(MovingScene(moved(uniform.make(1, large), Way::scattering, 1)));
}

#ifndef KELPA_SANITIZED // they need more addresses than there are memory

/// Gives the process some more addresses than it has, and no more, while this lives.
class AddressLimit {
  public:
    explicit AddressLimit(rlim_t more) {
        rlim_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        getrlimit(RLIMIT_AS, &before);
        rlimit limit = before;
        limit.rlim_cur = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + more;
        setrlimit(RLIMIT_AS, &limit);
    }
    AddressLimit(AddressLimit const&) = delete;
    AddressLimit& operator=(AddressLimit const&) = delete;
    ~AddressLimit() { setrlimit(RLIMIT_AS, &before); }

  private:
    rlimit before{};
};

/// Lets a build fail, so that the tree holds nothing and keeps its systems.
template <class SceneType> void releaseTree(SceneType& scene) {
    FailingAllocations const failure(0, FailingAllocations::all);
    EXPECT_TRUE(failsToBuild(scene, nullptr));
}

TEST(LargeBuilds, EndInOneWayWhereTheSystemHasNoPages) {
    StillScene scene(uniform.make(1, large));
    int failures = 0;
    bool failed = true;
    for (rlim_t megabytes = 0; failed; megabytes += 3) {
        SCOPED_TRACE(megabytes);
        releaseTree(scene);
        AddressLimit const limit(megabytes << 20U);
        failed = failsToBuild(scene, nullptr);
        failures += failed ? 1 : 0;
    }
    EXPECT_GT(failures, 3);
    expectUsable(scene);
}

#endif

} // namespace
} // namespace kelpatest
