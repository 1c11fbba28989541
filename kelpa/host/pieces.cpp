// Shares pieces of work among threads, and keeps the first failure.
#include "kelpa/host/pieces.h"

#include "kelpa/foundation/platform.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace Kelpa {

namespace {

using Piece = std::function<void(std::size_t piece, GoOn const& goOn)>;

/// What the threads share while they take one piece after the other.
class Work {
  public:
    Work(std::size_t pieceCount, Piece const& whatToDo) : count(pieceCount), piece(whatToDo) {}

    bool isStopped() const { return stopped.load(std::memory_order_relaxed); }
    void stop() { stopped.store(true, std::memory_order_relaxed); }

    /// Calls `part`; what it throws is kept, if it is the first, and ends the work.
    template <class Part> void guarded(Part const& part) {
        try {
            part();
        } catch (...) {
            std::lock_guard const hold(mutex);
            if (failure == nullptr)
                failure = std::current_exception();
            stop();
        }
    }

    void takePieces(GoOn const& goOn) {
        guarded([&] {
            for (std::size_t i = next++; i < count && goOn(); i = next++) {
                piece(i, goOn);
                // A piece that was told to end early is not done.
                done += isStopped() ? 0 : 1;
            }
        });
    }

    /// Takes pieces on a thread of their own.
    void help() {
        takePieces([this] { return !isStopped(); });
        std::lock_guard const hold(mutex);
        ++endedHelpers;
        changed.notify_one();
    }

    /// Starts helpers, as many as are granted.
    void startHelpers(std::size_t wanted, std::vector<std::jthread>& helpers) {
        try {
            helpers.reserve(wanted);
            while (helpers.size() < wanted)
                helpers.emplace_back([this] { help(); });
        } catch (std::exception const&) {
            // No thread, or no memory for one: those at work share the pieces.
        }
    }

    /// Waits until so many helpers have ended; `look` is called meanwhile.
    template <class Look> void awaitHelpers(std::size_t helpers, Look const& look) {
        constexpr std::chrono::milliseconds interval{20};
        std::unique_lock hold(mutex);
        while (!changed.wait_for(hold, interval, [&] { return endedHelpers == helpers; })) {
            hold.unlock();
            guarded(look);
            hold.lock();
        }
    }

    /// Once all threads have ended: throws what was thrown, or tells whether all pieces are done.
    bool finish() const {
        if (failure != nullptr)
            std::rethrow_exception(failure);
        return done == count;
    }

  private:
    std::size_t const count;
    Piece const& piece;
    std::atomic<std::size_t> next = 0;
    std::atomic<std::size_t> done = 0;
    std::atomic<bool> stopped = false;
    std::mutex mutex;
    std::condition_variable changed;
    std::size_t endedHelpers = 0; // under `mutex`
    std::exception_ptr failure;   // under `mutex`
};

} // namespace

bool doPieces(std::size_t count, int threads, Piece const& piece, GoOn const& watch) {
    Work work(count, piece);
    GoOn const look = [&] {
        if (watch && !work.isStopped() && !watch())
            work.stop();
        return !work.isStopped();
    };
    auto const wanted = static_cast<std::size_t>(threads > 0 ? threads : getNumProcessors());
    {
        std::vector<std::jthread> helpers;
        work.startHelpers(std::min(wanted, std::max<std::size_t>(count, 1)) - 1, helpers);
        work.takePieces(look);
        work.awaitHelpers(helpers.size(), look);
    }
    return work.finish();
}

} // namespace Kelpa
