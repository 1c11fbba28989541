// What builds ask of the system: work for threads, events, the number of processors.
#pragma once

#include "kelpa/foundation/language.h"

namespace Kelpa {

/// A piece of work that the library hands to the host's `ThreadManager`.
///
/// Owned by whoever hands it over; never destroyed through this interface.
class ThreadProcedure {
  public:
    /// Does the work, once, on the thread that calls it. Throws nothing.
    virtual void proc(void* parameter) = 0;

    /// A name for debuggers and profilers; null when the procedure has none.
    virtual char const* getThreadName() { return nullptr; }

  protected:
    ~ThreadProcedure() = default;
};

/// A procedure that waits for nothing but locks, as all are that the library hands over. So a
/// thread that has to wait may run it meanwhile, however many such waits it is in already.
class UnwaitingProcedure : public ThreadProcedure {
  protected:
    ~UnwaitingProcedure() = default;
};

// The six services that a host supplies. Whoever links the library without `Kelpa::host` defines
// these functions; the library calls nothing else of its surroundings. None of them may throw.

// A shared library finds them also in programs that are compiled with -fvisibility=hidden.
#pragma GCC visibility push(default)

/// Writes a line to the host's debug log, formatted as `printf` does.
void debug(char const* format, ...) __attribute__((format(printf, 1, 2)));

/// Makes an event on which threads can wait; a null handle is passed back as it is.
///
/// The library passes null `attributes`, a null `name` and `initiallySignalled` 0.
void* uniCreateEvent(void* attributes, unsigned int manualReset, unsigned int initiallySignalled,
                     char const* name);

/// Wakes every thread that waits on the event at this moment.
///
/// May be called with locks of the library held, so it must not call back. A pulse that finds
/// nobody waiting may be lost, which costs the build one time-out; an event that remembers the
/// pulse until the next wait costs nothing.
void uniPulseEvent(void* event);

/// Waits until one of `count` events is pulsed or `milliseconds` have passed; returns 0 when an
/// event was pulsed and anything else otherwise.
///
/// The library waits for one event at a time, in slices of 100 milliseconds. `wakeMask` lists other
/// input that may end the wait early; hosts without such input ignore it.
int uniMsgWaitForMultipleObjects(int count, void* const* events, unsigned int waitForAll,
                                 unsigned int milliseconds, int wakeMask);

/// Releases an event on which nobody waits any more.
void uniCloseHandle(void* event);

/// The number of processors that builds may use, at least 1.
int getNumProcessors();

#pragma GCC visibility pop

} // namespace Kelpa
