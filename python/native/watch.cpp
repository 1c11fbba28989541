// Lets Python look for signals and hear of progress while native code works.
#include "python/native/watch.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <exception>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace py = pybind11;

namespace kelpapython {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds interval{50}; // short for a person, long for a processor

/// Keeps the first failure of several threads; from then on all are to stop.
class FirstFailure {
  public:
    void keep(std::exception_ptr thrown) {
        std::lock_guard const hold(mutex);
        if (failure == nullptr)
            failure = std::move(thrown);
        stopped.store(true, std::memory_order_relaxed);
    }
    bool isStopped() const { return stopped.load(std::memory_order_relaxed); }
    /// When all threads have ended, with the interpreter's lock.
    void rethrow() {
        if (failure != nullptr)
            std::rethrow_exception(std::exchange(failure, nullptr));
    }

  private:
    std::mutex mutex;
    std::exception_ptr failure;
    std::atomic<bool> stopped = false;
};

/// Looks for signals and calls `progress`; without the lock on entry and on return. What Python
/// raises is kept in `failure`.
template <class Fraction>
void askPython(py::object const& progress, Fraction const& fraction, std::string const& message,
               FirstFailure& failure) {
    py::gil_scoped_acquire const lock;
    try {
        if (PyErr_CheckSignals() != 0)
            throw py::error_already_set();
        if (!progress.is_none())
            progress(fraction, message);
    } catch (...) {
        failure.keep(std::current_exception());
    }
}

/// Says when the interpreter is to be asked again.
class Pace {
  public:
    bool isTime() const { return Clock::now() >= next; }
    void restart() { next = Clock::now() + interval; } // after what may have taken long itself

  private:
    Clock::time_point next = Clock::now() + interval;
};

/// Passes a build's messages on to the thread that waits for it, and the wish to stop back.
class BuildMessages final : public Kelpa::ProgressCallback {
  public:
    explicit BuildMessages(FirstFailure const& ofWaiting) : failure(ofWaiting) {}

    std::int32_t getAbort() override { return failure.isStopped() ? 1 : 0; }

    void info(int, int level, char const* format, ...) override
        __attribute__((format(printf, 4, 5))) {
        if (level < Kelpa::progressLevel) // statistics
            return;
        char line[512];
        va_list values;
        va_start(values, format);
        std::vsnprintf(line, sizeof line, format, values);
        va_end(values);
        std::string text(line);
        while (!text.empty() && (text.back() == '\n' || text.back() == '.'))
            text.pop_back();
        std::lock_guard const hold(mutex);
        lines.push_back(std::move(text));
        changed.notify_all();
    }

    void end() {
        std::lock_guard const hold(mutex);
        hasEnded = true;
        changed.notify_all();
    }

    /// Waits for lines or the end, at most an interval; moves the lines out. False: it has ended.
    bool wait(std::vector<std::string>& news) {
        std::unique_lock hold(mutex);
        changed.wait_for(hold, interval, [this] { return hasEnded || !lines.empty(); });
        news = std::exchange(lines, {});
        return !hasEnded;
    }

  private:
    FirstFailure const& failure;
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> lines; // under `mutex`
    bool hasEnded = false;          // under `mutex`
};

} // namespace

void runPieces(std::size_t count, int threads, py::object const& progress, char const* message,
               std::function<void(std::size_t, GoOn const&)> const& piece) {
    FirstFailure failure; // of Python; `doPieces` throws those of pieces itself
    std::atomic<std::size_t> done = 0;
    Pace pace;
    GoOn const look = [&] {
        if (pace.isTime()) {
            auto const part = static_cast<double>(done) / static_cast<double>(count);
            askPython(progress, part, message, failure);
            pace.restart();
        }
        return !failure.isStopped();
    };
    auto const countedPiece = [&](std::size_t i, GoOn const& goOn) {
        piece(i, goOn);
        ++done;
    };

    {
        py::gil_scoped_release const unlocked;
        bool const isDone = Kelpa::doPieces(count, threads, countedPiece, look);
        if (isDone && count > 0)
            askPython(progress, 1.0, message, failure);
    }
    failure.rethrow();
}

void runWatched(py::object const& progress, char const* message,
                std::function<void(pipeline::PhaseProgress const&)> const& work) {
    FirstFailure failure;
    {
        py::gil_scoped_release const unlocked;
        auto const caller = std::this_thread::get_id();
        Pace pace;
        auto const look = [&](double fraction, std::uint64_t) {
            if (std::this_thread::get_id() == caller && pace.isTime()) {
                askPython(progress, fraction, message, failure);
                pace.restart();
            }
            if (failure.isStopped())
                throw pipeline::Interrupted();
        };
        try {
            work(look);
        } catch (...) {
            failure.keep(std::current_exception());
        }
    }
    failure.rethrow();
}

void runBuild(py::object const& progress,
              std::function<void(Kelpa::ProgressCallback&)> const& build) {
    FirstFailure failure;
    {
        py::gil_scoped_release const unlocked;
        BuildMessages messages(failure);
        std::jthread const builder([&] {
            try {
                build(messages);
            } catch (...) {
                failure.keep(std::current_exception());
            }
            messages.end();
        });
        std::string latest = "Building";
        std::vector<std::string> news;
        for (bool isBuilding = true; isBuilding;) {
            isBuilding = messages.wait(news);
            if (news.empty())
                news.push_back(latest);
            for (std::string const& line : news)
                if (!failure.isStopped())
                    askPython(progress, py::none(), line, failure);
            latest = news.back();
        }
    }
    failure.rethrow();
}

} // namespace kelpapython
