// Brings particles to the ranks that own their blocks.
#include "pipeline/scene/geometry.h"
#include "pipeline/scene/parting.h"

#include <algorithm>
#include <cstring>
#include <numeric>

namespace pipeline {

namespace {

// What a rank sends at a time, and what it receives: little beside what it holds.
constexpr std::size_t bytesAtATime = std::size_t{64} << 20U;

/// Of each rank the first of its blocks; behind them the number of all.
std::vector<std::size_t> firstBlocks(std::vector<std::int64_t> const& firstPlaces, int ranks) {
    std::vector<std::size_t> firsts(static_cast<std::size_t>(ranks) + 1, firstPlaces.size() - 1);
    BlockShare const share{0, ranks};
    for (std::size_t block = firstPlaces.size() - 1; block-- > 0;) {
        int const owner = share.ownerOf(
            firstPlaces[block], firstPlaces[block + 1] - firstPlaces[block], firstPlaces.back());
        firsts[static_cast<std::size_t>(owner)] = block;
    }
    // A rank without blocks has none before those of the next one.
    for (std::size_t rank = firsts.size() - 1; rank-- > 0;)
        firsts[rank] = std::min(firsts[rank], firsts[rank + 1]);
    return firsts;
}

/// Puts what a rank sends, block by block and within these by its rows, behind what the ranks
/// before it send to the same block.
class Arrivals {
  public:
    Arrivals(std::vector<std::int64_t> theCounts, std::vector<std::int64_t> thePlaces)
        : counts(std::move(theCounts)), places(std::move(thePlaces)) {}

    void take(std::vector<char> const& bytes, char* to, std::size_t width) {
        for (std::size_t used = 0; used < bytes.size();) {
            while (counts[block] == 0)
                ++block;
            std::size_t const wanted = static_cast<std::size_t>(counts[block]) * width;
            std::size_t const got = std::min(wanted, bytes.size() - used);
            std::memcpy(to + static_cast<std::size_t>(places[block]) * width, bytes.data() + used,
                        got);
            counts[block] -= static_cast<std::int64_t>(got / width);
            places[block] += static_cast<std::int64_t>(got / width);
            used += got;
        }
    }

  private:
    std::vector<std::int64_t> counts; ///< still to come, of each block
    std::vector<std::int64_t> places; ///< where the next ones go
    std::size_t block = 0;
};

} // namespace

bool Parting::sharersHave(bool isHere) const {
    std::int64_t anywhere[] = {isHere ? 1 : 0};
    sharers->fold(RayTransport::Fold::greatest, anywhere);
    return anywhere[0] != 0;
}

std::int64_t Parting::firstOwnedBy(int rank) const {
    return firstPlaces[firstBlocks(firstPlaces, sharers->ranks())[static_cast<std::size_t>(rank)]];
}

std::size_t Parting::ownedCount() const {
    int const mine = sharers->rank();
    return static_cast<std::size_t>(firstOwnedBy(mine + 1) - firstOwnedBy(mine));
}

/// Tells each rank how many rows of its blocks this one has.
void Parting::learnCounts() {
    std::vector<std::size_t> const firsts = firstBlocks(firstPlaces, sharers->ranks());
    std::vector<std::vector<char>> told(firsts.size() - 1);
    for (std::size_t rank = 0; rank < told.size(); ++rank) {
        auto const* const counts = reinterpret_cast<char const*>(rowsHere.data());
        told[rank].assign(counts + firsts[rank] * sizeof rowsHere[0],
                          counts + firsts[rank + 1] * sizeof rowsHere[0]);
    }
    for (std::vector<char> const& heard : sharers->trade(std::move(told))) {
        std::vector<std::int64_t>& counts = rowsOfRank.emplace_back(heard.size() / 8);
        if (!counts.empty())
            std::memcpy(counts.data(), heard.data(), heard.size());
    }
}

/// Sends values in the order of their blocks to the owners of these, a part at a time.
void Parting::deal(char const* from, char* to, std::size_t width) const {
    std::vector<std::size_t> const firsts = firstBlocks(firstPlaces, sharers->ranks());
    auto const ranks = static_cast<std::size_t>(sharers->ranks());
    auto const mine = static_cast<std::size_t>(sharers->rank());
    std::vector<std::size_t> sent{0}; // of each rank what goes to those before it, in rows
    for (std::size_t rank = 0; rank < ranks; ++rank)
        sent.push_back(
            std::accumulate(rowsHere.begin() + static_cast<std::ptrdiff_t>(firsts[rank]),
                            rowsHere.begin() + static_cast<std::ptrdiff_t>(firsts[rank + 1]),
                            sent.back(), [](std::size_t sum, std::int64_t count) {
                                return sum + static_cast<std::size_t>(count);
                            }));
    std::vector<std::int64_t> places;
    for (std::size_t block = firsts[mine]; block < firsts[mine + 1]; ++block)
        places.push_back(firstPlaces[block] - firstPlaces[firsts[mine]]);
    std::vector<Arrivals> arrivals;
    for (std::vector<std::int64_t> const& counts : rowsOfRank) {
        arrivals.emplace_back(counts, places);
        for (std::size_t block = 0; block < places.size(); ++block)
            places[block] += counts[block];
    }
    std::size_t const rowsAtATime = std::max<std::size_t>(1, bytesAtATime / ranks / width);
    std::int64_t turns[] = {0};
    for (std::size_t rank = 0; rank < ranks; ++rank)
        turns[0] =
            std::max(turns[0], static_cast<std::int64_t>(
                                   (sent[rank + 1] - sent[rank] + rowsAtATime - 1) / rowsAtATime));
    sharers->fold(RayTransport::Fold::greatest, turns);
    for (std::int64_t turn = 0; turn < turns[0]; ++turn) {
        std::vector<std::vector<char>> parts(ranks);
        for (std::size_t rank = 0; rank < ranks; ++rank) {
            std::size_t const begin =
                std::min(sent[rank] + static_cast<std::size_t>(turn) * rowsAtATime, sent[rank + 1]);
            std::size_t const end = std::min(begin + rowsAtATime, sent[rank + 1]);
            parts[rank].assign(from + begin * width, from + end * width);
        }
        std::vector<std::vector<char>> const arrived = sharers->trade(std::move(parts));
        for (std::size_t rank = 0; rank < ranks; ++rank)
            arrivals[rank].take(arrived[rank], to, width);
    }
}

/// The rows of the places of this rank's blocks.
Rows Parting::sharedRows() const {
    std::int64_t before[] = {static_cast<std::int64_t>(blockOf.size())};
    sharers->addUpBefore(before);
    auto const from = [&]<class Number>(Number first) {
        std::vector<Number> numbers(blockOf.size());
        std::iota(numbers.begin(), numbers.end(), first);
        order(numbers);
        return Rows(std::move(numbers));
    };
    if (firstPlaces.back() <= std::numeric_limits<std::uint32_t>::max())
        return from(static_cast<std::uint32_t>(before[0]));
    return from(static_cast<std::uint64_t>(before[0]));
}

} // namespace pipeline
