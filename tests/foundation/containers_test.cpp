// Sequences and tables.
#include "kelpa/foundation/sequence.h"
#include "kelpa/foundation/table.h"

#include "tests/support/allocationfailure.h"
#include "tests/support/clouds.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kelpatest {
namespace {

TEST(Sequences, GrowByBlocksWhoseElementsNeverMove) {
    constexpr std::uint32_t block = 20000;
    Sequence<std::uint32_t, 20000> sequence;
    EXPECT_EQ(sequence.getMemUsage(), 0U);
    std::uint32_t* const first = sequence.newElement();
    for (std::uint32_t i = 1; i < block; ++i)
        *sequence.newElement() = i;
    EXPECT_EQ(sequence.getMemUsage(), 32 + 4 * block);
    EXPECT_EQ(first[block - 1], block - 1);
    sequence.newElement();
    EXPECT_EQ(sequence.getMemUsage(), 2 * (32 + 4 * block));
    EXPECT_EQ(sequence.first->elements, first);
    EXPECT_EQ(sequence.current->prev, sequence.first);
    EXPECT_EQ(sequence.getCount(), 20001);
}

/// A sequence of numbered elements beside a plain list of what it must hold.
struct Numbers {
    SequenceST<int, 4> sequence;
    std::vector<int*> slots;
    int next = 0;

    void append(int n) {
        int* const run = sequence.newElements(n);
        for (int i = 0; i < n; ++i) {
            run[i] = next++;
            slots.push_back(run + i);
        }
    }
    void expectSame() {
        EXPECT_EQ(sequence.getCount(), static_cast<int>(slots.size()));
        SequenceCursor cursor(sequence);
        sequence.rewind();
        for (int* const slot : slots) {
            ASSERT_EQ(sequence.nextElement(), slot);
            ASSERT_FALSE(cursor.rest().empty());
            ASSERT_EQ(&cursor.rest().front(), slot);
            cursor.skip(1);
        }
        EXPECT_EQ(sequence.nextElement(), nullptr);
        EXPECT_TRUE(cursor.rest().empty());
    }
};

TEST(Sequences, DoAsPlainListsDo) {
    for (std::uint64_t seed = 0; seed < 300; ++seed) {
        SCOPED_TRACE(seed);
        Random random(seed);
        Numbers numbers;
        bool const hasRuns = seed % 2 == 0; // elements are removed only where no run left a gap
        for (int step = 0; step < 60; ++step) {
            std::uint64_t const bytes = numbers.sequence.getMemUsage();
            int* const front = bytes == 0 ? nullptr : numbers.sequence.first->elements;
            switch (random.below(12)) {
            case 0:
                numbers.sequence.clear();
                numbers.slots.clear();
                EXPECT_EQ(numbers.sequence.getMemUsage(), bytes);
                numbers.append(1);
                EXPECT_TRUE(front == nullptr || numbers.slots[0] == front);
                break;
            case 1:
                numbers.sequence.freeData();
                numbers.slots.clear();
                EXPECT_EQ(numbers.sequence.getMemUsage(), 0U);
                break;
            case 2:
            case 3:
            case 4:
                if (hasRuns)
                    break;
                ASSERT_EQ(numbers.sequence.removeLast(),
                          numbers.slots.empty() ? nullptr : numbers.slots.back());
                if (!numbers.slots.empty())
                    numbers.slots.pop_back();
                break;
            default:
                numbers.append(hasRuns ? 1 + random.below(6) : 1);
            }
            numbers.expectSame();
        }
    }
    Numbers numbers; // a run that does not fit leaves a gap; a long one gets a block of its length
    for (int const n : {3, 2, 5, 1})
        numbers.append(n);
    EXPECT_EQ(numbers.sequence.first->count, 3);
    EXPECT_EQ(numbers.sequence.getMemUsage(), 4 * 32 + (4 + 4 + 5 + 4) * sizeof(int));
}

TEST(Sequences, AreUnchangedAndUnlockedWhenMemoryRunsOut) {
    for (int const failing : {0, 1}) // the block's record, its elements
        for (int const full : {0, 4}) {
            Sequence<int, 4> sequence;
            while (sequence.getCount() < full)
                sequence.newElement();
            std::uint64_t const bytes = sequence.getMemUsage();
            {
                FailingAllocations const failure(failing);
                EXPECT_THROW(sequence.newElement(), ExceptionMsg);
            }
            EXPECT_EQ(sequence.getCount(), full);
            EXPECT_EQ(sequence.getMemUsage(), bytes);
            std::thread([&sequence] { sequence.newElement(); }).join(); // hangs if still locked
            EXPECT_THROW(sequence.newElements(std::numeric_limits<int>::max()), ExceptionMsg);
            EXPECT_EQ(sequence.getCount(), full + 1);
        }
}

TEST(Sequences, GiveEachOfManyThreadsSlotsOfItsOwn) {
    constexpr int numThreads = 4; // more than processors, so that a holder of the lock may sleep
    constexpr int numRuns = 30000;
    Sequence<int, 64> sequence;
    std::vector<std::vector<int*>> runs(numThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < numThreads; ++t)
        threads.emplace_back([&sequence, &mine = runs[static_cast<std::size_t>(t)], t] {
            for (int k = 0; k < numRuns; ++k) {
                int const before = sequence.recentCount();
                int* const run = sequence.newElements(2);
                run[0] = run[1] = t;
                mine.push_back(run);
                if (sequence.recentCount() < before + 2)
                    mine.clear();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(sequence.getCount(), numThreads * numRuns * 2);
    for (int t = 0; t < numThreads; ++t) {
        std::vector<int*> const& mine = runs[static_cast<std::size_t>(t)];
        EXPECT_EQ(mine.size(), static_cast<std::size_t>(numRuns));
        EXPECT_TRUE(std::all_of(mine.begin(), mine.end(),
                                [t](int const* run) { return run[0] == t && run[1] == t; }));
    }
}

TEST(Tables, GrowToTheNextStepAndKeepTheirElements) {
    Table<int, 1000> table;
    struct {
        int count, exact, capacity;
    } const cases[] = {{1, 1, 1},       {2, 0, 1000}, {1000, 0, 1000}, {1001, 0, 2000},
                       {2001, 1, 2001}, {5, 1, 2001}, {3000, 0, 4000}};
    for (auto const& c : cases) {
        table.setCount(c.count, c.exact);
        EXPECT_EQ(table.count, c.count);
        EXPECT_EQ(table.capacity, c.capacity);
        if (c.capacity == 1)
            table.elements[0] = 42;
        EXPECT_EQ(table.elements[0], 42);
    }
    {
        FailingAllocations const failure(0);
        EXPECT_THROW(table.setCount(5000, 0), ExceptionMsg);
    }
    EXPECT_EQ(table.count, 3000);
    EXPECT_EQ(table.elements[0], 42);

    Table<int, 0> doubling;
    for (auto const& [count, capacity] : {std::pair{3, 3}, {4, 6}, {25, 48}}) {
        doubling.setCount(count, 0);
        EXPECT_EQ(doubling.capacity, capacity);
    }
}

/// Whether a thread that does not own the lock may enter. As for all who enter more often than
/// once, clang's analysis does not follow.
bool isFree(FastCriticalSection& section) {
    bool entered = false;
    std::thread([&]() KELPA_THREAD_ANNOTATION(no_thread_safety_analysis) {
        entered = pthread_mutex_trylock(&section.mutex) == 0;
        if (entered)
            section.leave();
    }).join();
    return entered;
}

void expectToBeFreeInTheEnd(FastCriticalSection& section)
    KELPA_THREAD_ANNOTATION(no_thread_safety_analysis) {
    section.enter();
    ASSERT_EQ(pthread_mutex_trylock(&section.mutex), 0) << "the owner may enter again";
    {
        LockScope const scope(section);
        section.leave();
        EXPECT_FALSE(isFree(section));
    }
    EXPECT_FALSE(isFree(section));
    section.leave();
    EXPECT_TRUE(isFree(section));
}

TEST(Locks, AreFreeForOthersOnceTheirOwnerHasLeftAsOftenAsItEntered) {
    FastCriticalSection section;
    expectToBeFreeInTheEnd(section);
}

TEST(Exceptions, CutTheirTextAtItsBound) {
    std::string const text(2000, 'x');
    for (std::size_t const length : {0U, 1023U, 1024U, 2000U}) {
        ExceptionMsg const exception("%s", text.substr(0, length).c_str());
        EXPECT_EQ(exception.what(), text.substr(0, std::min<std::size_t>(length, 1023)));
    }
}

} // namespace
} // namespace kelpatest
