// The six services that the library asks of its host, on POSIX and the standard library.

#include "kelpa/foundation/platform.h"
#include "kelpa/host/pooljobs.h"

#include <sched.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <new>
#include <thread>

namespace Kelpa {

namespace {

/// An event whose pulse wakes all who wait, in either reset mode. A pulse that finds nobody waiting
/// is kept for the next wait, so that none is lost between two.
class Event {
  public:
    void pulse() {
        std::lock_guard const hold(mutex);
        if (numWaiting == 0)
            isKept = true;
        numWaiting = 0; // all of these wake, however late they notice
        ++pulses;
        came.notify_all();
    }

    /// True when a pulse came within the time, or was kept.
    bool waitFor(std::chrono::milliseconds time) {
        std::unique_lock hold(mutex);
        if (isKept) {
            isKept = false;
            return true;
        }
        ++numWaiting;
        bool const wasPulsed =
            came.wait_for(hold, time, [this, seen = pulses] { return pulses != seen; });
        if (!wasPulsed)
            --numWaiting;
        return wasPulsed;
    }

  private:
    std::mutex mutex;
    std::condition_variable came;
    std::uint64_t pulses = 0;
    int numWaiting = 0; // since the last pulse
    bool isKept = false;
};

// A worker looks for jobs to help with in between; others just wait.
bool waitHelping(Event& event, std::chrono::milliseconds time) {
    using Clock = std::chrono::steady_clock;
    constexpr std::chrono::milliseconds look{1};
    auto const end = Clock::now() + time;
    do {
        if (event.waitFor(std::chrono::milliseconds{0}))
            return true;
        if (!runQueuedJobOfThisWorker() && event.waitFor(std::min(look, time)))
            return true;
    } while (Clock::now() < end);
    return false;
}

bool waitOne(void* handle, std::chrono::milliseconds time) {
    if (handle == nullptr) {
        std::this_thread::sleep_for(time);
        return false;
    }
    auto& event = *static_cast<Event*>(handle);
    return isPoolWorker() ? waitHelping(event, time) : event.waitFor(time);
}

} // namespace

void debug(char const* format, ...) {
    char line[1024];
    va_list values;
    va_start(values, format);
    std::vsnprintf(line, sizeof line, format, values);
    va_end(values);
    std::fputs(line, stderr);
}

void* uniCreateEvent(void*, unsigned int, unsigned int initiallySignalled, char const*) {
    auto* const event = new (std::nothrow) Event;
    if (event != nullptr && initiallySignalled != 0)
        event->pulse();
    return event;
}

void uniPulseEvent(void* event) {
    if (event != nullptr)
        static_cast<Event*>(event)->pulse();
}

// Several events are waited for in turn, in short slices; the library waits for one.
int uniMsgWaitForMultipleObjects(int count, void* const* events, unsigned int waitForAll,
                                 unsigned int milliseconds, int) {
    std::chrono::milliseconds const time{milliseconds};
    if (count == 1)
        return waitOne(events[0], time) ? 0 : 1;
    int pulsed = 0;
    int const wanted = waitForAll != 0 ? count : 1;
    for (int i = 0; i < count && pulsed < wanted; ++i)
        pulsed += waitOne(events[i], time / std::max(count, 1)) ? 1 : 0;
    return pulsed >= wanted ? 0 : 1;
}

void uniCloseHandle(void* event) {
    delete static_cast<Event*>(event);
}

int getNumProcessors() {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    if (sched_getaffinity(0, sizeof allowed, &allowed) == 0 && CPU_COUNT(&allowed) > 0)
        return CPU_COUNT(&allowed);
    return std::max(static_cast<int>(std::thread::hardware_concurrency()), 1);
}

} // namespace Kelpa
