#include "kelpa/host/threadpool.h"

#include "kelpa/foundation/platform.h"
#include "kelpa/host/pooljobs.h"

#include <algorithm>
#include <condition_variable>
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
};

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

    void push(Job const& job) {
        {
            std::lock_guard const hold(mutex);
            jobs.push_back(job);
        }
        jobCame.notify_one();
    }

    /// Runs the oldest queued job; false when there is none.
    bool runOne() {
        Job job;
        {
            std::lock_guard const hold(mutex);
            if (jobs.empty())
                return false;
            job = takeOldest();
        }
        job.procedure->proc(job.parameter);
        return true;
    }

  private:
    Job takeOldest() {
        Job const job = jobs.front();
        jobs.pop_front();
        return job;
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
    std::deque<Job> jobs;   // under `mutex`
    bool isClosing = false; // under `mutex`
    std::vector<std::thread> workers;
};

namespace {

// The queue that the current thread works for, and how to run a job of it.
thread_local bool (*runOneOfThisThread)(void*) = nullptr;
thread_local void* queueOfThisThread = nullptr;

} // namespace

void ThreadPool::Queue::work() {
    queueOfThisThread = this;
    runOneOfThisThread = [](void* pool) { return static_cast<Queue*>(pool)->runOne(); };
    for (;;) {
        Job job;
        {
            std::unique_lock hold(mutex);
            jobCame.wait(hold, [this] { return isClosing || !jobs.empty(); });
            if (jobs.empty())
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
        queue->push({procedure, parameter});
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
