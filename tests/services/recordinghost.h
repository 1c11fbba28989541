// The six services of a host that writes down how it is asked for them, and answers as told.
#pragma once

#include "kelpa/foundation/lock.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace kelpatest {

/// Every call of a service since the last `begin`, in order, as text; and what the services answer.
/// One at a time: the library calls free functions.
class RecordingHost {
  public:
    static RecordingHost& instance();

    /// Forgets all calls and goes back to the usual answers. `treeLock` is looked at when an event
    /// is pulsed or closed.
    void begin(Kelpa::FastCriticalSection& treeLock);

    std::vector<std::string> calls() const;
    int countOf(std::string const& call) const;
    /// Blocks until the library waits for an event.
    void awaitWaiter();

    int processors = 3;
    int earlyAnswers = 0;     ///< how many waits answer 0 at once, though there was no pulse
    bool losesPulses = false; ///< pulses that find nobody waiting have no effect
    bool hasNoEvents = false; ///< every handle is null

    // What the services do.
    void note(std::string call);
    void* createEvent(void* attributes, unsigned int manualReset, unsigned int isSignalled,
                      char const* name);
    void pulse(void* event);
    int wait(int count, void* const* events, unsigned int waitForAll, unsigned int milliseconds,
             int wakeMask);
    void close(void* event);

  private:
    /// " held" or " not held", as another thread finds the tree's lock.
    std::string lockState() const;

    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> noted;
    Kelpa::FastCriticalSection* lock = nullptr;
    int waiting = 0;
    std::uint64_t pulses = 0;
    bool isKept = false;
};

} // namespace kelpatest
