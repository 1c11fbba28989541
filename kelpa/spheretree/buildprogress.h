// Internal: how builds speak to the host's progress callback.
#pragma once

#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/sharedcounters.h"

#include <cstdint>
#include <limits>

namespace Kelpa {

/// Stands in for a callback that the host did not give: says nothing and never aborts.
class SilentProgress final : public ProgressCallback {
  public:
    std::int32_t getAbort() override { return 0; }
    void info(int, int, char const*, ...) override {}
};

/// Asks the host whether to stop, and remembers a yes: a host that answers only once is obeyed too.
class AbortQuestion {
  public:
    /// `wasAborted`, a tree's, is set to 1 with a yes; several threads may share it.
    AbortQuestion(ProgressCallback* callback, std::int32_t& wasAborted)
        : progress(callback), flag(wasAborted) {}

    bool operator()() {
        if (progress != nullptr && progress->getAbort() != 0 && !stopped) {
            stopped = true;
            writeShared(flag, 1);
        }
        return stopped;
    }

    /// Asks `times` times, unless there is a yes before.
    bool operator()(std::int32_t times) {
        bool const isAsked = progress != nullptr;
        for (std::int32_t i = 0; isAsked && i < times; ++i)
            if ((*this)())
                return true;
        return stopped;
    }

  private:
    ProgressCallback* progress;
    std::int32_t& flag;
    bool stopped = false;
};

/// A byte count for a message that prints an int: the largest int stands for all that is beyond.
inline std::int32_t printableBytes(std::uint64_t bytes) {
    constexpr std::int32_t most = std::numeric_limits<std::int32_t>::max();
    return bytes < static_cast<std::uint64_t>(most) ? static_cast<std::int32_t>(bytes) : most;
}

/// Whole megabytes, cut off.
inline std::uint32_t wholeMegabytes(std::uint64_t bytes) {
    return static_cast<std::uint32_t>(bytes >> 20);
}

} // namespace Kelpa
