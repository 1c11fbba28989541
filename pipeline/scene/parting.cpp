// Parts particles by medians of their cells, level by level, in passes over all of them.
#include "pipeline/scene/parting.h"

#include "kelpa/foundation/platform.h"
#include "kelpa/foundation/usableparticles.h"

#include <algorithm>
#include <array>
#include <bit>

namespace pipeline {

namespace {

using Kelpa::Vector;

constexpr unsigned axisBits = 21; // of a cell's place on one axis: three of them fill a key
constexpr std::uint64_t axisMask = (std::uint64_t{1} << axisBits) - 1;

/// A cell's place on all axes.
using Key = std::uint64_t;

std::uint32_t placeOn(int axis, Key key) {
    return static_cast<std::uint32_t>(key >> (axisBits * static_cast<unsigned>(axis)) & axisMask);
}

/// The middles of the particles' ways.
struct Middles {
    std::span<Vector const> begins;
    std::span<Vector const> ends;

    double on(int axis, std::size_t row) const {
        auto const at = static_cast<double>(begins[row][axis]);
        return ends.empty() ? at : 0.5 * (at + static_cast<double>(ends[row][axis]));
    }
    bool isFinite(std::size_t row) const {
        return Kelpa::isFinite(begins[row]) && (ends.empty() || Kelpa::isFinite(ends[row]));
    }
};

/// A range of places on an axis, or of doubles.
template <class Number> struct Range {
    Number low = std::numeric_limits<Number>::max();
    Number high = std::numeric_limits<Number>::lowest();

    void add(Number value) {
        low = std::min(low, value);
        high = std::max(high, value);
    }
    void add(Range const& other) {
        low = std::min(low, other.low);
        high = std::max(high, other.high);
    }
};
template <class Number> using Ranges = std::array<Range<Number>, 3>;

/// Particles that are not parted any further yet.
struct Part {
    std::int64_t count = 0;
    Ranges<std::uint32_t> cells; ///< around them
};

/// How a part falls into two: particles in lower cells on the axis go below, and so do the first
/// `ties` of those in cell `cell`.
struct Cut {
    bool isOpen = false;          ///< whether the part is to be cut at all
    bool hasOpenChildren = false; ///< or one of the two that it falls into
    int axis = 0;
    std::uint32_t cell = 0;
    std::int64_t ties = 0;
    std::uint32_t firstChild = 0; ///< number of the part, or of the lower of its two, a level below

    // While the median is looked for: it is the `ties`-th of those particles whose place from
    // `cells.low` on, without its last `unknownBits`, is `known`.
    std::uint32_t low = 0;
    std::uint32_t known = 0;
    unsigned unknownBits = 0;
};

/// One after the other finds out which part each particle belongs to.
class Parter {
  public:
    Parter(Middles const& middles, int threads, Kelpa::GoOn const& goOn, RayTransport* others)
        : rows(middles.begins.size()),
          shares(static_cast<std::size_t>(threads > 0 ? threads : Kelpa::getNumProcessors())),
          watch(goOn), sharers(others) {
        makeKeys(middles);
    }

    void partTo(std::int64_t most);

    std::size_t shareCount() const { return shares; }
    std::vector<std::vector<std::int64_t>> countByShare();

    std::vector<std::uint32_t> partOf; ///< by row
    std::vector<Part> parts;

  private:
    /// Calls `visit(share, row)` for all rows, on several threads; false when that was ended early.
    template <class Visit> bool forEachRow(Visit const& visit) const {
        return Kelpa::doPieces(
            shares, static_cast<int>(shares),
            [&](std::size_t share, Kelpa::GoOn const& goOn) {
                constexpr std::size_t rowsBetweenQuestions = 1 << 18;
                std::size_t const end = rows * (share + 1) / shares;
                for (std::size_t row = rows * share / shares; row < end && goOn();)
                    for (std::size_t const stop = std::min(end, row + rowsBetweenQuestions);
                         row < stop; ++row)
                        visit(share, row);
            },
            watch);
    }

    void takeAll(RayTransport::Fold how, std::span<std::int64_t> numbers) const {
        if (sharers != nullptr)
            sharers->fold(how, numbers);
    }
    void takeAll(std::span<Part> ofThisRank) const;

    void makeKeys(Middles const& middles);
    bool openCuts(std::int64_t most);
    bool narrowMedians();
    bool assign();

    std::size_t rows;
    std::size_t shares;
    Kelpa::GoOn const& watch;
    RayTransport* sharers; ///< who have further rows; null: all are here
    std::vector<Key> keys; ///< by row
    std::vector<Cut> cuts; ///< of each part
};

/// Makes of parts as they are in the rows of this rank what they are in those of all.
void Parter::takeAll(std::span<Part> ofThisRank) const {
    if (sharers == nullptr)
        return;
    std::vector<std::int64_t> counts;
    std::vector<std::int64_t> ends; // the lower ones negative, so that the greatest count
    for (Part const& part : ofThisRank) {
        counts.push_back(part.count);
        for (Range<std::uint32_t> const& range : part.cells) {
            ends.push_back(-static_cast<std::int64_t>(range.low));
            ends.push_back(range.high);
        }
    }
    sharers->fold(RayTransport::Fold::sum, counts);
    sharers->fold(RayTransport::Fold::greatest, ends);
    for (std::size_t p = 0; p < ofThisRank.size(); ++p) {
        ofThisRank[p].count = counts[p];
        for (std::size_t axis = 0; axis < 3; ++axis)
            ofThisRank[p].cells[axis] = {static_cast<std::uint32_t>(-ends[6 * p + 2 * axis]),
                                         static_cast<std::uint32_t>(ends[6 * p + 2 * axis + 1])};
    }
}

/// Finds the grid and every particle's cell in it. Particles that are nowhere are in the first one.
void Parter::makeKeys(Middles const& middles) {
    std::vector<Ranges<double>> boundsOfShare(shares);
    forEachRow([&](std::size_t share, std::size_t row) {
        if (middles.isFinite(row))
            for (int axis = 0; axis < 3; ++axis)
                boundsOfShare[share][static_cast<std::size_t>(axis)].add(middles.on(axis, row));
    });
    Ranges<double> bounds;
    double longest = 0.0;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        for (Ranges<double> const& ofShare : boundsOfShare)
            bounds[axis].add(ofShare[axis]);
        if (sharers != nullptr) {
            double ends[] = {-bounds[axis].low, bounds[axis].high};
            sharers->takeGreatest(ends);
            bounds[axis] = {-ends[0], ends[1]};
        }
        longest = std::max(longest, bounds[axis].high - bounds[axis].low);
    }
    double const cellsPerLength = longest > 0.0 ? static_cast<double>(axisMask) / longest : 0.0;

    keys.resize(rows);
    partOf.resize(rows);
    parts.resize(1);
    std::vector<Part> partOfShare(shares);
    forEachRow([&](std::size_t share, std::size_t row) {
        Key key = 0;
        for (std::size_t axis = 0; axis < 3; ++axis) {
            double const along =
                (middles.on(static_cast<int>(axis), row) - bounds[axis].low) * cellsPerLength;
            // The first one for what is not a number.
            double const bounded = along > 0.0 ? std::min(along, 0x1p21 - 1.0) : 0.0;
            auto const place = static_cast<std::uint32_t>(middles.isFinite(row) ? bounded : 0.0);
            key |= Key{place} << (axisBits * axis);
            partOfShare[share].cells[axis].add(place);
        }
        keys[row] = key;
    });
    parts[0].count = static_cast<std::int64_t>(rows);
    for (Part const& ofShare : partOfShare)
        for (std::size_t axis = 0; axis < 3; ++axis)
            parts[0].cells[axis].add(ofShare.cells[axis]);
    takeAll(parts);
}

/// Chooses the axes of the next cuts; false when no part is too large.
bool Parter::openCuts(std::int64_t most) {
    cuts.assign(parts.size(), {});
    std::uint32_t children = 0;
    bool isAnyOpen = false;
    for (std::size_t p = 0; p < parts.size(); ++p) {
        Part const& part = parts[p];
        Cut& cut = cuts[p];
        cut.firstChild = children;
        cut.isOpen = part.count > most;
        cut.hasOpenChildren = (part.count + 1) / 2 > most;
        children += cut.isOpen ? 2 : 1;
        if (!cut.isOpen)
            continue;
        isAnyOpen = true;
        auto const length = [&](std::size_t axis) {
            return part.cells[axis].high - part.cells[axis].low;
        };
        std::size_t axis = 0;
        for (std::size_t other = 1; other < 3; ++other)
            axis = length(other) > length(axis) ? other : axis;
        cut.axis = static_cast<int>(axis);
        cut.low = part.cells[axis].low;
        cut.unknownBits = static_cast<unsigned>(std::bit_width(length(axis)));
        cut.ties = (part.count + 1) / 2;
    }
    return isAnyOpen;
}

/// Counts particles by the next bits of their places, until the medians' cells are known.
bool Parter::narrowMedians() {
    // Counters of all parts stay near the processor.
    unsigned const bits = std::clamp(16U - static_cast<unsigned>(std::bit_width(parts.size())), //
                                     4U, 11U);
    auto const isUnknown = [](Cut const& cut) { return cut.unknownBits > 0; };
    while (std::any_of(cuts.begin(), cuts.end(), isUnknown)) {
        std::vector<std::vector<std::int64_t>> counts(shares);
        for (auto& ofShare : counts)
            ofShare.resize(parts.size() << bits);
        bool const isWhole = forEachRow([&](std::size_t share, std::size_t row) {
            std::size_t const p = partOf[row];
            Cut const& cut = cuts[p];
            if (!cut.isOpen || cut.unknownBits == 0)
                return;
            std::uint32_t const place = placeOn(cut.axis, keys[row]) - cut.low;
            unsigned const rest = cut.unknownBits > bits ? cut.unknownBits - bits : 0;
            if (place >> cut.unknownBits == cut.known)
                ++counts[share][(p << bits) + (place >> rest & ((1U << bits) - 1))];
        });
        if (!isWhole)
            return false;
        std::vector<std::int64_t>& all = counts[0];
        for (std::size_t share = 1; share < shares; ++share)
            for (std::size_t bin = 0; bin < all.size(); ++bin)
                all[bin] += counts[share][bin];
        takeAll(RayTransport::Fold::sum, all);
        for (std::size_t p = 0; p < parts.size(); ++p) {
            Cut& cut = cuts[p];
            if (!cut.isOpen || cut.unknownBits == 0)
                continue;
            unsigned const found = std::min(bits, cut.unknownBits);
            std::uint32_t bin = 0;
            for (; cut.ties > all[(p << bits) + bin]; ++bin)
                cut.ties -= all[(p << bits) + bin];
            cut.known = cut.known << found | bin;
            cut.unknownBits -= found;
        }
    }
    for (Cut& cut : cuts)
        cut.cell = cut.low + cut.known;
    return true;
}

/// Cuts all parts: tells every particle its new one.
bool Parter::assign() {
    // Particles in a median's cell go by their rows, so shares must know of those before them.
    std::vector<std::vector<std::int64_t>> tiesBefore(shares);
    for (auto& ofShare : tiesBefore)
        ofShare.resize(parts.size());
    bool const isFirst = shares == 1 && sharers == nullptr;
    bool isWhole = isFirst || forEachRow([&](std::size_t share, std::size_t row) {
                       Cut const& cut = cuts[partOf[row]];
                       if (cut.isOpen && placeOn(cut.axis, keys[row]) == cut.cell)
                           ++tiesBefore[share][partOf[row]];
                   });
    std::vector<std::int64_t> tiesOfRanksBefore(sharers != nullptr ? parts.size() : 0);
    for (auto const& ofShare : tiesBefore)
        for (std::size_t p = 0; p < tiesOfRanksBefore.size(); ++p)
            tiesOfRanksBefore[p] += ofShare[p];
    if (sharers != nullptr)
        sharers->addUpBefore(tiesOfRanksBefore);
    for (std::size_t p = 0; p < parts.size(); ++p) {
        std::int64_t before = sharers != nullptr ? tiesOfRanksBefore[p] : 0;
        for (auto& ofShare : tiesBefore)
            before += std::exchange(ofShare[p], before);
    }
    std::size_t const children = cuts.back().firstChild + (cuts.back().isOpen ? 2U : 1U);
    std::vector<std::vector<Part>> childrenOfShare(shares, std::vector<Part>(children));
    isWhole = isWhole && forEachRow([&](std::size_t share, std::size_t row) {
                  Cut const& cut = cuts[partOf[row]];
                  std::uint32_t child = cut.firstChild;
                  if (cut.isOpen) {
                      std::uint32_t const place = placeOn(cut.axis, keys[row]);
                      bool const isAbove =
                          place > cut.cell ||
                          (place == cut.cell && tiesBefore[share][partOf[row]]++ >= cut.ties);
                      child += isAbove ? 1 : 0;
                  }
                  partOf[row] = child;
                  Part& part = childrenOfShare[share][child];
                  ++part.count;
                  if (!cut.hasOpenChildren)
                      return;
                  for (int axis = 0; axis < 3; ++axis)
                      part.cells[static_cast<std::size_t>(axis)].add(placeOn(axis, keys[row]));
              });
    parts.assign(children, {});
    for (auto const& ofShare : childrenOfShare)
        for (std::size_t p = 0; p < children; ++p) {
            parts[p].count += ofShare[p].count;
            for (std::size_t axis = 0; axis < 3; ++axis)
                parts[p].cells[axis].add(ofShare[p].cells[axis]);
        }
    takeAll(parts);
    return isWhole;
}

void Parter::partTo(std::int64_t most) {
    while (openCuts(most) && narrowMedians() && assign()) {
        // A level more.
    }
}

/// How many rows of each part each share has.
std::vector<std::vector<std::int64_t>> Parter::countByShare() {
    keys = {};
    std::vector<std::vector<std::int64_t>> counts(shares);
    for (auto& ofShare : counts)
        ofShare.resize(parts.size());
    forEachRow([&](std::size_t share, std::size_t row) { ++counts[share][partOf[row]]; });
    return counts;
}

} // namespace

Parting::Parting(std::span<Vector const> begins, std::span<Vector const> ends, std::int64_t most,
                 int threads, Kelpa::GoOn const& goOn, RayTransport* others)
    : threadCount(threads), sharers(others) {
    auto const total = static_cast<std::int64_t>(begins.size());
    if (total <= most && sharers == nullptr) {
        firstPlaces = {0, total};
        return;
    }
    Parter parter({begins, ends}, threads, goOn, sharers);
    parter.partTo(most);
    shareFirsts = parter.countByShare();
    blockOf = std::move(parter.partOf);
    firstPlaces = {0};
    for (std::size_t block = 0, next = 0; block < parter.parts.size(); ++block) {
        std::size_t const first = next;
        for (auto& ofShare : shareFirsts)
            next += static_cast<std::size_t>(
                std::exchange(ofShare[block], static_cast<std::int64_t>(next)));
        rowsHere.push_back(static_cast<std::int64_t>(next - first));
        firstPlaces.push_back(firstPlaces.back() + parter.parts[block].count);
    }
    if (sharers != nullptr)
        learnCounts();
}

Rows Parting::rows() const {
    if (sharers != nullptr)
        return sharedRows();
    if (firstPlaces.size() <= 2)
        return {};
    Rows result(blockOf.size());
    scatter([&](std::size_t row, std::size_t place) { result.set(place, row); });
    return result;
}

} // namespace pipeline
