// Work in pieces: each done once, ended by a failure or by whoever watches.

#include "kelpa/host/pieces.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <numeric>
#include <stdexcept>
#include <thread>
#include <vector>

namespace {

using Kelpa::doPieces;
using Kelpa::GoOn;

TEST(Pieces, AreDoneOnceEachByAnyNumberOfThreads) {
    for (int const threads : {0, 1, 2, 7, 100}) {
        for (std::size_t const count : {0U, 1U, 2U, 1000U}) {
            SCOPED_TRACE(testing::Message() << threads << " threads, " << count << " pieces");
            std::vector<std::atomic<int>> times(count);
            EXPECT_TRUE(doPieces(count, threads, [&](std::size_t i, GoOn const& goOn) {
                times[i] += goOn() ? 1 : 0;
            }));
            for (std::atomic<int> const& time : times)
                EXPECT_EQ(time, 1);
        }
    }
}

TEST(Pieces, AreTakenBySeveralThreadsAtOnce) {
    std::latch bothAreAtWork(2); // a single thread would wait here for ever
    EXPECT_TRUE(doPieces(2, 2, [&](std::size_t, GoOn const&) { bothAreAtWork.arrive_and_wait(); }));
}

TEST(Pieces, EndWithTheFirstFailureOnceAllThreadsHaveEnded) {
    for (int const threads : {1, 4}) {
        SCOPED_TRACE(threads);
        std::atomic<int> atWork = 0;
        std::atomic<std::size_t> begun = 0;
        auto const failing = [&](std::size_t i, GoOn const& goOn) {
            ++atWork;
            ++begun;
            if (i == 3) {
                --atWork;
                throw std::runtime_error("piece 3");
            }
            while (i > 3 && goOn())
                std::this_thread::yield();
            --atWork;
        };
        EXPECT_THROW(
            {
                try {
                    doPieces(10000, threads, failing);
                } catch (std::runtime_error const& error) {
                    EXPECT_STREQ(error.what(), "piece 3");
                    EXPECT_EQ(atWork, 0);
                    throw;
                }
            },
            std::runtime_error);
        EXPECT_LT(begun, 10U) << "the others were not begun";
    }
}

TEST(Pieces, AreWatchedFromTheCallingThreadWhileOthersFinishTheirs) {
    auto const caller = std::this_thread::get_id();
    for (bool const throws : {false, true}) {
        SCOPED_TRACE(throws);
        std::atomic<bool> isLeftToHelpers = false;
        auto const watch = [&] {
            EXPECT_EQ(std::this_thread::get_id(), caller);
            if (isLeftToHelpers && throws)
                throw std::runtime_error("stop");
            return !isLeftToHelpers;
        };
        std::latch bothAreAtWork(2);
        auto const piece = [&](std::size_t, GoOn const& goOn) {
            bothAreAtWork.arrive_and_wait();
            if (std::this_thread::get_id() == caller) {
                isLeftToHelpers = true; // the caller has nothing left to do but to watch
                return;
            }
            while (goOn()) // ends only when the watch says so
                std::this_thread::yield();
        };
        if (throws)
            EXPECT_THROW(doPieces(2, 2, piece, watch), std::runtime_error);
        else
            EXPECT_FALSE(doPieces(2, 2, piece, watch));
    }
}

} // namespace
