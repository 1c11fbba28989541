// Internal: the protocol by which a build hands subtrees to other threads and learns of their end.
#pragma once

#include "kelpa/foundation/blockpool.h"
#include "kelpa/foundation/exceptionmsg.h"
#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/lock.h"
#include "kelpa/foundation/platform.h"
#include "kelpa/foundation/sharedcounters.h"
#include "kelpa/spheretree/buildmemory.h"
#include "kelpa/spheretree/buildprogress.h"

#include <cassert>
#include <concepts>
#include <cstdint>
#include <exception>
#include <new>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace Kelpa {

/// What the protocol touches of a tree.
template <class Tree>
concept ThreadedBuild = requires(Tree& tree) {
    { tree.threadLock } -> std::same_as<FastCriticalSection&>;
    { tree.numRunning } -> std::same_as<std::int32_t&>;
    { tree.numThreads } -> std::same_as<std::int32_t&>;
    { tree.threads[0].busy } -> std::same_as<std::int32_t&>;
    { tree.threads[0].endedOn } -> std::same_as<std::thread::id&>;
    { tree.threadManager } -> std::same_as<ThreadManager*&>;
    { tree.doneEvent } -> std::same_as<void*&>;
    { tree.failure } -> std::same_as<std::exception_ptr&>;
};

/// Claims the first idle build thread of the tree; null when there is none.
template <ThreadedBuild Tree> auto* claimIdleThread(Tree& tree) {
    for (std::int32_t i = 0; i < tree.numThreads; ++i) {
        LockScope const scope(tree.threadLock);
        if (tree.threads[i].busy == 0) {
            tree.threads[i].busy = 1;
            return tree.threads + i;
        }
    }
    return decltype(tree.threads){nullptr};
}

/// A build thread for a subtree that is worth handing over, if the build is threaded and not all
/// threads are known to be busy. The counts are hints; only the claim decides.
template <ThreadedBuild Tree> auto* claimThreadIfWorthwhile(Tree& tree) {
    bool const hopeful = tree.threads != nullptr && readShared(tree.numRunning) < tree.numThreads;
    return hopeful ? claimIdleThread(tree) : nullptr;
}

/// Counts a claimed thread's job as running and hands it to the thread manager.
///
/// The job is counted before it is handed over, and every job counts those it starts before it
/// uncounts itself: so a count of zero means that all work is done. Without a manager, or when it
/// refuses the job by an exception, the job runs here.
template <ThreadedBuild Tree> void startJob(Tree& tree, ThreadProcedure& job) {
    {
        LockScope const scope(tree.threadLock);
        addShared(tree.numRunning, 1);
    }
    bool isHandedOver = false;
    if (tree.threadManager != nullptr) {
        try {
            tree.threadManager->runThread(&job, nullptr);
            isHandedOver = true;
        } catch (...) {
            // Refused.
        }
    }
    if (!isHandedOver)
        job.proc(nullptr);
}

/// Starts a claimed thread, which has the records, on a subtree; without one the subtree waits.
template <class Thread, class Subtree>
void handOffOrPostpone(Thread* helper, Subtree const& subtree, std::vector<Subtree>& postponed) {
    if (helper == nullptr) {
        postponed.push_back(subtree);
        return;
    }
    helper->box = subtree.region;
    helper->node = subtree.node;
    helper->depth = subtree.depth;
    helper->level = subtree.level;
    helper->start();
}

/// Whether jobs run on other threads, so that their end is an event. Its handle may be null all the
/// same: that is what a host without memory returns.
template <ThreadedBuild Tree> bool hasDoneEvent(Tree const& tree) {
    return tree.threadManager != nullptr || tree.doneEvent != nullptr;
}

/// Ends a job. From then on the thread that ran it touches nothing of the job or of the tree: the
/// building thread may destroy both as soon as it holds the lock.
template <ThreadedBuild Tree, class Job> void finishJob(Tree& tree, Job& job) {
    LockScope const scope(tree.threadLock);
    assert(job.busy == 1 && readShared(tree.numRunning) > 0);
    addShared(tree.numRunning, -1);
    job.busy = 0;
    job.endedOn = std::this_thread::get_id();
    if (hasDoneEvent(tree) && readShared(tree.numRunning) == 0)
        uniPulseEvent(tree.doneEvent);
}

/// The done event of a threaded build, and what its threads hold of it.
template <ThreadedBuild Tree> class JobResources {
  public:
    JobResources(Tree& owner, unsigned int manualReset) : tree(owner) {
        if (hasDoneEvent(tree))
            tree.doneEvent = uniCreateEvent(nullptr, manualReset, 0, nullptr);
    }
    JobResources(JobResources const&) = delete;
    JobResources& operator=(JobResources const&) = delete;
    // Under the lock, so that the worker that ended last has let go of it.
    ~JobResources() {
        LockScope const scope(tree.threadLock);
        if (hasDoneEvent(tree))
            uniCloseHandle(tree.doneEvent);
        tree.doneEvent = nullptr;
        for (std::int32_t i = 0; i < tree.numThreads; ++i) {
            tree.threads[i].data.freeData();
            tree.threads[i].tree = nullptr;
            tree.threads[i].progress = nullptr;
        }
    }

  private:
    Tree& tree;
};

/// Blocks at the end of its scope, exceptions included, until all jobs have ended.
template <ThreadedBuild Tree> class JobsInFlight {
  public:
    explicit JobsInFlight(Tree& owner) : tree(owner) {}
    JobsInFlight(JobsInFlight const&) = delete;
    JobsInFlight& operator=(JobsInFlight const&) = delete;
    ~JobsInFlight() {
        if (haveAllEndedHere())
            return;
        constexpr unsigned int slice = 100; // milliseconds
        constexpr int anyInput = 0x4FF;
        // The count alone decides: a pulse may fall between two waits, and a host's wait may end
        // for reasons of its own.
        do
            uniMsgWaitForMultipleObjects(1, &tree.doneEvent, 0, slice, anyInput);
        while (readShared(tree.numRunning) > 0);
    }

  private:
    /// Whether the manager ran the root job on this very thread, or refused it, and nothing runs
    /// any more. A wait would last a time-out then, where pulses get lost that nobody waits for.
    bool haveAllEndedHere() const {
        LockScope const scope(tree.threadLock);
        return readShared(tree.numRunning) == 0 &&
               tree.threads[0].endedOn == std::this_thread::get_id();
    }

    Tree& tree;
};

/// Keeps what a job failed with if it is the build's first failure, and no more of them: where
/// memory has run out, exceptions live in a reserve of the language's that ends with the program.
template <ThreadedBuild Tree> void keepFirstFailure(Tree& tree, std::exception_ptr const& failure) {
    LockScope const scope(tree.threadLock);
    if (tree.failure == nullptr)
        tree.failure = failure;
}

/// Throws the first failure that a job of the build kept. Only after all jobs have ended.
template <ThreadedBuild Tree> void rethrowFirstFailure(Tree& tree) {
    if (tree.failure != nullptr)
        std::rethrow_exception(std::exchange(tree.failure, nullptr));
}

/// What a build thread's `proc` does: its subtree, then its end. No exception passes; the first
/// stays with the tree.
template <class Job> void runSubtreeJob(Job& job) {
    if (job.tree == nullptr)
        return;
    try {
        job.tree->buildNode(job.node, job.box, job.data, job.data.getCount(), job.depth,
                            job.progress, &job.data, job.level, job.stocks);
    } catch (...) {
        keepFirstFailure(*job.tree, std::current_exception());
    }
    job.data.clear();
    finishJob(*job.tree, job);
}

template <class Tree> void releaseThreads(Tree& tree) {
    delete[] tree.threads;
    tree.threads = nullptr;
}

/// Releases the build threads at the end of its scope, exceptions included: what they hold of the
/// build must not outlive it.
template <class Tree> class ThreadsScope {
  public:
    explicit ThreadsScope(Tree& owner) : tree(owner) {}
    ThreadsScope(ThreadsScope const&) = delete;
    ThreadsScope& operator=(ThreadsScope const&) = delete;
    ~ThreadsScope() { releaseThreads(tree); }

  private:
    Tree& tree;
};

/// What a thread takes the tree's nodes and leaf entries from. With `inPortions` they are taken
/// many at a time: for large trees, of which a portion is little, and several threads.
template <class Tree> typename Tree::Stocks makeStocks(Tree& tree, bool inPortions) {
    // Each a few kilobytes, and an even part of a block.
    constexpr std::int32_t nodes = 200;
    constexpr std::int32_t entries = 1000;
    using Stocks = typename Tree::Stocks;
    return {decltype(Stocks::nodes)(tree.nodes, inPortions ? nodes : 0),
            decltype(Stocks::entries)(tree.leafSpheres, inPortions ? entries : 0)};
}

/// Counts out of the tree what its threads have taken and not used.
template <class Tree> void giveStocksBack(Tree& tree) {
    for (std::int32_t i = 0; i < tree.numThreads; ++i) {
        tree.threads[i].stocks.nodes.giveBack();
        tree.threads[i].stocks.entries.giveBack();
    }
}

/// Makes `count` idle build threads for a build that reports to `progress`, which may be null, and
/// whose records come from `recordPool`.
template <ThreadedBuild Tree>
void createThreads(Tree& tree, std::int32_t count, ProgressCallback* progress,
                   ProgressCallback& report, BlockPool& recordPool) {
    using Thread = std::remove_pointer_t<decltype(tree.threads)>;
    tree.failure = nullptr;
    tree.numThreads = count;
    report.info(0, progressLevel, "Creating and initializing %i thread(s).\n", count);
    tree.threads = new (std::nothrow) Thread[static_cast<std::size_t>(count)];
    if (tree.threads == nullptr)
        throwOutOfMemory();
    for (std::int32_t i = 0; i < count; ++i) {
        tree.threads[i].tree = &tree;
        tree.threads[i].progress = progress;
        tree.threads[i].data.allocator.pool = &recordPool;
        tree.threads[i].stocks = makeStocks(tree, count > 1 && tree.numSpheres >= fewestRecycled);
    }
}

/// Claims the first thread for the root job; its records are the caller's to fill.
template <ThreadedBuild Tree> auto& claimRootRecords(Tree& tree, ProgressCallback& report) {
    auto* const first = claimIdleThread(tree);
    using Record = std::remove_pointer_t<decltype(first->data.nextElement())>;
    std::uint64_t const bytes = sizeof(Record) * static_cast<std::uint64_t>(tree.numSpheres);
    report.info(0, progressLevel,
                "Allocating memory for build data of %i spheres (%i bytes, %.1f MB).\n",
                tree.numSpheres, printableBytes(bytes),
                static_cast<double>(static_cast<float>(bytes) * 0x1p-20F));
    return first->data;
}

/// Runs the root job, over `region`, and all that come of it on the manager's threads; waits for
/// their end and throws the first failure. Without a manager all is done here, and nobody waits.
template <ThreadedBuild Tree, class Region>
void runJobs(Tree& tree, Region const& region, unsigned int manualReset, ProgressCallback& report) {
    bool const isWaiting = hasDoneEvent(tree);
    if (isWaiting)
        report.info(0, progressLevel, "Creating 'done' event.\n");
    {
        JobResources<Tree> const resources(tree, manualReset);
        report.info(0, progressLevel, "Starting first thread.\n");
        auto& first = tree.threads[0];
        first.box = region;
        first.node = tree.root;
        first.depth = 1;
        first.level = 1;
        {
            // Nothing, not even a host's exception, passes the end of this block before all jobs
            // have.
            JobsInFlight<Tree> const jobs(tree);
            first.start();
            if (isWaiting)
                report.info(0, progressLevel, "Waiting for thread completion.\n");
        }
        giveStocksBack(tree);
        report.info(0, progressLevel, "Releasing thread resources.\n");
    }
    rethrowFirstFailure(tree);
}

/// Calls `build`, and `abandon` where that throws: of a build that failed nothing is left. Memory
/// that the standard library could not get is told in the one way that hosts know.
template <class Build, class Abandon> void buildGuarded(Build build, Abandon abandon) {
    try {
        build();
    } catch (std::bad_alloc const&) {
        abandon();
        throwOutOfMemory();
    } catch (...) {
        abandon();
        throw;
    }
}

} // namespace Kelpa
