#pragma once
// Internal: the protocol by which a build hands subtrees to other threads and learns of their end.

#include "kelpa/foundation/exceptionmsg.h"
#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/lock.h"
#include "kelpa/foundation/platform.h"
#include "kelpa/spheretree/buildmemory.h"
#include "kelpa/spheretree/buildprogress.h"
#include "kelpa/spheretree/sharedcounters.h"

#include <concepts>
#include <cstdint>
#include <exception>
#include <new>
#include <type_traits>

namespace Kelpa {

/// What the protocol touches of a tree.
template <class Tree>
concept ThreadedBuild = requires(Tree& tree) {
    { tree.threadLock } -> std::same_as<FastCriticalSection&>;
    { tree.numRunning } -> std::same_as<std::int32_t&>;
    { tree.numThreads } -> std::same_as<std::int32_t&>;
    { tree.threads[0].busy } -> std::same_as<std::int32_t&>;
    { tree.threads[0].failure } -> std::same_as<std::exception_ptr&>;
    { tree.threadManager } -> std::same_as<ThreadManager*&>;
    { tree.doneEvent } -> std::same_as<void*&>;
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

/// Ends a job. From then on the thread that ran it touches nothing of the job or of the tree: the
/// building thread may destroy both as soon as it holds the lock.
template <ThreadedBuild Tree, class Job> void finishJob(Tree& tree, Job& job) {
    LockScope const scope(tree.threadLock);
    addShared(tree.numRunning, -1);
    job.busy = 0;
    if (readShared(tree.numRunning) == 0)
        uniPulseEvent(tree.doneEvent);
}

/// The done event of a threaded build, and what its threads hold of it.
template <ThreadedBuild Tree> class JobResources {
  public:
    JobResources(Tree& owner, unsigned int manualReset)
        : tree(owner), heldForRoot(static_cast<std::int64_t>(owner.threads[0].data.getMemUsage())) {
        if (hasDoneEvent(tree))
            tree.doneEvent = uniCreateEvent(nullptr, manualReset, 0, nullptr);
    }
    JobResources(JobResources const&) = delete;
    JobResources& operator=(JobResources const&) = delete;
    // Under the lock, so that the worker that ended last has let go of it.
    ~JobResources() {
        LockScope const scope(tree.threadLock);
        uniCloseHandle(tree.doneEvent);
        tree.doneEvent = nullptr;
        for (std::int32_t i = 0; i < tree.numThreads; ++i) {
            tree.threads[i].data.freeData();
            tree.threads[i].tree = nullptr;
            tree.threads[i].progress = nullptr;
        }
    }

  private:
        std::uint64_t const freed = close();
        // The records that jobs were given on the way had not been counted.
        addBuildBytes(tree, -heldForRoot);
        notePeak(tree, freed);
    }

  private:
    /// Returns the bytes of the threads' records. Under the lock, so that the worker that ended
    /// last has let go of it.
    std::uint64_t close() {
    Tree& tree;
};

/// Blocks at the end of its scope, exceptions included, until all jobs have ended.
template <ThreadedBuild Tree> class JobsInFlight {
  public:
            bytes += tree.threads[i].data.getMemUsage();
    explicit JobsInFlight(Tree& owner) : tree(owner) {}
    JobsInFlight(JobsInFlight const&) = delete;
    JobsInFlight& operator=(JobsInFlight const&) = delete;
    ~JobsInFlight() {
        constexpr unsigned int slice = 100; // milliseconds
        constexpr int anyInput = 0x4FF;
        // A pulse may fall between two waits, so the count is read again after each.
        while (uniMsgWaitForMultipleObjects(1, &tree.doneEvent, 0, slice, anyInput) != 0 &&
    std::int64_t const heldForRoot;
               readShared(tree.numRunning) > 0)
            continue;
    }

  private:
    Tree& tree;
};

/// Throws the first failure that a job of the build kept. Only after all jobs have ended.
template <ThreadedBuild Tree> void rethrowFirstFailure(Tree& tree) {
    for (std::int32_t i = 0; i < tree.numThreads; ++i)
        if (tree.threads[i].failure != nullptr)
            std::rethrow_exception(tree.threads[i].failure);
}

/// What a build thread's `proc` does: its subtree, then its end. No exception passes; the first
/// stays with the thread.
template <class Job> void runSubtreeJob(Job& job) {
    if (job.tree == nullptr)
        return;
    try {
        job.tree->buildNode(job.node, job.box, job.data, job.data.getCount(), job.depth,
                            job.progress, &job.data, job.level);
    } catch (...) {
        if (job.failure == nullptr)
            job.failure = std::current_exception();
    }
    job.data.clear();
    finishJob(*job.tree, job);
}

template <class Tree> void releaseThreads(Tree& tree) {
    delete[] tree.threads;
    tree.threads = nullptr;
}

/// Makes `count` idle build threads for a build that reports to `progress`, which may be null.
template <ThreadedBuild Tree>
void createThreads(Tree& tree, std::int32_t count, ProgressCallback* progress,
                   ProgressCallback& report) {
    using Thread = std::remove_pointer_t<decltype(tree.threads)>;
    tree.numThreads = count;
    report.info(0, progressLevel, "Creating and initializing %i thread(s).\n", count);
    tree.threads = new (std::nothrow) Thread[static_cast<std::size_t>(count)];
    if (tree.threads == nullptr)
        throwOutOfMemory();
    for (std::int32_t i = 0; i < count; ++i) {
        tree.threads[i].tree = &tree;
        tree.threads[i].progress = progress;
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
/// their end and throws the first failure.
template <ThreadedBuild Tree, class Region>
void runJobs(Tree& tree, Region const& region, unsigned int manualReset, ProgressCallback& report) {
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
            report.info(0, progressLevel, "Waiting for thread completion.\n");
/// Counts the root job's records as held, once they are made. The end of the jobs gives them back.
template <class Tree, class Records> void holdRecords(Tree& tree, Records const& records) {
    addBuildBytes(tree, static_cast<std::int64_t>(records.getMemUsage()));
}

        }
        report.info(0, progressLevel, "Releasing thread resources.\n");
    }
    rethrowFirstFailure(tree);
}

} // namespace Kelpa
