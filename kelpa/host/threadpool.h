// A thread manager for hosts that have none.
#pragma once

#include "kelpa/foundation/hosttypes.h"

#include <memory>

namespace Kelpa {

/// Worker threads that run the library's build jobs in the order in which they come.
///
/// `runThread` may be called from any thread, the pool's own workers included. The destructor runs
/// what is queued, then joins. A worker that waits on an event of the host services runs queued
/// jobs meanwhile, so a tree may be built from inside a job even of a pool with a single worker:
/// first those that wait for nothing (`UnwaitingProcedure`, which the jobs of builds are); others
/// only while it is in no more than a few waits, one inside the other, so that its stack suffices
/// however many are queued.
class ThreadPool final : public ThreadManager {
  public:
    /// Starts `threads` workers, or as many as there are processors if that is 0 or less. If the
    /// system grants fewer, the pool works with those; with none at all, `runThread` runs each job
    /// on the thread that calls it.
    explicit ThreadPool(int threads = 0);
    ThreadPool(ThreadPool const&) = delete;
    ThreadPool& operator=(ThreadPool const&) = delete;
    /// Runs what is queued, then joins the workers.
    ~ThreadPool();

    /// Queues a job. Throws `std::bad_alloc` when the queue cannot grow; the job is then not
    /// queued.
    void runThread(ThreadProcedure* procedure, void* parameter) override;

    /// Workers that the system granted.
    int size() const;

  private:
    class Queue;
    std::unique_ptr<Queue> queue;
};

} // namespace Kelpa
