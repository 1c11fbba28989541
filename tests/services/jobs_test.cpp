// How builds share their work between jobs, and how often they ask whether to go on.

#include "tests/services/recordinghost.h"
#include "tests/support/movingscene.h"
#include "tests/support/testhost.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <set>
#include <string_view>
#include <vector>

namespace kelpatest {
namespace {

/// Tiny spheres apart from each other, in two heaps, which no plane cuts: every node has as many
/// records as there are entries below it.
Cloud apart(int count) {
    return cloudOf(3, count, [](System& system, Random& random, int i) {
        float const heap = i % 2 == 0 ? -1.0F : 1.0F;
        system.add(sum(random.inCube(0.25F), {heap, heap, heap}), 1e-7F);
    });
}
Cloud apartAndStanding(int count) {
    return moved(apart(count), Way::standing, 1);
}

void buildTree(StillScene& scene, ProgressCallback* progress, ThreadManager* manager) {
    scene.tree.build(progress, manager);
}
void buildTree(MovingScene& scene, ProgressCallback* progress, ThreadManager* manager) {
    scene.tree.build(progress, manager, 0);
}

/// Runs jobs at once and remembers which they were.
class Remembering : public ThreadManager {
  public:
    void runThread(ThreadProcedure* procedure, void* parameter) override {
        jobs.push_back(procedure);
        look(*procedure);
        procedure->proc(parameter);
    }
    std::vector<ThreadProcedure*> jobs;

  private:
    virtual void look(ThreadProcedure&) {}
};

/// The jobs of a build over `count` spheres with so many processors.
template <class Scene> std::vector<ThreadProcedure*> jobsOf(Scene&& scene, int processors) {
    RecordingHost::instance().begin(scene.tree.threadLock);
    RecordingHost::instance().processors = processors;
    Remembering manager;
    buildTree(scene, nullptr, &manager);
    expectSound(scene.tree);
    return manager.jobs;
}

TEST(Jobs, AreHandedOverBeyondExactly1500Records) {
    EXPECT_EQ(jobsOf(StillScene(apart(1500)), 4).size(), 1U);
    EXPECT_EQ(jobsOf(StillScene(apart(1501)), 4).size(), 2U);
    EXPECT_EQ(jobsOf(MovingScene(apartAndStanding(1500)), 4).size(), 1U);
    EXPECT_EQ(jobsOf(MovingScene(apartAndStanding(1501)), 4).size(), 2U);
    EXPECT_EQ(jobsOf(StillScene(apart(20000)), 1).size(), 1U); // the only thread is at work
}

/// Looks at the first job that is handed over, of a tree that is split on one axis there.
template <class Tree, class Thread> class LooksAtSecond final : public Remembering {
  public:
    explicit LooksAtSecond(Tree& watched) : tree(watched) {}

  private:
    void look(ThreadProcedure& procedure) override {
        auto const& thread = static_cast<Thread&>(procedure);
        EXPECT_EQ(thread.tree, &tree);
        if (jobs.size() == 1) {
            EXPECT_EQ(thread.node, tree.root);
            EXPECT_EQ(thread.depth + thread.level, 2);
            EXPECT_EQ(thread.data.getCount(), tree.numSpheres);
        } else if (jobs.size() == 2) {
            EXPECT_EQ(thread.node, tree.root->children() + 1);
            EXPECT_EQ(thread.depth, 2);
            EXPECT_EQ(thread.level, 2);
            EXPECT_EQ(box(thread.box).min[tree.root->kind()], tree.root->splitPos);
        }
    }
    static Box const& box(Box const& region) { return region; }
    static Box const& box(TimeBox const& region) { return region.box; }

    Tree& tree;
};

TEST(Jobs, AreGivenTheUpperSideOfTheSplit) {
    StillScene still(apart(3000));
    RecordingHost::instance().begin(still.tree.threadLock);
    LooksAtSecond<StaticSphereTree, SDSphereBuildThread> lookingAtStill(still.tree);
    buildTree(still, nullptr, &lookingAtStill);
    EXPECT_GT(lookingAtStill.jobs.size(), 1U);
    MovingScene moving(apartAndStanding(3000));
    RecordingHost::instance().begin(moving.tree.threadLock);
    LooksAtSecond<MovingSphereTree, MBSphereBuildThread> lookingAtMoving(moving.tree);
    buildTree(moving, nullptr, &lookingAtMoving);
    EXPECT_GT(lookingAtMoving.jobs.size(), 1U);
}

template <class Scene> void expectReusedThreads(Scene&& scene) {
    std::vector<ThreadProcedure*> const jobs = jobsOf(scene, 2);
    std::set<ThreadProcedure*> const threads(jobs.begin(), jobs.end());
    EXPECT_EQ(threads.size(), 2U);
    EXPECT_GT(jobs.size(), 3U); // the second takes a subtree whenever it is idle
}

TEST(Jobs, ReuseThreadsThatHaveEnded) {
    expectReusedThreads(StillScene(apart(20000)));
    expectReusedThreads(MovingScene(apartAndStanding(20000)));
}

/// Looks at a thread's records after each of its jobs.
class Watching final : public ThreadManager {
  public:
    explicit Watching(StaticSphereTree& watched) : tree(watched) {}
    void runThread(ThreadProcedure* procedure, void* parameter) override {
        auto& thread = static_cast<SDSphereBuildThread&>(*procedure);
        EXPECT_EQ(thread.tree, &tree);
        EXPECT_EQ(thread.busy, 1);
        std::uint64_t const before = thread.data.getMemUsage();
        procedure->proc(parameter);
        EXPECT_EQ(thread.data.getCount(), 0);
        EXPECT_GE(thread.data.getMemUsage(), before) << "blocks are kept for the next job";
        EXPECT_EQ(thread.data.current, thread.data.first);
        EXPECT_EQ(thread.busy, 0);
        ++jobs;
    }
    int jobs = 0;

  private:
    StaticSphereTree& tree;
};

TEST(Jobs, KeepTheirThreadsMemoryForTheNext) {
    StillScene scene(apart(60000));
    RecordingHost::instance().begin(scene.tree.threadLock);
    RecordingHost::instance().processors = 2;
    Watching manager(scene.tree);
    scene.tree.build(nullptr, &manager);
    EXPECT_GT(manager.jobs, 5);
    SDSphereBuildThread outside;
    outside.proc(nullptr); // no part of a build: nothing to do
}

/// Non-empty nodes and records of inner nodes of a tree of spheres apart.
struct NodeCounts {
    int nonEmpty = 0, inner = 0;
    long parted = 0;
};

template <class Node> int addCounts(Node const& node, NodeCounts& counts) {
    if (node.isLeaf()) {
        counts.nonEmpty += leafCount(node) > 0;
        return leafCount(node);
    }
    int const records =
        addCounts(node.children()[0], counts) + addCounts(node.children()[1], counts);
    ++counts.nonEmpty;
    ++counts.inner;
    counts.parted += records;
    return records;
}

/// Once where a node that is not empty begins, once behind each record that is parted, and once
/// between the children. `forRecords`: while records are made.
template <class Scene> void expectPolls(Scene&& scene, long forRecords) {
    RecordingProgress progress;
    buildTree(scene, &progress, nullptr);
    ASSERT_EQ(scene.tree.leafSpheres.getCount(), scene.tree.numSpheres);
    NodeCounts counts;
    addCounts(*scene.tree.root, counts);
    EXPECT_GT(counts.inner, 20);
    EXPECT_LT(counts.nonEmpty, scene.tree.nodes.getCount()); // some are empty
    EXPECT_EQ(progress.polls, forRecords + counts.nonEmpty + counts.parted + counts.inner);
}

TEST(Questions, AreAskedAtNodesBehindRecordsAndBetweenChildren) {
    expectPolls(StillScene(apart(1000)), 1000);
    expectPolls(MovingScene(apartAndStanding(1000)), 0);
}

/// What a host's own callback may throw; counts how many there are.
struct Counted {
    explicit Counted(int which) : number(which) { ++living; }
    Counted(Counted const& other) : number(other.number) { ++living; }
    ~Counted() { --living; }
    int const number;
    static inline int living = 0;
};

/// Lets every job from the third on fail, and counts what is kept of that once all have ended.
class FailingProgress final : public ProgressCallback {
  public:
    explicit FailingProgress(Remembering const& given) : manager(given) {}
    std::int32_t getAbort() override {
        if (manager.jobs.size() >= 3)
            throw Counted(++thrown);
        return 0;
    }
    void info(int, int, char const* format, ...) override {
        if (std::string_view(format) == "Releasing thread resources.\n")
            keptAtEnd = Counted::living;
    }
    int keptAtEnd = -1;
    int thrown = 0;

  private:
    Remembering const& manager;
};

template <class Scene> void expectOneFailureKept(Scene&& scene) {
    RecordingHost::instance().begin(scene.tree.threadLock);
    RecordingHost::instance().processors = 8;
    Remembering manager;
    FailingProgress progress(manager);
    try {
        buildTree(scene, &progress, &manager);
        ADD_FAILURE();
    } catch (Counted const& failure) {
        EXPECT_EQ(failure.number, 1);
    }
    EXPECT_GE(progress.thrown, 2); // several jobs failed
    EXPECT_EQ(progress.keptAtEnd, 1);
    EXPECT_EQ(scene.tree.root, nullptr);
    EXPECT_EQ(scene.tree.failure, nullptr);
    buildTree(scene, nullptr, &manager);
    expectSound(scene.tree);
}

TEST(Jobs, KeepTheFirstOfTheirFailuresAlone) {
    expectOneFailureKept(StillScene(apart(20000)));
    expectOneFailureKept(MovingScene(apartAndStanding(20000)));
    EXPECT_EQ(Counted::living, 0);
}

} // namespace
} // namespace kelpatest
