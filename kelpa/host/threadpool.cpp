// Runs a build's jobs in their order on threads that wait for them.
#include "kelpa/host/threadpool.h"

#include "kelpa/foundation/platform.h"
#include "kelpa/host/pooljobs.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

namespace Kelpa {

namespace {

struct Job {
    ThreadProcedure* procedure;
    void* parameter;
    std::uint64_t number; ///< in the order of queueing
};

/// How many waits of a worker, one inside the other, it spends on jobs that may wait in their turn.
/// Each takes a stretch of the stack.
constexpr int mostNestedWaits = 8;

} // namespace

class ThreadPool::Queue {
  public:
    explicit Queue(int threads) {
        try {
            workers.reserve(static_cast<std::size_t>(threads));
            for (int i = 0; i < threads; ++i)
                workers.emplace_back([this] { work(); });
        } catch (std::system_error const&) {
            // The system grants no more threads.
        } catch (...) {
            join();
            throw;
        }
    }
    Queue(Queue const&) = delete;
    Queue& operator=(Queue const&) = delete;
    ~Queue() { join(); }

    int size() const { return static_cast<int>(workers.size()); }

    void push(ThreadProcedure* procedure, void* parameter) {
        bool const waits = dynamic_cast<UnwaitingProcedure*>(procedure) == nullptr;
        {
            std::lock_guard const hold(mutex);
            (waits ? waitingJobs : unwaitingJobs).push_back({procedure, parameter, numPushed++});
        }
        jobCame.notify_one();
    }

    /// Runs the oldest queued job that waits for nothing, or else the oldest of all, unless the
    /// thread is in too many waits; false when there is no such job.
    bool runOneWhileWaiting() {
        thread_local int nestedWaits = 0;
        Job job;
        {
            std::lock_guard const hold(mutex);
            if (!unwaitingJobs.empty())
                job = takeFrom(unwaitingJobs);
            else if (!waitingJobs.empty() && nestedWaits < mostNestedWaits)
                job = takeFrom(waitingJobs);
            else
                return false;
        }
        ++nestedWaits;
        job.procedure->proc(job.parameter);
        --nestedWaits;
        return true;
    }

  private:
    static Job takeFrom(std::deque<Job>& jobs) {
        Job const job = jobs.front();
        jobs.pop_front();
        return job;
    }
    bool isEmpty() const { return waitingJobs.empty() && unwaitingJobs.empty(); }
    Job takeOldest() {
        bool const isUnwaiting =
            waitingJobs.empty() ||
            (!unwaitingJobs.empty() && unwaitingJobs.front().number < waitingJobs.front().number);
        return takeFrom(isUnwaiting ? unwaitingJobs : waitingJobs);
    }

    void work();

    void join() {
        {
            std::lock_guard const hold(mutex);
            isClosing = true;
        }
        jobCame.notify_all();
        for (std::thread& worker : workers)
            worker.join();
    }

    std::mutex mutex;
    std::condition_variable jobCame;
    // All under `mutex`.
    std::deque<Job> waitingJobs;   ///< may wait for others
    std::deque<Job> unwaitingJobs; ///< do not
    std::uint64_t numPushed = 0;
    bool isClosing = false;

    std::vector<std::thread> workers;
};

namespace {

// The queue that the current thread works for, and how to run a job of it.
thread_local bool (*runOneOfThisThread)(void*) = nullptr;
thread_local void* queueOfThisThread = nullptr;

} // namespace

void ThreadPool::Queue::work() {
    queueOfThisThread = this;
    runOneOfThisThread = [](void* pool) { return static_cast<Queue*>(pool)->runOneWhileWaiting(); };
    for (;;) {
        Job job;
        {
            std::unique_lock hold(mutex);
            jobCame.wait(hold, [this] { return isClosing || !isEmpty(); });
            if (isEmpty())
                return;
            job = takeOldest();
        }
        job.procedure->proc(job.parameter);
    }
}

ThreadPool::ThreadPool(int threads)
    : queue(std::make_unique<Queue>(threads > 0 ? threads : std::max(getNumProcessors(), 1))) {
}

ThreadPool::~ThreadPool() = default;

void ThreadPool::runThread(ThreadProcedure* procedure, void* parameter) {
    if (queue->size() == 0)
        procedure->proc(parameter);
    else
        queue->push(procedure, parameter);
}

int ThreadPool::size() const {
    return queue->size();
}

bool isPoolWorker() {
    return queueOfThisThread != nullptr;
}

bool runQueuedJobOfThisWorker() {
    return isPoolWorker() && runOneOfThisThread(queueOfThisThread);
}

} // namespace Kelpa
