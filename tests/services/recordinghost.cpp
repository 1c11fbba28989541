// The services themselves: this program links none of ours.

#include "tests/services/recordinghost.h"

#include "kelpa/foundation/platform.h"

#include <algorithm>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <thread>
#include <utility>

namespace kelpatest {

RecordingHost& RecordingHost::instance() {
    static RecordingHost host;
    return host;
}

void RecordingHost::begin(Kelpa::FastCriticalSection& treeLock) {
    std::lock_guard const hold(mutex);
    noted.clear();
    lock = &treeLock;
    processors = 3;
    earlyAnswers = 0;
    losesPulses = hasNoEvents = isKept = false;
}

std::vector<std::string> RecordingHost::calls() const {
    std::lock_guard const hold(mutex);
    return noted;
}

int RecordingHost::countOf(std::string const& call) const {
    std::lock_guard const hold(mutex);
    return static_cast<int>(std::count(noted.begin(), noted.end(), call));
}

void RecordingHost::awaitWaiter() {
    std::unique_lock hold(mutex);
    changed.wait(hold, [this] { return waiting > 0; });
}

void RecordingHost::note(std::string call) {
    std::lock_guard const hold(mutex);
    noted.push_back(std::move(call));
}

std::string RecordingHost::lockState() const {
    bool isFree = false;
    std::thread([this, &isFree] {
        isFree = pthread_mutex_trylock(&lock->mutex) == 0;
        if (isFree)
            pthread_mutex_unlock(&lock->mutex);
    }).join();
    return isFree ? " not held" : " held";
}

void* RecordingHost::createEvent(void* attributes, unsigned int manualReset,
                                 unsigned int isSignalled, char const* name) {
    char text[80];
    std::snprintf(text, sizeof text, "create %s %u %u %s", attributes == nullptr ? "null" : "?",
                  manualReset, isSignalled, name == nullptr ? "null" : name);
    note(text);
    return hasNoEvents ? nullptr : this;
}

void RecordingHost::pulse(void* event) {
    note("pulse" + std::string(event == nullptr ? " null" : "") + lockState());
    std::lock_guard const hold(mutex);
    isKept = waiting == 0 && !losesPulses;
    ++pulses;
    changed.notify_all();
}

int RecordingHost::wait(int count, void* const* events, unsigned int waitForAll,
                        unsigned int milliseconds, int wakeMask) {
    char text[80];
    std::snprintf(text, sizeof text, "wait %d%s %u %u %d", count,
                  events[0] == nullptr ? " null" : "", waitForAll, milliseconds, wakeMask);
    note(text);
    std::unique_lock hold(mutex);
    if (earlyAnswers > 0 || std::exchange(isKept, false)) {
        earlyAnswers = std::max(earlyAnswers - 1, 0);
        return 0;
    }
    ++waiting;
    changed.notify_all();
    // Sleeps less than it was asked to: tests wait for nothing but the build.
    bool const isPulsed = changed.wait_for(hold, std::chrono::milliseconds{losesPulses ? 1 : 5000},
                                           [this, seen = pulses] { return pulses != seen; });
    --waiting;
    return isPulsed ? 0 : 258;
}

void RecordingHost::close(void* event) {
    note("close" + std::string(event == nullptr ? " null" : "") + lockState());
}

} // namespace kelpatest

namespace Kelpa {

using kelpatest::RecordingHost;

void debug(char const* format, ...) {
    char text[1024];
    va_list values;
    va_start(values, format);
    std::vsnprintf(text, sizeof text, format, values);
    va_end(values);
    RecordingHost::instance().note(std::string("debug ") + text);
}
void* uniCreateEvent(void* attributes, unsigned int manualReset, unsigned int isSignalled,
                     char const* name) {
    return RecordingHost::instance().createEvent(attributes, manualReset, isSignalled, name);
}
void uniPulseEvent(void* event) {
    RecordingHost::instance().pulse(event);
}
int uniMsgWaitForMultipleObjects(int count, void* const* events, unsigned int waitForAll,
                                 unsigned int milliseconds, int wakeMask) {
    return RecordingHost::instance().wait(count, events, waitForAll, milliseconds, wakeMask);
}
void uniCloseHandle(void* event) {
    RecordingHost::instance().close(event);
}
int getNumProcessors() {
    RecordingHost::instance().note("processors");
    return RecordingHost::instance().processors;
}

} // namespace Kelpa
