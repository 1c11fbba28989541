// Long work under the interpreter: signals, progress, and its lock given away.
#pragma once

#include "kelpa/foundation/hosttypes.h"
#include "kelpa/host/pieces.h"

#include "pipeline/files/progress.h"

#include <pybind11/pybind11.h>

#include <cstddef>
#include <functional>

namespace kelpapython {

using Kelpa::GoOn;

// The functions are called with the interpreter's lock, and release it while they work. Some
// twenty times a second the calling thread takes it to look for signals and to call
// `progress(fraction, message)` (unless it is None). What these raise ends the work and leaves the
// function.

/// Does pieces 0 to `count` - 1 on `threads` threads (as many as there are processors if that is 0
/// or less), this one among them. `piece` is called from all of them; what it throws ends the work
/// and is thrown on.
void runPieces(std::size_t count, int threads, pybind11::object const& progress,
               char const* message, std::function<void(std::size_t, GoOn const&)> const& piece);

/// Runs `work` on the calling thread; it is given what it reports to, from any thread, and what
/// ends it by throwing.
void runWatched(pybind11::object const& progress, char const* message,
                std::function<void(pipeline::PhaseProgress const&)> const& work);

/// Runs `build` on a thread of its own; its messages are what `progress` is told, with None for the
/// fraction.
void runBuild(pybind11::object const& progress,
              std::function<void(Kelpa::ProgressCallback&)> const& build);

} // namespace kelpapython
