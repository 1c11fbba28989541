// How work that may take long reports, and is stopped.
#pragma once

#include <cstdint>
#include <functional>
#include <stdexcept>

namespace pipeline {

/// Ctrl-C, noticed by whatever polls.
class Interrupted : public std::runtime_error {
  public:
    Interrupted() : std::runtime_error("interrupted") {}
};

/// How a phase that may take long reports and is asked to stop.
///
/// Called every few milliseconds of work on the thread that does it; `fraction` runs from 0 to 1.
/// Throws `Interrupted` when the user wants to stop.
using PhaseProgress = std::function<void(double fraction, std::uint64_t particles)>;

/// Asked by work that waits and cannot tell how far it is; throws `Interrupted` like the above.
using StopCheck = std::function<void()>;

} // namespace pipeline
