// What programs are started with.
#pragma once

#include <fcntl.h>
#include <spawn.h>
#include <unistd.h>

#include <csignal>
#include <utility>

namespace pipeline {

/// Two ends of a pipe that no other program inherits; they close with this object.
class Pipe {
  public:
    Pipe() { isOpen = pipe2(ends, O_CLOEXEC) == 0; }
    ~Pipe() {
        closeWriting();
        closeReading();
    }
    Pipe(Pipe const&) = delete;
    Pipe& operator=(Pipe const&) = delete;

    void closeReading() { closeEnd(0); }
    void closeWriting() { closeEnd(1); }

    bool isOpen = false;
    int ends[2] = {-1, -1}; ///< to read from, to write to

  private:
    void closeEnd(int end) {
        if (isOpen && ends[end] >= 0)
            close(std::exchange(ends[end], -1));
    }
};

/// What is to be done with a new program's descriptors and signals.
class SpawnPlan {
  public:
    SpawnPlan() {
        posix_spawn_file_actions_init(&actions);
        posix_spawnattr_init(&attributes);
        sigset_t none;
        sigset_t all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
    }
    ~SpawnPlan() {
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
    }
    SpawnPlan(SpawnPlan const&) = delete;
    SpawnPlan& operator=(SpawnPlan const&) = delete;

    posix_spawn_file_actions_t actions{};
    posix_spawnattr_t attributes{};
};

} // namespace pipeline
