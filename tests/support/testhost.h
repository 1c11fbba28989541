// Hosts for tests: progress callbacks that record and abort, thread managers of many manners.
#pragma once

#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/platform.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace kelpatest {

using namespace Kelpa;

/// Keeps every message as "kind level text" and answers yes from the n-th question on, or to the
/// n-th alone.
class RecordingProgress final : public ProgressCallback {
  public:
    static constexpr long never = std::numeric_limits<long>::max();

    explicit RecordingProgress(long abortAt = never, bool isOnce = false)
        : firstYes(abortAt), lastYes(isOnce ? abortAt : never) {}

    std::int32_t getAbort() override {
        long const poll = polls.fetch_add(1, std::memory_order_relaxed) + 1;
        return firstYes <= poll && poll <= lastYes ? 1 : 0;
    }
    void info(int kind, int level, char const* format, ...) override
        __attribute__((format(printf, 4, 5))) {
        char text[1024];
        va_list values;
        va_start(values, format);
        std::vsnprintf(text, sizeof text, format, values);
        va_end(values);
        lines.push_back(std::to_string(kind) + " " + std::to_string(level) + " " + text);
    }

    std::vector<std::string> lines;
    std::atomic<long> polls = 0;

  private:
    long const firstYes;
    long const lastYes;
};

/// Counts the jobs it is given.
class CountingManager : public ThreadManager {
  public:
    virtual ~CountingManager() = default;
    void runThread(ThreadProcedure* procedure, void* parameter) final {
        ++jobs;
        run(procedure, parameter);
    }

    std::atomic<int> jobs = 0;

  private:
    virtual void run(ThreadProcedure* procedure, void* parameter) = 0;
};

/// Runs every job before it returns, on the thread that asks.
class RunsAtOnce final : public CountingManager {
    void run(ThreadProcedure* procedure, void* parameter) override { procedure->proc(parameter); }
};

/// Starts a thread for every job.
class ThreadPerJob final : public CountingManager {
  public:
    ~ThreadPerJob() override {
        for (std::thread& thread : threads)
            if (thread.joinable())
                thread.join();
    }

  private:
    void run(ThreadProcedure* procedure, void* parameter) override {
        std::lock_guard const scope(mutex);
        threads.emplace_back(); // so that no running thread is lost when memory is
        threads.back() = std::thread([procedure, parameter] { procedure->proc(parameter); });
    }

    std::mutex mutex;
    std::deque<std::thread> threads;
};

/// Keeps jobs in a queue for a fixed number of workers, who take them in order or the newest first
/// and may let them wait for some microseconds.
class Workers final : public CountingManager {
  public:
    enum class Order { oldestFirst, newestFirst };

    explicit Workers(int count, Order taking = Order::oldestFirst, int pause = 0)
        : order(taking), delay(pause) {
        for (int i = 0; i < count; ++i)
            threads.emplace_back([this] { work(); });
    }
    ~Workers() override {
        {
            std::lock_guard const scope(mutex);
            closing = true;
        }
        wake.notify_all();
        for (std::thread& thread : threads)
            thread.join();
    }

  private:
    void run(ThreadProcedure* procedure, void*) override {
        {
            std::lock_guard const scope(mutex);
            queue.push_back(procedure);
        }
        wake.notify_one();
    }
    void work() {
        std::unique_lock scope(mutex);
        for (;;) {
            wake.wait(scope, [this] { return closing || !queue.empty(); });
            if (queue.empty())
                return;
            bool const isOldest = order == Order::oldestFirst;
            ThreadProcedure* const procedure = isOldest ? queue.front() : queue.back();
            isOldest ? queue.pop_front() : queue.pop_back();
            scope.unlock();
            std::this_thread::sleep_for(delay);
            procedure->proc(nullptr);
            scope.lock();
        }
    }

    Order const order;
    std::chrono::microseconds const delay;
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<ThreadProcedure*> queue;
    bool closing = false;
    std::vector<std::thread> threads;
};

/// Refuses the n-th job and every later one; the others get a thread each.
class RefusesFrom final : public CountingManager {
  public:
    explicit RefusesFrom(int firstRefused) : first(firstRefused) {}

  private:
    void run(ThreadProcedure* procedure, void* parameter) override {
        if (jobs >= first)
            throw std::runtime_error("no more threads");
        accepting.runThread(procedure, parameter);
    }

    int const first;
    ThreadPerJob accepting;
};

} // namespace kelpatest
