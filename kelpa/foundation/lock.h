// Locks for work so short that waiting awake is cheapest.
#pragma once

#include "kelpa/foundation/language.h"

#include <pthread.h>

// Clang's thread-safety analysis reads these; every other compiler sees nothing.
#if defined(__clang__)
#define KELPA_THREAD_ANNOTATION(attribute) __attribute__((attribute))
#else
#define KELPA_THREAD_ANNOTATION(attribute)
#endif

namespace Kelpa {

/// Tells the processor that a thread is waiting awake.
inline void relaxProcessor() {
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__aarch64__)
    asm volatile("yield");
#endif
}

/// A recursive lock: the thread that owns it may enter again, and each `enter` needs its `leave`.
///
/// Must not be destroyed while any thread is inside or waits for it. Use `LockScope` to take it.
class KELPA_THREAD_ANNOTATION(capability("mutex")) FastCriticalSection {
  public:
    /// Makes a lock that nobody holds.
    FastCriticalSection() {
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
        pthread_mutex_init(&mutex, &attr);
    }
    FastCriticalSection(FastCriticalSection const&) = delete;
    FastCriticalSection& operator=(FastCriticalSection const&) = delete;
    ~FastCriticalSection() {
        pthread_mutex_destroy(&mutex);
        pthread_mutexattr_destroy(&attr);
    }

    /// Waits until no other thread is inside, then enters.
    void enter() KELPA_THREAD_ANNOTATION(acquire_capability()) { pthread_mutex_lock(&mutex); }
    /// The same for a lock that is never held for long: asks for it some times before it sleeps.
    void enterAwake() KELPA_THREAD_ANNOTATION(acquire_capability()) {
        constexpr int mostQuestions = 200; // some microseconds, as long as falling asleep takes
        for (int i = 0; i < mostQuestions; ++i) {
            if (pthread_mutex_trylock(&mutex) == 0)
                return;
            relaxProcessor();
        }
        pthread_mutex_lock(&mutex);
    }
    /// Leaves; only the thread that entered may.
    void leave() KELPA_THREAD_ANNOTATION(release_capability()) { pthread_mutex_unlock(&mutex); }

    pthread_mutex_t mutex;    ///< recursive
    pthread_mutexattr_t attr; ///< what `mutex` was made with
};

/// Holds a lock from here to the end of the scope, exceptions included.
class KELPA_THREAD_ANNOTATION(scoped_lockable) LockScope {
  public:
    /// Enters `section`, which must outlive this scope.
    explicit LockScope(FastCriticalSection& section)
        KELPA_THREAD_ANNOTATION(acquire_capability(section))
        : lock(section) {
        lock.enter();
    }
    /// How to wait: see `FastCriticalSection::enterAwake`.
    enum Waiting { awake };
    /// Enters `section`, which must outlive this scope, and does not sleep at once.
    LockScope(FastCriticalSection& section, Waiting)
        KELPA_THREAD_ANNOTATION(acquire_capability(section))
        : lock(section) {
        lock.enterAwake();
    }
    LockScope(LockScope const&) = delete;
    LockScope& operator=(LockScope const&) = delete;
    ~LockScope() KELPA_THREAD_ANNOTATION(release_capability()) { lock.leave(); }

  private:
    FastCriticalSection& lock;
};

} // namespace Kelpa
