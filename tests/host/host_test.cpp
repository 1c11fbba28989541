// What hosts may take ready-made: threads, progress, particles.
#include "kelpa/host/consoleprogress.h"
#include "kelpa/host/particlesystem.h"
#include "kelpa/host/snapshots.h"
#include "kelpa/host/threadpool.h"
#include "kelpa/particleprimitives/particleprimitives.h"

#include "tests/support/clouds.h"

#include <gtest/gtest.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <functional>
#include <future>
#include <regex>
#include <stdexcept>
#include <string>

using namespace Kelpa;
using kelpatest::Random;

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

struct Work final : ThreadProcedure {
    explicit Work(std::function<void()> what) : work(std::move(what)) {}
    void proc(void*) override { work(); }
    std::function<void()> work;
};

void fillCloud(std::vector<Vector>& centers, std::vector<float>& radii, int count) {
    Random random(7);
    for (int i = 0; i < count; ++i) {
        centers.push_back(random.inCube(10.0F));
        radii.push_back(random.between(0.1F, 0.3F));
    }
}

/// Builds a tree over `count` spheres and returns how many it took.
int buildCloud(int count, ThreadManager* manager) {
    std::vector<Vector> centers;
    std::vector<float> radii;
    fillCloud(centers, radii, count);
    ParticleSystem system(centers, radii);
    StaticParticlePrimitive primitive(0, system.data(), nullptr, true);
    primitive.build(nullptr, manager, 60, 0.0F, 2.0F, 1);
    return primitive.tree->numSpheres;
}

/// What a scope writes to stderr.
template <class Scope> std::string stderrOf(Scope scope) {
    ::testing::internal::CaptureStderr();
    scope();
    return ::testing::internal::GetCapturedStderr();
}

TEST(ThreadPool, RunsWhatItsOwnWorkersStartAndWhatIsQueuedWhenItCloses) {
    for (int const threads : {1, 2, 5}) {
        SCOPED_TRACE(threads);
        std::atomic<int> leaves = 0;
        Work leaf([&leaves] { ++leaves; });
        Work slowLeaf([&leaves] {
            std::this_thread::sleep_for(milliseconds{1});
            ++leaves;
        });
        ThreadPool* workersPool = nullptr; // a job of a worker starts ten more
        Work branch([&] {
            for (int i = 0; i < 10; ++i)
                workersPool->runThread(&leaf, nullptr);
        });
        {
            ThreadPool pool(threads);
            EXPECT_EQ(pool.size(), threads);
            workersPool = &pool;
            for (int i = 0; i < 10; ++i)
                pool.runThread(&branch, nullptr);
            while (leaves < 100)
                std::this_thread::yield();
            for (int i = 0; i < 50; ++i)
                pool.runThread(&slowLeaf, nullptr);
        }
        EXPECT_EQ(leaves, 150);
    }
}

TEST(ThreadPool, LetsItsOnlyWorkerBuildATreeThatHandsWorkBackToIt) {
    std::promise<int> built;
    ThreadPool pool(1);
    Work build([&] { built.set_value(buildCloud(5000, &pool)); });
    pool.runThread(&build, nullptr);
    auto answer = built.get_future();
    if (answer.wait_for(std::chrono::seconds{60}) != std::future_status::ready) {
        std::fputs("the only worker waits for itself\n", stderr);
        std::abort(); // the pool could not be destroyed
    }
    EXPECT_EQ(answer.get(), 5000);
}

// Each job of thousands builds a tree; were they run one inside the other, stacks would end.
TEST(ThreadPool, RunsAnyNumberOfQueuedBuilds) {
    constexpr int jobs = 20000;
    std::vector<Vector> const centers(1);
    std::vector<float> const radii(1, 1.0F);
    ParticleSystem system(centers, radii);
    std::atomic<int> built = 0;
    ThreadPool* workersPool = nullptr;
    Work build([&] {
        StaticParticlePrimitive primitive(0, system.data(), nullptr, true);
        primitive.build(nullptr, workersPool, 60, 0.0F, 2.0F, 1);
        built += primitive.tree->numSpheres;
    });
    {
        ThreadPool pool(2);
        workersPool = &pool;
        for (int i = 0; i < jobs; ++i)
            pool.runThread(&build, nullptr);
    }
    EXPECT_EQ(built, jobs);
}

// A pulse lost between two looks would cost a time-out of 100 ms each time.
TEST(ThreadPool, BuildsAThousandSmallTreesWithoutATimeOutEach) {
    ThreadPool pool(2);
    auto const begin = steady_clock::now();
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(buildCloud(100, &pool), 100);
    EXPECT_LT(steady_clock::now() - begin, std::chrono::seconds{10});
}

TEST(Events, RememberOnePulseTimeOutAndWakeAllWhoWait) {
    auto const wait = [](void* event, unsigned int time) {
        return uniMsgWaitForMultipleObjects(1, &event, 0, time, 0) == 0;
    };
    void* const single = uniCreateEvent(nullptr, 0, 0, nullptr);
    uniPulseEvent(single);
    uniPulseEvent(single);
    EXPECT_TRUE(wait(single, 0)) << "a pulse before the wait counts";
    auto const begin = steady_clock::now();
    EXPECT_FALSE(wait(single, 30)) << "but once";
    EXPECT_GE(steady_clock::now() - begin, milliseconds{30});

    void* const all = uniCreateEvent(nullptr, 1, 0, nullptr);
    for (void* const event : {all, single}) { // in either reset mode
        std::vector<std::future<bool>> waiters;
        for (int i = 0; i < 3; ++i)
            waiters.push_back(std::async(std::launch::async, wait, event, 20000U));
        std::this_thread::sleep_for(milliseconds{200});
        auto const pulsed = steady_clock::now();
        uniPulseEvent(event);
        for (std::future<bool>& waiter : waiters)
            EXPECT_TRUE(waiter.get());
        EXPECT_LT(steady_clock::now() - pulsed, std::chrono::seconds{10});
        EXPECT_FALSE(wait(event, 0)) << "the waiters used it up";
        uniPulseEvent(event);
        EXPECT_TRUE(wait(event, 0)) << "a wait that timed out counts no more";
    }

    void* const signalled = uniCreateEvent(nullptr, 1, 1, nullptr);
    EXPECT_TRUE(wait(signalled, 0));
    void* const several[] = {single, all};
    EXPECT_NE(uniMsgWaitForMultipleObjects(2, several, 0, 20, 0), 0);
    uniPulseEvent(all);
    EXPECT_NE(uniMsgWaitForMultipleObjects(2, several, 1, 20, 0), 0) << "all: one is missing";
    uniPulseEvent(all);
    EXPECT_EQ(uniMsgWaitForMultipleObjects(2, several, 0, 20, 0), 0);
    for (void* const event : {single, all, signalled})
        uniCloseHandle(event);

    uniPulseEvent(nullptr);
    EXPECT_FALSE(wait(nullptr, 1));
    uniCloseHandle(nullptr);
}

TEST(InterruptScope, TurnsTheFirstSignalIntoAnAbortAndObeysTheSecond) {
    for (int const number : {SIGINT, SIGTERM}) {
        pid_t const child = fork();
        if (child == 0) {
            ConsoleProgress progress;
            InterruptScope const scope;
            if (InterruptScope::interrupted() || progress.getAbort() != 0)
                _exit(1);
            std::raise(number);
            if (!InterruptScope::interrupted() || progress.getAbort() == 0)
                _exit(2);
            std::raise(number);
            _exit(3);
        }
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == number) << status;
    }
    EXPECT_FALSE(InterruptScope::interrupted());
}

TEST(ConsoleProgress, PrintsWhatWasAskedForInWholeLines) {
    using Verbosity = ConsoleProgress::Verbosity;
    auto const said = [](Verbosity verbosity) {
        return stderrOf([verbosity] {
            ConsoleProgress progress(verbosity);
            progress.info(0, progressLevel, "step %d\n", 1);
            progress.info(0, statisticsLevel, "depth %d", 2);
        });
    };
    EXPECT_EQ(said(Verbosity::quiet), "");
    EXPECT_EQ(said(Verbosity::statistics), "depth 2\n");
    EXPECT_EQ(said(Verbosity::everything), "step 1\ndepth 2\n");
    std::string const cut = stderrOf([] {
        ConsoleProgress(Verbosity::everything).info(0, 0, "%s", std::string(5000, 'x').c_str());
    });
    EXPECT_EQ(cut, std::string(1022, 'x') + "\n");

    ConsoleProgress progress;
    EXPECT_EQ(progress.getAbort(), 0);
    progress.requestStop();
    EXPECT_NE(progress.getAbort(), 0);
}

TEST(ProgressLine, TellsEachTenthOnceAndNothingOfShortPhases) {
    std::string const brief = stderrOf([] {
        ProgressLine line("read", ProgressLine::Mode::plain);
        line.update(0.9, 5);
        std::this_thread::sleep_for(milliseconds{50});
    });
    EXPECT_EQ(brief, "");
    std::string const longer = stderrOf([] {
        ProgressLine line("build", ProgressLine::Mode::plain);
        ProgressLine silent("silent", ProgressLine::Mode::none);
        for (double const fraction : {0.25, 0.29, 0.52}) {
            line.update(fraction, 140097);
            silent.update(fraction);
            std::this_thread::sleep_for(milliseconds{800});
        }
    });
    EXPECT_EQ(std::count(longer.begin(), longer.end(), '\n'), 2) << longer;
    EXPECT_EQ(longer.find("build  ###---------  25 %  140,097 particles  "), 0U) << longer;
    EXPECT_NE(longer.find("\nbuild  ######------  52 %  140,097 particles  "), std::string::npos)
        << longer;
}

TEST(Snapshots, ArePutInOrderAndIntoTheShutter) {
    std::vector<Vector> const here(300), there(300, Vector{1, 2, 3});
    std::vector<float> const radii(300, 0.5F);
    ParticleSystem const earlier(here, radii, {}, 0, 24.0), later(there, radii, {}, 1, 26.0);
    auto const expectPair = [&](SnapshotPair const& pair, double time0, double time1) {
        EXPECT_EQ(pair.first.positions, earlier.positions.data());
        EXPECT_EQ(pair.second.positions, later.positions.data());
        EXPECT_EQ(pair.second.particleType, 1);
        EXPECT_EQ(pair.first.sampleTime, time0);
        EXPECT_EQ(pair.second.sampleTime, time1);
    };
    expectPair(snapshotsInShutter(earlier.snapshot(), later.snapshot()), 0.0, 1.0);
    expectPair(snapshotsInShutter(later.snapshot(), earlier.snapshot(), 24.0, 25.0), 0.0, 2.0);
    expectPair(snapshotsInShutter(later.snapshot(), earlier.snapshot(), 23.0, 27.0), 0.25, 0.75);
    SnapshotPair const still = snapshotsInShutter(later.snapshot(), later.snapshot(), 25.0, 30.0);
    EXPECT_EQ(still.second.positions, later.positions.data());
    EXPECT_EQ(still.second.sampleTime - still.first.sampleTime, 1.0);

    // What it is for: as they are, these snapshots give a tree of 8 million entries.
    SnapshotPair pair = snapshotsInShutter(later.snapshot(), earlier.snapshot());
    MovingParticlePrimitive primitive(0, &pair.first, &pair.second, true);
    primitive.build(nullptr, nullptr, 80, 0.0F, 1.0F, 1);
    EXPECT_EQ(primitive.tree->numOutsideShutter, 0);

    ParticleData nowhen = earlier.snapshot();
    nowhen.sampleTime = std::nan("");
    using Refusal = std::invalid_argument;
    EXPECT_THROW(snapshotsInShutter(nowhen, later.snapshot()), Refusal);
    EXPECT_THROW(snapshotsInShutter(earlier.snapshot(), later.snapshot(), 1.0, 1.0), Refusal);
    EXPECT_THROW(snapshotsInShutter(earlier.snapshot(), later.snapshot(), 0.0, INFINITY), Refusal);
    for (double const opens :
         {22.0, 26.0}) // ends where the snapshots begin, or begins at their end
        EXPECT_THROW(snapshotsInShutter(earlier.snapshot(), later.snapshot(), opens, opens + 2.0),
                     Refusal);
    EXPECT_THROW(snapshotsInShutter(later.snapshot(), later.snapshot(), 27.0, 28.0), Refusal);

    ParticleSystem away({}, {}, {}, 0, 24.0), inside({}, {}, {}, 0, 1.0);
    std::string const told = stderrOf([&] {
        away.data();
        away.data();
        inside.data();
        inside.snapshot();
    });
    EXPECT_EQ(told.find("[ParticleSystem] The sample time 24 lies outside the shutter"), 0U);
    EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 1) << "once";
}

/// What a line on a terminal of that many columns shows, without what erases it.
std::vector<std::string> shownOn(unsigned short columns, double fraction) {
    int terminal = -1;
    int screen = -1;
    winsize const size{24, columns, 0, 0};
    EXPECT_EQ(openpty(&terminal, &screen, nullptr, nullptr, &size), 0);
    int const before = dup(STDERR_FILENO);
    dup2(screen, STDERR_FILENO);
    {
        ProgressLine line("render", ProgressLine::Mode::automatic,
                          [] { return "frame 3 of 240, 12 min left"; });
        line.update(fraction, 1234567);
        std::this_thread::sleep_for(milliseconds{750});
    }
    dup2(before, STDERR_FILENO);
    char bytes[4096];
    auto const count = read(terminal, bytes, sizeof bytes);
    for (int const opened : {before, screen, terminal})
        close(opened);
    std::string const all(bytes, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    std::vector<std::string> lines;
    std::regex const line("\r([^\r\x1b]+)");
    for (std::sregex_iterator at(all.begin(), all.end(), line), end; at != end; ++at)
        lines.push_back((*at)[1]);
    EXPECT_FALSE(lines.empty()) << all;
    return lines;
}

TEST(ProgressLine, ShowsLessOnNarrowTerminalsAndNeverWraps) {
    for (unsigned short const columns : std::initializer_list<unsigned short>{60, 40, 20, 5}) {
        for (std::string const& line : shownOn(columns, 0.5)) {
            EXPECT_LT(line.size(), columns) << line;
            EXPECT_EQ(line.find("frame 3 of 240, 12 min left") != std::string::npos, columns >= 60);
            EXPECT_EQ(line.find("50 %") != std::string::npos, columns >= 20) << line;
            EXPECT_EQ(line.substr(0, 4), "rend");
        }
    }
    EXPECT_EQ(durationText(-1) + durationText(99.9) + durationText(100), "0.0 s99.9 s2 min");
    EXPECT_EQ(durationText(7140) + durationText(7199 * 60), "119 min119 h 59 min");
}

TEST(ParticleSystem, ShowsItsOwnArraysAndNullWhereItHasNone) {
    ParticleSystem system({{1, 2, 3}, {4, 5, 6}}, {0.5F}, {}, 1, 0.25);
    ParticleData const& view = *system.data();
    EXPECT_EQ(view.positions, system.positions.data());
    EXPECT_EQ(view.radii, system.radii.data());
    EXPECT_EQ(view.numParticles, 2);
    EXPECT_EQ(view.numRadii, 1);
    EXPECT_EQ(view.numColors, 0);
    EXPECT_EQ(view.particleType, 1);
    EXPECT_EQ(view.sampleTime, 0.25);
}

} // namespace
