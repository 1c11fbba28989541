// Reads binary dumps of LAMMPS, frame after frame.
#include "pipeline/files/formats/frames.h"
#include "pipeline/files/formats/lammps/lammpscolumns.h"
#include "pipeline/files/formats/readers.h"
#include "pipeline/files/textvalues.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// Binary dumps of styles atom and custom: a frame is a header and then the rows of each processor,
// behind their number of values, all of which are doubles, of the byte order of the machine that
// wrote them. Since 2021 a frame begins with a name and a revision, and tells units, time and the
// names of its columns; before, it told none of these.

namespace pipeline {

namespace {

constexpr std::size_t mostColumns = 1000;

/// How a file writes its numbers.
struct BinaryForm {
    bool isForeign = false; ///< of the other byte order
};

template <class Number> Number numberAt(char const* bytes, bool isForeign) {
    std::array<char, sizeof(Number)> raw;
    std::memcpy(raw.data(), bytes, sizeof(Number));
    if (isForeign)
        std::reverse(raw.begin(), raw.end());
    return std::bit_cast<Number>(raw);
}

/// Whether these are the numbers that a header without a name begins with.
bool isOldHeader(std::string_view head, bool isForeign) {
    constexpr std::size_t boundsBegin = 8 + 8 + 4 + (6 * 4);
    if (head.size() < boundsBegin + (6 * 8) + 4)
        return false;
    auto const whole = [&](std::size_t at) {
        return numberAt<std::int32_t>(head.data() + at, isForeign);
    };
    auto const step = numberAt<std::int64_t>(head.data(), isForeign);
    auto const atoms = numberAt<std::int64_t>(head.data() + 8, isForeign);
    constexpr std::int64_t most = std::int64_t{1} << 40;
    bool isGood = step >= 0 && step < most << 16 && atoms >= 0 && atoms < most &&
                  (whole(16) == 0 || whole(16) == 1);
    for (std::size_t face = 0; face < 6; ++face)
        isGood = isGood && whole(20 + 4 * face) >= 0 && whole(20 + 4 * face) <= 3;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        char const* const bounds = head.data() + boundsBegin + 16 * axis;
        double const size =
            numberAt<double>(bounds + 8, isForeign) - numberAt<double>(bounds, isForeign);
        isGood = isGood && size > 0.0 && std::isfinite(size);
    }
    return isGood;
}

std::optional<BinaryForm> formOf(std::string_view head) {
    constexpr std::size_t longestName = 64;
    for (bool const isForeign : {false, true}) {
        if (head.size() < 8)
            break;
        auto const first = numberAt<std::int64_t>(head.data(), isForeign);
        auto const length = static_cast<std::size_t>(first < 0 && first > -100 ? -first : 0);
        if (length > 0 && length <= longestName && head.substr(8).starts_with("DUMP"))
            return BinaryForm{isForeign};
        if (isOldHeader(head, isForeign))
            return BinaryForm{isForeign};
    }
    return std::nullopt;
}

class BinaryDumpFrames final : public FrameFormat {
  public:
    bool begin(InputFile& file, int index) override;
    void skip(InputFile& file) override;
    ParticleSet read(InputFile& file, ReadOptions const& options) override;

  private:
    std::string_view take(InputFile& file, std::uint64_t bytes);
    template <class Number> Number takeNumber(InputFile& file) {
        return numberAt<Number>(take(file, sizeof(Number)).data(), form.isForeign);
    }
    std::string takeText(InputFile& file, std::string_view what);
    void takeName(InputFile& file, std::int64_t length);
    void takeBox(InputFile& file);
    void takeColumns(InputFile& file);
    std::uint64_t takeChunk(InputFile& file);
    RowLayout layoutOf(InputFile& file, ParticleSet& particles);
    std::string namesByCount(InputFile& file, ParticleSet& particles);

    BinaryForm form;
    std::string name; ///< for messages: "frame 3"
    Hint wayOn;
    std::int64_t step = 0;
    std::optional<double> time;
    std::uint64_t atoms = 0;
    PeriodicCell cell;
    std::int32_t revision = 0; ///< 0: a header without a name
    std::size_t rowValues = 0;
    std::string columns; ///< their names; empty: the file does not tell
    std::int32_t chunks = 0;
};

std::string_view BinaryDumpFrames::take(InputFile& file, std::uint64_t count) {
    std::string_view const bytes = file.peek(static_cast<std::size_t>(count));
    if (bytes.size() < count)
        file.fail(wayOn, "the file ends within {}; it is incomplete", name);
    file.take(static_cast<std::size_t>(count));
    return bytes.substr(0, static_cast<std::size_t>(count));
}

std::string BinaryDumpFrames::takeText(InputFile& file, std::string_view what) {
    constexpr std::int32_t longest = 1 << 20;
    auto const length = takeNumber<std::int32_t>(file);
    if (length < 0 || length > longest)
        file.fail(wayOn, "{} of {} have {} letters; the file is damaged", what, name, length);
    return std::string(take(file, static_cast<std::uint64_t>(length)));
}

/// Takes the name of the style and what follows it up to the step.
void BinaryDumpFrames::takeName(InputFile& file, std::int64_t length) {
    constexpr std::int64_t longest = 64;
    if (length > longest || !take(file, static_cast<std::uint64_t>(length)).starts_with("DUMP"))
        file.fail(wayOn,
                  "{} does not begin as dumps of styles atom and custom do; the file is "
                  "damaged",
                  name);
    constexpr std::int32_t endianMark = 1;
    if (auto const mark = takeNumber<std::int32_t>(file); mark != endianMark)
        file.fail(wayOn, "{} has the mark {} of its byte order where {} belongs", name, mark,
                  endianMark);
    revision = takeNumber<std::int32_t>(file);
    step = takeNumber<std::int64_t>(file);
}

void BinaryDumpFrames::takeBox(InputFile& file) {
    auto const tilt = takeNumber<std::int32_t>(file);
    if (tilt != 0 && tilt != 1)
        file.fail(wayOn, "{} has a box of kind {}; plain and tilted ones, 0 and 1, are read", name,
                  tilt);
    std::array<bool, 3> isPeriodic{};
    for (bool& along : isPeriodic) {
        bool const low = takeNumber<std::int32_t>(file) == 0;
        along = takeNumber<std::int32_t>(file) == 0 && low;
    }
    std::array<std::array<double, 4>, 3> bounds{};
    for (auto& axis : bounds) {
        axis[0] = takeNumber<double>(file);
        axis[1] = takeNumber<double>(file);
    }
    for (auto& axis : bounds)
        axis[2] = tilt == 1 ? takeNumber<double>(file) : 0.0;
    cell = cellOfBounds(bounds, tilt == 1, false);
    cell.isPeriodic = isPeriodic;
}

void BinaryDumpFrames::takeColumns(InputFile& file) {
    columns.clear();
    time.reset();
    if (revision < 2)
        return;
    takeText(file, "the units");
    if (take(file, 1)[0] != 0)
        time = takeNumber<double>(file);
    columns = takeText(file, "the columns");
}

bool BinaryDumpFrames::begin(InputFile& file, int index) {
    std::string_view const head = file.peek(128);
    if (head.empty())
        return false;
    name = fmt::format("frame {}", index);
    wayOn = index > 0 ? Hint{Hint::To::readEarlierFrame, index - 1} : Hint{};
    if (index == 0) {
        std::optional<BinaryForm> const found = formOf(head);
        if (!found)
            file.fail("it does not begin as a binary dump of LAMMPS does");
        form = *found;
    }
    revision = 0;
    step = takeNumber<std::int64_t>(file);
    if (step < 0)
        takeName(file, step == INT64_MIN ? INT64_MAX : -step);
    auto const count = takeNumber<std::int64_t>(file);
    takeBox(file);
    auto const values = takeNumber<std::int32_t>(file);
    takeColumns(file);
    chunks = takeNumber<std::int32_t>(file);
    if (step < 0 || count < 0 || chunks < 0 || values < 1 ||
        static_cast<std::size_t>(values) > mostColumns)
        file.fail(wayOn,
                  "{} tells of step {}, {} atoms of {} values, and {} parts; the file is damaged",
                  name, step, count, values, chunks);
    atoms = static_cast<std::uint64_t>(count);
    rowValues = static_cast<std::size_t>(values);
    return true;
}

/// The number of rows that a processor wrote, which follow.
std::uint64_t BinaryDumpFrames::takeChunk(InputFile& file) {
    auto const values = takeNumber<std::int32_t>(file);
    if (values < 0 || static_cast<std::size_t>(values) % rowValues != 0)
        file.fail(wayOn, "{} has a part of {} values, which are no rows of {}; the file is damaged",
                  name, values, rowValues);
    return static_cast<std::uint64_t>(values) / rowValues;
}

void BinaryDumpFrames::skip(InputFile& file) {
    for (std::int32_t chunk = 0; chunk < chunks; ++chunk) {
        std::uint64_t const bytes = takeChunk(file) * rowValues * sizeof(double);
        if (file.skip(bytes) < bytes)
            file.fail(wayOn, "the file ends within {}; it is incomplete", name);
    }
}

/// The names of columns that a file does not tell, from their number; the rows, which are at hand,
/// tell whether places are fractions of the box.
std::string BinaryDumpFrames::namesByCount(InputFile& file, ParticleSet& particles) {
    if (rowValues != 5 && rowValues != 8)
        file.fail("its rows have {} values and it does not name them; dump it again with LAMMPS of "
                  "2021 or later, or make text of it by LAMMPS' binary2txt",
                  rowValues);
    constexpr std::size_t looked = 1000; // rows
    std::size_t const rowBytes = rowValues * sizeof(double);
    std::string_view rows = file.peek(sizeof(std::int32_t) + looked * rowBytes);
    rows.remove_prefix(std::min(rows.size(), sizeof(std::int32_t)));
    bool areFractions = true;
    auto const inPart = static_cast<std::size_t>(std::min<std::uint64_t>(atoms, looked));
    for (std::size_t row = 0; chunks == 1 && row < inPart && (row + 1) * rowBytes <= rows.size();
         ++row)
        for (std::size_t axis = 2; axis < 5; ++axis) {
            double const part =
                numberAt<double>(rows.data() + row * rowBytes + axis * 8, form.isForeign);
            areFractions = areFractions && part >= -0.5 && part <= 1.5;
        }
    std::string names = std::string(areFractions ? "id type xs ys zs" : "id type x y z") +
                        (rowValues == 8 ? " ix iy iz" : "");
    particles.notes.push_back(
        fmt::format("{}: it names no columns, as all of before 2021; they are "
                    "read as {}",
                    file.path(), names));
    return names;
}

RowLayout BinaryDumpFrames::layoutOf(InputFile& file, ParticleSet& particles) {
    RowLayout layout;
    std::string const known = columns.empty() ? namesByCount(file, particles) : columns;
    std::string_view names = known;
    for (std::string_view each = nextWord(names); !each.empty(); each = nextWord(names)) {
        layout.columns.push_back({std::string(each), "double", ScalarType::float64,
                                  ScalarType::float64, layout.rowBytes});
        layout.rowBytes += sizeof(double);
    }
    if (layout.columns.size() != rowValues)
        file.fail(wayOn, "{} names {} columns, and its rows have {} values; the file is damaged",
                  name, layout.columns.size(), rowValues);
    return layout;
}

ParticleSet BinaryDumpFrames::read(InputFile& file, ReadOptions const& options) {
    ParticleSet particles;
    RowLayout layout = layoutOf(file, particles);
    DumpPlaces const places(layout, options.forMotion);
    std::function<void(char*)> derive;
    std::size_t const storedBytes = layout.rowBytes;
    if (!places.fractions().empty())
        derive = places.derive(layout, cell);
    particles.format = "LAMMPS binary dump";
    particles.cell = cell;
    particles.isUnwrapped = !places.isWrapped();
    particles.step = step;
    particles.time = time;
    // Names of elements are not in it: what a column of this name counts are types.
    ColumnNames names = places.names(false);
    names.element = {};
    RowConverter converter(particles, layout.columns,
                           chooseUses(file, layout.columns, names, options, particles),
                           options.summarise);
    converter.reserve(plausibleRows(file, atoms, storedBytes));

    std::uint64_t left = 0; // rows of the part
    std::int32_t begun = 0; // parts
    readRows(file, atoms, layout.rowBytes, false, converter, [&](char* row) {
        for (; left == 0 && begun < chunks; ++begun)
            left = takeChunk(file);
        if (left == 0)
            file.fail(wayOn, "{} ends after {} of {} rows; the file is damaged", name,
                      file.particles, atoms);
        --left;
        std::memcpy(row, take(file, storedBytes).data(), storedBytes);
        for (std::size_t value = 0; form.isForeign && value < storedBytes; value += sizeof(double))
            std::reverse(row + value, row + value + sizeof(double));
        if (derive)
            derive(row);
        return true;
    });
    for (; left == 0 && begun < chunks; ++begun)
        left = takeChunk(file);
    if (left > 0)
        file.fail(wayOn, "{} goes on behind its {} rows; the file is damaged", name, atoms);
    return particles;
}

} // namespace

bool isLammpsBinary(std::string_view head) {
    return formOf(head).has_value();
}

std::unique_ptr<FrameFormat> makeLammpsBinaryFrames(ReadOptions const&) {
    return std::make_unique<BinaryDumpFrames>();
}

} // namespace pipeline
