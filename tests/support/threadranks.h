// Ranks that are threads of one process.
#pragma once

#include "pipeline/scene/blocktrees.h"
#include "pipeline/scene/raytransport.h"

#include "tests/support/clouds.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <barrier>
#include <cstring>
#include <functional>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

namespace kelpatest {

/// What the ranks share. With a seed what they send is torn apart, kept back for some exchanges at
/// random, and handed over in any order.
class ThreadRanks {
  public:
    explicit ThreadRanks(int ranks, unsigned theSeed = 0)
        : count(ranks), seed(theSeed), meeting(ranks), random(theSeed),
          parts(static_cast<std::size_t>(ranks)) {}

    /// One thread's end.
    class Rank final : public pipeline::RayTransport {
      public:
        Rank(ThreadRanks& theOthers, int number) : all(theOthers), mine(number) {}
        int rank() const override { return mine; }
        int ranks() const override { return all.count; }
        std::vector<pipeline::Parcel> exchange(std::vector<pipeline::Parcel>& parcels) override {
            return all.exchange(mine, parcels);
        }
        Sums sum(Sums const& addend) override { return all.sum(addend); }
        std::vector<std::vector<char>> gather(std::vector<char> part) override {
            return all.gather(mine, std::move(part));
        }

      protected:
        void foldAll(Fold how, std::span<std::int64_t> numbers) override {
            auto const parts = swapAll(toAll(numbers));
            for (std::size_t from = 0; from < parts.size(); ++from)
                if (static_cast<int>(from) != mine)
                    forEach(numbers, parts[from], [how](std::int64_t& to, std::int64_t value) {
                        to = how == Fold::sum ? to + value : std::max(to, value);
                    });
        }
        void addUpAllBefore(std::span<std::int64_t> numbers) override {
            auto const parts = swapAll(toAll(numbers));
            std::fill(numbers.begin(), numbers.end(), 0);
            for (std::size_t from = 0; static_cast<int>(from) < mine; ++from)
                forEach(numbers, parts[from],
                        [](std::int64_t& to, std::int64_t value) { to += value; });
        }
        std::vector<Bytes> swapAll(std::vector<Bytes> parts) override {
            return all.swap(mine, std::move(parts));
        }

      private:
        std::vector<Bytes> toAll(std::span<std::int64_t const> numbers) const {
            auto const* const first = reinterpret_cast<char const*>(numbers.data());
            return std::vector<Bytes>(static_cast<std::size_t>(all.count),
                                      Bytes(first, first + numbers.size_bytes()));
        }
        template <class Visit>
        static void forEach(std::span<std::int64_t> numbers, Bytes const& others,
                            Visit const& visit) {
            for (std::size_t i = 0; i < numbers.size(); ++i) {
                std::int64_t value = 0;
                std::memcpy(&value, others.data() + i * sizeof value, sizeof value);
                visit(numbers[i], value);
            }
        }

        ThreadRanks& all;
        int mine;
    };

    /// Runs `part` for every rank, each on a thread of its own.
    void run(std::function<void(Rank& rank)> const& part) {
        std::vector<std::jthread> threads;
        for (int number = 0; number < count; ++number)
            threads.emplace_back([this, number, &part] {
                Rank rank(*this, number);
                part(rank);
            });
    }

  private:
    struct Letter {
        int to;
        pipeline::Parcel parcel;
    };

    std::vector<pipeline::Parcel> exchange(int from, std::vector<pipeline::Parcel>& parcels) {
        {
            std::lock_guard const hold(mutex);
            for (std::size_t to = 0; to < parcels.size(); ++to)
                post(static_cast<int>(to), std::exchange(parcels[to], {}));
        }
        meeting.arrive_and_wait();
        std::vector<pipeline::Parcel> arrived;
        {
            std::lock_guard const hold(mutex);
            std::erase_if(letters, [&](Letter& letter) {
                if (letter.to != from || (seed != 0 && random.below(3) == 0))
                    return false;
                arrived.push_back(std::move(letter.parcel));
                return true;
            });
            if (seed != 0)
                shuffle(arrived);
        }
        meeting.arrive_and_wait();
        return arrived;
    }

    void post(int to, pipeline::Parcel parcel) {
        if (seed == 0) {
            letters.push_back({to, std::move(parcel)});
            return;
        }
        std::vector<pipeline::Parcel> pieces(3);
        auto const tear = [&](auto const& values, auto member) {
            for (auto const& value : values)
                (pieces[static_cast<std::size_t>(random.below(3))].*member).push_back(value);
        };
        tear(parcel.rays, &pipeline::Parcel::rays);
        tear(parcel.hits, &pipeline::Parcel::hits);
        tear(parcel.distances, &pipeline::Parcel::distances);
        tear(parcel.occluded, &pipeline::Parcel::occluded);
        for (pipeline::Parcel& piece : pieces) {
            shuffle(piece.rays);
            shuffle(piece.hits);
            letters.push_back({to, std::move(piece)});
        }
    }
    template <class T> void shuffle(std::vector<T>& values) {
        for (std::size_t i = values.size(); i > 1; --i)
            std::swap(values[i - 1],
                      values[static_cast<std::size_t>(random.below(static_cast<int>(i)))]);
    }

    pipeline::RayTransport::Sums sum(pipeline::RayTransport::Sums const& addend) {
        {
            std::lock_guard const hold(mutex);
            total.count += addend.count;
            total.failed += addend.failed;
        }
        meeting.arrive_and_wait();
        pipeline::RayTransport::Sums const all = total;
        meeting.arrive_and_wait();
        {
            std::lock_guard const hold(mutex);
            total = {};
        }
        meeting.arrive_and_wait();
        return all;
    }

    std::vector<std::vector<char>> gather(int from, std::vector<char> part) {
        parts[static_cast<std::size_t>(from)] = std::move(part);
        meeting.arrive_and_wait();
        return from == 0 ? parts : std::vector<std::vector<char>>();
    }

    std::vector<std::vector<char>> swap(int from, std::vector<std::vector<char>> sent) {
        {
            std::lock_guard const hold(mutex);
            swapped.resize(static_cast<std::size_t>(count));
            swapped[static_cast<std::size_t>(from)] = std::move(sent);
        }
        meeting.arrive_and_wait();
        std::vector<std::vector<char>> arrived;
        for (auto& ofRank : swapped)
            arrived.push_back(std::move(ofRank[static_cast<std::size_t>(from)]));
        meeting.arrive_and_wait();
        return arrived;
    }

    int count;
    unsigned seed;
    std::barrier<> meeting;
    std::mutex mutex;
    Random random;
    std::vector<Letter> letters;
    std::vector<std::vector<char>> parts;                ///< of each rank
    std::vector<std::vector<std::vector<char>>> swapped; ///< from each, to each
    pipeline::RayTransport::Sums total{};
};

/// A scene's blocks as a rank sees them that has every n-th of them.
class DealtBlocks final : public pipeline::BlockTrees {
  public:
    DealtBlocks(pipeline::BlockTrees& allBlocks, int rank, int ranks)
        : all(allBlocks), mine(rank), count(ranks) {}
    std::size_t blockCount() const override { return all.blockCount(); }
    pipeline::TopTree const& topTree() const override { return all.topTree(); }
    int ownerOf(std::int32_t block) const override { return block / 3 % count; }
    std::shared_ptr<pipeline::Geometry> pin(std::int32_t block) override {
        EXPECT_EQ(ownerOf(block), mine);
        return all.pin(block);
    }
    std::int64_t baseOf(std::int32_t block) const override { return all.baseOf(block); }
    std::int64_t placeIn(std::int32_t block, std::int64_t index) const override {
        return all.placeIn(block, index);
    }

  private:
    pipeline::BlockTrees& all;
    int mine;
    int count;
};

} // namespace kelpatest
