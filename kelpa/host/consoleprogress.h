// Progress on the standard error, and Ctrl-C heard in time.
#pragma once

#include "kelpa/foundation/hosttypes.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace Kelpa {

/// 140097 as "140,097".
std::string withCommas(std::uint64_t number);

/// Answers Ctrl-C (SIGINT), Ctrl-\ (SIGQUIT), SIGTERM, a terminal that is closed (SIGHUP) and a
/// soft limit of processor time (SIGXCPU), while one exists, by setting a flag; a second such
/// signal within the same scope ends the process as it would have without. A signal that the
/// process was started to ignore, as nohup does, stays ignored. One at a time.
class InterruptScope {
  public:
    /// Takes the signals over.
    InterruptScope();
    InterruptScope(InterruptScope const&) = delete;
    InterruptScope& operator=(InterruptScope const&) = delete;
    /// Gives the signals back to whom they belonged.
    ~InterruptScope();

    /// Whether a signal came since the first scope began; one relaxed load.
    static bool interrupted();
};

/// Reports builds to stderr, and ends them on request or on Ctrl-C.
class ConsoleProgress final : public ProgressCallback {
  public:
    /// How much of what builds tell is shown: nothing, statistics, or all.
    enum class Verbosity { quiet, statistics, everything };

    /// Shows as much as `wanted` says.
    explicit ConsoleProgress(Verbosity wanted = Verbosity::quiet) : verbosity(wanted) {}

    /// 1 once a stop was requested or a signal came, else 0.
    std::int32_t getAbort() override;
    /// Writes the line to stderr if it is wanted.
    void info(int kind, int level, char const* format, ...) override
        __attribute__((format(printf, 4, 5)));

    /// Lets the build end early; from any thread.
    void requestStop() { isStopped.store(true, std::memory_order_relaxed); }

  private:
    Verbosity verbosity;
    std::atomic<bool> isStopped = false;
};

/// A time for people: "7.5 s", "12 min", "3 h 20 min". Negative ones are 0.
std::string durationText(double seconds);

/// Shows on stderr how far a phase has come: on a terminal in one line that is rewritten, otherwise
/// in a line every tenth. Phases of less than half a second show nothing. On a narrow terminal less
/// is shown, so that the line never wraps.
///
/// A ticker of its own keeps the display alive while the phase's threads are busy or waiting.
class ProgressLine {
  public:
    /// `automatic` is `rewritten` on a terminal and `plain` elsewhere.
    enum class Mode { automatic, rewritten, plain, none };

    /// What else the line shows, asked each time on a thread of its own; empty for nothing.
    using Remark = std::function<std::string()>;

    /// Begins a phase; without a thread to be had there is no display.
    ProgressLine(std::string phaseName, Mode mode, Remark remark = {});
    ProgressLine(ProgressLine const&) = delete;
    ProgressLine& operator=(ProgressLine const&) = delete;
    /// Erases a rewritten line.
    ~ProgressLine();

    /// The part that is done, 0 to 1, and a note such as "140,097 particles"; cheap, from any
    /// thread.
    void update(double fraction, std::uint64_t count = 0);

  private:
    void tick();
    void show(double seconds);
    std::string lineFor(double seconds, std::size_t columns) const;

    std::string const name;
    Mode const mode;
    Remark const remark;
    std::chrono::steady_clock::time_point const begin = std::chrono::steady_clock::now();
    std::atomic<double> fractionDone = -1.0; ///< below 0: not known
    std::atomic<std::uint64_t> countDone = 0;
    std::mutex mutex;
    std::condition_variable ended;
    bool hasEnded = false; // under `mutex`
    bool hasShown = false; // ticker only, then destructor
    double nextSign = 0.0; // ticker only
    int tenthsShown = 0;   // ticker only
    std::thread ticker;
};

} // namespace Kelpa
