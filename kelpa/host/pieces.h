// Independent pieces of work on several threads, with one watch over them.
#pragma once

#include <cstddef>
#include <functional>

namespace Kelpa {

/// Whether work is to go on, asked now and then by whoever does it. Empty: it is.
using GoOn = std::function<bool()>;

/// Does pieces 0 to `count` - 1, each once and whole, on up to `threads` threads (0: one for each
/// processor), the calling one among them, or on as many as the system grants.
///
/// The first exception ends the work and is thrown once all threads have ended. `piece` may ask its
/// `goOn`, and is to return soon when that says no. `watch`, unless empty, is asked on the calling
/// thread alone: between its pieces, whenever a piece there asks `goOn`, and every few milliseconds
/// while others finish theirs. When it says no, or throws, no further piece begins.
/// Returns whether all pieces were done.
bool doPieces(std::size_t count, int threads,
              std::function<void(std::size_t piece, GoOn const& goOn)> const& piece,
              GoOn const& watch = {});

} // namespace Kelpa
