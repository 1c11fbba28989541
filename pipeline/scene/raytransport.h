// How those who share the blocks of a scene reach each other.
#pragma once

#include "pipeline/scene/travellingray.h"

#include <cstdint>
#include <exception>
#include <stdexcept>
#include <utility>
#include <vector>

namespace pipeline {

/// Thrown by all ranks but the one that failed, which throws what it failed of.
class FailedElsewhere : public std::runtime_error {
  public:
    FailedElsewhere() : std::runtime_error("another process failed") {}
};

/// One of several ranks, each with some of the blocks. What is called here, all ranks call equally
/// often and in the same order.
class RayTransport {
  public:
    /// Numbers that all ranks add up.
    struct Sums {
        std::int64_t count;
        std::int64_t failed; ///< ranks that are to give up
    };

    virtual ~RayTransport() = default;
    virtual int rank() const = 0;
    virtual int ranks() const = 0;

    /// Sends `parcels[r]` to each rank r and leaves them empty; returns what has come in, whenever
    /// it was sent.
    virtual std::vector<Parcel> exchange(std::vector<Parcel>& parcels) = 0;
    virtual Sums sum(Sums const& mine) = 0;
    /// Brings what each rank has to rank 0; the others get nothing.
    virtual std::vector<std::vector<char>> gather(std::vector<char> mine) = 0;

    /// The sum over all ranks. When one says that it failed, all throw.
    std::int64_t agree(std::int64_t mine, std::exception_ptr const& failure) {
        Sums const all = sum({mine, failure != nullptr ? 1 : 0});
        if (failure != nullptr)
            std::rethrow_exception(failure);
        if (all.failed > 0)
            throw FailedElsewhere();
        return all.count;
    }
    /// Does a part of each rank's own; when one of them fails, all throw.
    template <class Work> void together(Work const& work) {
        std::exception_ptr failure;
        try {
            work();
        } catch (...) {
            failure = std::current_exception();
        }
        agree(0, failure);
    }
};

/// One rank that has everything.
class NoTransport final : public RayTransport {
  public:
    int rank() const override { return 0; }
    int ranks() const override { return 1; }
    std::vector<Parcel> exchange(std::vector<Parcel>&) override { return {}; }
    Sums sum(Sums const& mine) override { return mine; }
    std::vector<std::vector<char>> gather(std::vector<char> mine) override {
        return {std::move(mine)};
    }
};

} // namespace pipeline
