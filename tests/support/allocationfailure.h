// Memory that runs out when a test says so.
#pragma once

#include <limits>

namespace kelpatest {

/// Makes allocations through operator new fail while it lives, on all threads: those from number
/// `first` (counted from 0) on, at most `howMany` of them. One at a time.
class FailingAllocations {
  public:
    static constexpr long all = std::numeric_limits<long>::max();

    explicit FailingAllocations(long first, long howMany = 1);
    FailingAllocations(FailingAllocations const&) = delete;
    FailingAllocations& operator=(FailingAllocations const&) = delete;
    ~FailingAllocations();

    /// Whether one has failed so far.
    bool happened() const;
};

} // namespace kelpatest
