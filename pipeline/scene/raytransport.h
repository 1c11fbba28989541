// How those who share the blocks of a scene reach each other.
#pragma once

#include "pipeline/scene/travellingray.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <exception>
#include <span>
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
///
/// A rank that fails says so to the others instead of its next call; theirs then throws. After that
/// nobody is asked any more, so that what fails in the middle of a common work ends it everywhere.
class RayTransport {
  public:
    using Bytes = std::vector<char>;
    enum class Fold { sum, greatest };

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
        Sums const all = isOver ? Sums{0, 1} : sum({mine, failure != nullptr ? 1 : 0});
        isOver = all.failed > 0;
        if (failure != nullptr)
            std::rethrow_exception(failure);
        if (isOver)
            throw FailedElsewhere();
        return all.count;
    }
    /// Tells the others whether this rank failed, unless all know that already. The last call.
    void end(bool hasFailed) {
        if (!isOver)
            isOver = sum({0, hasFailed ? 1 : 0}).failed > 0;
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

    /// Each of these numbers becomes the sum, or the greatest, of those that the ranks have.
    void fold(Fold how, std::span<std::int64_t> numbers) {
        agree(0, nullptr);
        foldAll(how, numbers);
    }
    /// Each becomes the sum of those that the ranks before this one have.
    void addUpBefore(std::span<std::int64_t> numbers) {
        agree(0, nullptr);
        addUpAllBefore(numbers);
    }
    /// Sends `parts[r]` to each rank r; returns what each has sent.
    std::vector<Bytes> trade(std::vector<Bytes> parts) {
        agree(0, nullptr);
        return swapAll(std::move(parts));
    }
    /// What each rank has, in their order.
    template <class Value> std::vector<Value> joined(std::vector<Value> const& mine) {
        Bytes bytes(mine.size() * sizeof(Value));
        if (!mine.empty())
            std::memcpy(bytes.data(), mine.data(), bytes.size());
        std::vector<Value> all;
        for (Bytes const& part :
             trade(std::vector<Bytes>(static_cast<std::size_t>(ranks()), bytes)))
            if (!part.empty()) {
                std::size_t const before = all.size();
                all.resize(before + part.size() / sizeof(Value));
                std::memcpy(&all[before], part.data(), part.size());
            }
        return all;
    }
    /// Each becomes the greatest that a rank has; of zeros of both signs that of the first rank, as
    /// if one had gone through all that the ranks have in their order.
    void takeGreatest(std::span<double> numbers) {
        std::vector<double> const all = joined(std::vector<double>(numbers.begin(), numbers.end()));
        std::copy_n(all.begin(), numbers.size(), numbers.begin());
        for (std::size_t i = numbers.size(); i < all.size(); ++i)
            numbers[i % numbers.size()] = std::max(numbers[i % numbers.size()], all[i]);
    }

  protected:
    virtual void foldAll(Fold how, std::span<std::int64_t> numbers) = 0;
    virtual void addUpAllBefore(std::span<std::int64_t> numbers) = 0;
    virtual std::vector<Bytes> swapAll(std::vector<Bytes> parts) = 0;

  private:
    bool isOver = false; ///< some rank has failed, and all know it
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

  protected:
    void foldAll(Fold, std::span<std::int64_t>) override {}
    void addUpAllBefore(std::span<std::int64_t> numbers) override {
        std::fill(numbers.begin(), numbers.end(), 0);
    }
    std::vector<Bytes> swapAll(std::vector<Bytes> parts) override { return parts; }
};

} // namespace pipeline
