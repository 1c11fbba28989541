// Reads XTC trajectories.
#include "pipeline/files/columnuses.h"
#include "pipeline/files/formats/frames.h"
#include "pipeline/files/formats/readers.h"
#include "pipeline/files/formats/trajectories/xdr.h"
#include "pipeline/files/textvalues.h"

#include <array>
#include <limits>
#include <vector>

// XTC, trajectories of GROMACS: per frame a header, the box and the places in nanometres, rounded
// to whole numbers of a thousandth or so and packed. An atom is told by its place in the box around
// all, or by its way from the atom before, in numbers of a few bits whose range grows and shrinks
// by steps (D. van der Spoel and others, GROMACS reference manual, "xtc"; F. van Hoesel's
// coordinate packing).

namespace pipeline {

namespace {

constexpr VectorColumns positionNames[] = {{"x y z", {"x", "y", "z"}}};
constexpr ColumnNames xtcNames = {"column", positionNames, {}, {}, {}};

using Whole = std::array<std::int32_t, 3>;
using Sizes = std::array<std::uint32_t, 3>;

/// How many different values a small number may have, by the number of its bits in three: about
/// 2^(n/3).
constexpr std::array<std::uint32_t, 73> ranges = {
    0,        0,        0,       0,       0,       0,       0,       0,       0,       8,
    10,       12,       16,      20,      25,      32,      40,      50,      64,      80,
    101,      128,      161,     203,     256,     322,     406,     512,     645,     812,
    1024,     1290,     1625,    2048,    2580,    3250,    4096,    5060,    6501,    8192,
    10321,    13003,    16384,   20642,   26007,   32768,   41285,   52015,   65536,   82570,
    104031,   131072,   165140,  208063,  262144,  330280,  416127,  524287,  660561,  832255,
    1048576,  1321122,  1664510, 2097152, 2642245, 3329021, 4194304, 5284491, 6658042, 8388607,
    10568983, 13316085, 16777216};
constexpr int firstRange = 9;
constexpr int lastRange = static_cast<int>(ranges.size()) - 1;

/// Takes numbers of any bits off some bytes, the highest bit first.
class BitReader {
  public:
    explicit BitReader(std::string_view packed) : bytes(packed) {}

    bool hasEnded() const { return pastEnd; }
    std::uint32_t take(int count) {
        std::uint64_t number = 0;
        for (int left = count; left > 0;) {
            if (available == 0) {
                pastEnd = pastEnd || next == bytes.size();
                current = pastEnd ? 0U : static_cast<unsigned char>(bytes[next++]);
                available = 8;
            }
            int const taken = std::min(left, available);
            available -= taken;
            left -= taken;
            number = (number << taken) | ((current >> available) & ((1U << taken) - 1U));
        }
        return static_cast<std::uint32_t>(number);
    }
    /// Three numbers below `sizes` that were packed into one of `count` bits, its low bytes first.
    Whole takeThree(int count, Sizes const& sizes) {
        std::array<std::uint32_t, 12> digits{}; // base 256
        int length = 0;
        for (; count > 8; count -= 8)
            digits[static_cast<std::size_t>(length++)] = take(8);
        if (count > 0)
            digits[static_cast<std::size_t>(length++)] = take(count);
        Whole numbers{};
        for (std::size_t axis = 2; axis > 0; --axis) {
            std::uint64_t rest = 0;
            for (int at = length - 1; at >= 0; --at) {
                std::uint32_t& digit = digits[static_cast<std::size_t>(at)];
                rest = (rest << 8) | digit;
                digit = static_cast<std::uint32_t>(rest / sizes[axis]);
                rest %= sizes[axis];
            }
            numbers[axis] = static_cast<std::int32_t>(rest);
        }
        numbers[0] = static_cast<std::int32_t>(digits[0] | digits[1] << 8 | digits[2] << 16 |
                                               digits[3] << 24);
        return numbers;
    }

  private:
    std::string_view bytes;
    std::size_t next = 0;
    std::uint32_t current = 0;
    int available = 0;
    bool pastEnd = false;
};

/// Bits of a number up to `size`.
int bitsOf(std::uint32_t size) {
    return static_cast<int>(std::bit_width(size));
}

/// Bits of three numbers below `sizes` that are packed into one: those of their product.
int bitsOfThree(Sizes const& sizes) {
    std::array<std::uint32_t, 12> digits{1};
    std::size_t length = 1;
    for (std::uint32_t const size : sizes) {
        std::uint64_t carry = 0;
        std::size_t at = 0;
        for (; at < length || carry > 0; ++at) {
            carry += std::uint64_t{digits[at]} * size;
            digits[at] = static_cast<std::uint32_t>(carry & 0xFF);
            carry >>= 8;
        }
        length = at;
    }
    return static_cast<int>(8 * (length - 1)) + bitsOf(digits[length - 1]);
}

/// What the packed places of a frame begin with.
struct Packing {
    float precision = 0.0F;
    Whole least{};
    Whole most{};
    std::int32_t smallRange = 0;
    std::uint64_t bytes = 0;
};

/// Unpacks places one after the other.
class Unpacker {
  public:
    Unpacker(Packing const& form, std::string_view bytes)
        : packing(form), bits(bytes), step(form.smallRange),
          scale(static_cast<float>(1.0 / static_cast<double>(form.precision))) {
        bool isLarge = false;
        for (std::size_t axis = 0; axis < 3; ++axis) {
            sizes[axis] = static_cast<std::uint32_t>(packing.most[axis]) -
                          static_cast<std::uint32_t>(packing.least[axis]) + 1U;
            isLarge = isLarge || sizes[axis] > 0xFFFFFF;
        }
        together = isLarge ? 0 : bitsOfThree(sizes);
        reach = static_cast<std::int32_t>(rangeAt(step) / 2);
        lesserReach = static_cast<std::int32_t>(rangeAt(std::max(firstRange, step - 1)) / 2);
    }

    /// Appends an atom and those that are told by their ways from it. False when the data is
    /// damaged.
    bool appendRun(std::vector<float>& places, std::size_t most) {
        Whole previous = takeWhole();
        int change = 0;
        if (bits.take(1) == 1) {
            run = static_cast<int>(bits.take(5));
            change = run % 3;
            run -= change;
            --change;
        }
        if (run == 0)
            append(previous, places);
        Sizes const small = {rangeAt(step), rangeAt(step), rangeAt(step)};
        for (int at = 0; at < run; at += 3) {
            Whole place = bits.takeThree(step, small);
            for (std::size_t axis = 0; axis < 3; ++axis)
                place[axis] = wrapped(std::int64_t{place[axis]} + previous[axis] - reach);
            if (at == 0) { // the oxygen of a water stands behind its first hydrogen
                append(place, places);
                append(previous, places);
            } else {
                append(place, places);
            }
            previous = place;
        }
        return changeRange(change) && !bits.hasEnded() && places.size() <= most;
    }

  private:
    static std::uint32_t rangeAt(int index) { return ranges[static_cast<std::size_t>(index)]; }
    static std::int32_t wrapped(std::int64_t number) {
        return static_cast<std::int32_t>(static_cast<std::uint32_t>(number));
    }

    Whole takeWhole() {
        Whole place{};
        if (together > 0)
            place = bits.takeThree(together, sizes);
        else
            for (std::size_t axis = 0; axis < 3; ++axis)
                place[axis] = static_cast<std::int32_t>(bits.take(bitsOf(sizes[axis])));
        for (std::size_t axis = 0; axis < 3; ++axis)
            place[axis] = wrapped(std::int64_t{place[axis]} + packing.least[axis]);
        return place;
    }

    void append(Whole const& place, std::vector<float>& places) const {
        for (std::int32_t const number : place)
            places.push_back(static_cast<float>(number) * scale);
    }

    bool changeRange(int change) {
        step += change;
        if (step < firstRange || step > lastRange)
            return false;
        if (change < 0) {
            reach = lesserReach;
            lesserReach = step > firstRange ? static_cast<std::int32_t>(rangeAt(step - 1) / 2) : 0;
        } else if (change > 0) {
            lesserReach = reach;
            reach = static_cast<std::int32_t>(rangeAt(step) / 2);
        }
        return true;
    }

    Packing const& packing;
    BitReader bits;
    int step; ///< index of the range of ways
    float scale;
    Sizes sizes{};
    int together = 0;             ///< bits of a whole place; 0: each axis has its own
    std::int32_t reach = 0;       ///< half the range of ways
    std::int32_t lesserReach = 0; ///< that of the next smaller one
    int run = 0;                  ///< three times the atoms that ways tell; stays until told anew
};

class XtcFrames final : public FrameFormat {
  public:
    bool begin(InputFile& file, int index) override;
    void skip(InputFile& file) override;
    ParticleSet read(InputFile& file, ReadOptions const& options) override;

  private:
    std::vector<float> takePlaces(InputFile& file);
    Packing takePacking(InputFile& file);
    bool isPlain() const { return atoms <= 9; } // so few are not packed

    std::string name; ///< for messages: "frame 3"
    bool isWide = false;
    std::int64_t step = 0;
    double time = 0.0;
    std::uint64_t atoms = 0;
    std::uint64_t padded = 0; ///< bytes of the packed places as they lie in the file
    PeriodicCell cell;
};

bool XtcFrames::begin(InputFile& file, int index) {
    constexpr std::int32_t usualMagic = 1995;
    constexpr std::int32_t wideMagic = 2023; // counts of bytes beyond 32 bits
    if (file.peek(1).empty())
        return false;
    name = fmt::format("frame {}", index);
    auto const magic = takeXdrNumber<std::int32_t>(file, name);
    isWide = magic == wideMagic;
    if (magic != usualMagic && !isWide)
        file.fail("{} where {}, a frame of XTC, begins with {}; the file is damaged", magic, name,
                  usualMagic);
    auto const count = takeXdrNumber<std::int32_t>(file, name);
    step = takeXdrNumber<std::int32_t>(file, name);
    time = static_cast<double>(takeXdrNumber<float>(file, name));
    cell = {};
    for (auto& edge : cell.edges)
        for (double& part : edge)
            part = static_cast<double>(takeXdrNumber<float>(file, name));
    for (std::size_t edge = 0; edge < 3; ++edge)
        cell.isPeriodic[edge] = cell.edges[edge][edge] > 0.0;
    auto const again = takeXdrNumber<std::int32_t>(file, name);
    if (count < 0 || again != count)
        file.fail("{} has {} atoms and {} places; the file is damaged", name, count, again);
    atoms = static_cast<std::uint64_t>(count);
    return true;
}

/// What the packed places begin with, up to their bytes.
Packing XtcFrames::takePacking(InputFile& file) {
    Packing packing;
    packing.precision = takeXdrNumber<float>(file, name);
    for (Whole* const corner : {&packing.least, &packing.most})
        for (std::int32_t& part : *corner)
            part = takeXdrNumber<std::int32_t>(file, name);
    packing.smallRange = takeXdrNumber<std::int32_t>(file, name);
    packing.bytes = isWide ? takeXdrNumber<std::uint64_t>(file, name)
                           : takeXdrNumber<std::uint32_t>(file, name);
    bool isGood = packing.precision > 0.0F && packing.smallRange >= firstRange &&
                  packing.smallRange <= lastRange &&
                  packing.bytes < std::uint64_t{1} << 40; // else a sum might not fit
    for (std::size_t axis = 0; axis < 3; ++axis)
        isGood = isGood && packing.most[axis] >= packing.least[axis] &&
                 // A range of all 32 bits is no number of them.
                 !(packing.least[axis] == std::numeric_limits<std::int32_t>::min() &&
                   packing.most[axis] == std::numeric_limits<std::int32_t>::max());
    if (!isGood)
        file.fail("the places of {} are packed in no way that XTC has; the file is damaged", name);
    padded = (packing.bytes + 3) / 4 * 4;
    return packing;
}

std::vector<float> XtcFrames::takePlaces(InputFile& file) {
    std::vector<float> places;
    std::size_t const wanted = 3 * static_cast<std::size_t>(atoms);
    if (isPlain()) {
        for (std::size_t i = 0; i < wanted; ++i)
            places.push_back(takeXdrNumber<float>(file, name));
        return places;
    }
    Packing const packing = takePacking(file);
    Unpacker unpacker(packing, takeXdr(file, padded, name).substr(0, packing.bytes));
    while (places.size() < wanted)
        if (!unpacker.appendRun(places, wanted))
            file.fail("the packed places of {} tell {} of {} atoms; the file is damaged", name,
                      places.size() / 3, atoms);
    return places;
}

void XtcFrames::skip(InputFile& file) {
    std::uint64_t left = 3 * sizeof(float) * atoms;
    if (!isPlain()) {
        takePacking(file);
        left = padded;
    }
    if (file.skip(left) < left)
        file.fail("the file ends within {}; it is incomplete", name);
}

ParticleSet XtcFrames::read(InputFile& file, ReadOptions const& options) {
    std::vector<float> const places = takePlaces(file);
    ParticleSet particles;
    particles.format = "XTC";
    particles.step = step;
    particles.time = time;
    particles.angstrom = 0.1F;
    particles.cell = cell;
    std::vector<Column> columns;
    for (std::string_view const axis : positionNames[0].names)
        columns.push_back({std::string(axis), "float", ScalarType::float32, ScalarType::float32,
                           columns.size() * sizeof(float)});
    RowConverter converter(particles, columns,
                           chooseUses(file, columns, xtcNames, options, particles),
                           options.summarise);
    converter.append(reinterpret_cast<char const*>(places.data()), places.size() / 3,
                     3 * sizeof(float), false);
    file.particles += places.size() / 3;
    return particles;
}

} // namespace

std::unique_ptr<FrameFormat> makeXtcFrames(ReadOptions const&) {
    return std::make_unique<XtcFrames>();
}

} // namespace pipeline
