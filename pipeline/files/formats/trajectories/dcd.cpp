// Reads DCD trajectories.
#include "pipeline/files/columnuses.h"
#include "pipeline/files/formats/cellofangles.h"
#include "pipeline/files/formats/frames.h"
#include "pipeline/files/formats/readers.h"
#include "pipeline/files/textvalues.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <optional>
#include <vector>

// DCD, trajectories of CHARMM, NAMD, X-PLOR and LAMMPS: records as Fortran writes them, each
// between two markers of 4 or 8 bytes that tell its length, of either byte order. Behind a header,
// titles and the number of atoms each frame has perhaps a cell and then all x, all y and all z.
// Atoms may be fixed: then only the first frame has those.

namespace pipeline {

namespace {

constexpr VectorColumns positionNames[] = {{"x y z", {"x", "y", "z"}}};
constexpr ColumnNames dcdNames = {"column", positionNames, {}, {}, {}};
constexpr std::uint64_t headerBytes = 84;

/// How a file writes its records.
struct RecordForm {
    bool isForeign = false; ///< of the other byte order
    bool isWide = false;    ///< markers of 8 bytes

    std::size_t markerBytes() const { return isWide ? 8 : 4; }
};

template <class Number> Number numberAt(char const* bytes, bool isForeign) {
    std::array<char, sizeof(Number)> raw;
    std::memcpy(raw.data(), bytes, sizeof(Number));
    if (isForeign)
        std::reverse(raw.begin(), raw.end());
    return std::bit_cast<Number>(raw);
}

/// The form that a file's first marker tells; nothing when it is none of a DCD file.
std::optional<RecordForm> formOf(std::string_view head) {
    constexpr std::string_view magic = "CORD";
    for (bool const isWide : {false, true})
        for (bool const isForeign : {false, true}) {
            RecordForm const form{isForeign, isWide};
            if (head.substr(std::min(head.size(), form.markerBytes()), magic.size()) != magic)
                continue;
            std::uint64_t const length = isWide ? numberAt<std::uint64_t>(head.data(), isForeign)
                                                : numberAt<std::uint32_t>(head.data(), isForeign);
            if (length == headerBytes)
                return form;
        }
    return std::nullopt;
}

class DcdFrames final : public FrameFormat {
  public:
    bool begin(InputFile& file, int number) override;
    void skip(InputFile& file) override;
    ParticleSet read(InputFile& file, ReadOptions const& options) override;

  private:
    std::uint64_t takeMarker(InputFile& file);
    std::string_view takeRecord(InputFile& file, std::uint64_t expected, std::string_view what);
    void readHeader(InputFile& file);
    void readFixedAtoms(InputFile& file);
    void readCell(InputFile& file);
    void readAxis(InputFile& file, std::size_t axis);
    void readFrame(InputFile& file);
    [[noreturn]] void failEnd(InputFile const& file, std::string_view what) const;

    RecordForm form;
    int frame = 0;
    std::int64_t firstStep = 0;
    std::int64_t stepsBetween = 0; ///< 0: the file does not tell
    bool hasCell = false;
    bool hasFourth = false; ///< a fourth coordinate, which is passed over
    std::uint64_t atoms = 0;
    std::vector<std::uint32_t> freeAtoms; ///< counted from 0; empty: all are free
    std::optional<PeriodicCell> cell;
    std::array<std::vector<float>, 3> places; ///< of the last frame that was read
};

void DcdFrames::failEnd(InputFile const& file, std::string_view what) const {
    file.fail("the file ends within {} of frame {}; it is incomplete{}", what, frame,
              frame > 0 ? fmt::format(", use --frame {} or an earlier one", frame - 1) : "");
}

/// The length that a marker tells.
std::uint64_t DcdFrames::takeMarker(InputFile& file) {
    std::string_view const bytes = file.peek(form.markerBytes());
    if (bytes.size() < form.markerBytes())
        failEnd(file, "a record");
    std::uint64_t const length = form.isWide
                                     ? numberAt<std::uint64_t>(bytes.data(), form.isForeign)
                                     : numberAt<std::uint32_t>(bytes.data(), form.isForeign);
    file.take(form.markerBytes());
    return length;
}

/// The bytes of the next record, valid until more is read: as many as `expected`, unless that is 0.
std::string_view DcdFrames::takeRecord(InputFile& file, std::uint64_t expected,
                                       std::string_view what) {
    constexpr std::uint64_t longest = std::uint64_t{1} << 34;
    std::uint64_t const length = takeMarker(file);
    if ((expected != 0 && length != expected) || length > longest)
        file.fail("frame {}: a record of {} bytes where {} ({} bytes) belongs; the file is damaged",
                  frame, length, what, expected);
    std::size_t const whole = static_cast<std::size_t>(length) + form.markerBytes();
    std::string_view const bytes = file.peek(whole);
    if (bytes.size() < whole)
        failEnd(file, what);
    file.take(whole);
    return bytes.substr(0, static_cast<std::size_t>(length));
}

void DcdFrames::readHeader(InputFile& file) {
    std::optional<RecordForm> const found = formOf(file.peek(16));
    if (!found)
        file.fail("a DCD file starts with a record of 84 bytes that begins with CORD");
    form = *found;
    std::array<std::int32_t, 20> control{};
    std::string_view const header = takeRecord(file, headerBytes, "the header");
    for (std::size_t i = 0; i < control.size(); ++i)
        control[i] = numberAt<std::int32_t>(header.data() + 4 + 4 * i, form.isForeign);
    bool const isCharmm = control[19] != 0; // else X-PLOR, whose step takes two words
    firstStep = control[1];
    stepsBetween = control[2];
    hasCell = isCharmm && control[10] != 0;
    hasFourth = isCharmm && control[11] != 0;
    takeRecord(file, 0, "the titles");
    std::string_view const count = takeRecord(file, 4, "the number of atoms");
    auto const signedAtoms = numberAt<std::int32_t>(count.data(), form.isForeign);
    auto const fixed = control[8];
    if (signedAtoms <= 0 || fixed < 0 || fixed >= signedAtoms)
        file.fail("{} atoms, of which {} are fixed; the file is damaged", signedAtoms, fixed);
    atoms = static_cast<std::uint64_t>(signedAtoms);
    freeAtoms.clear();
    if (fixed == 0)
        return;
    std::uint64_t const freeCount = atoms - static_cast<std::uint64_t>(fixed);
    std::string_view const indices = takeRecord(file, 4 * freeCount, "the list of free atoms");
    for (std::uint64_t i = 0; i < freeCount; ++i) {
        auto const index = numberAt<std::int32_t>(indices.data() + 4 * i, form.isForeign);
        if (index < 1 || index > signedAtoms)
            file.fail("atom {} of {} is listed as free; the file is damaged", index, atoms);
        freeAtoms.push_back(static_cast<std::uint32_t>(index - 1));
    }
}

bool DcdFrames::begin(InputFile& file, int number) {
    frame = number;
    if (number == 0)
        readHeader(file);
    return !file.peek(1).empty();
}

/// The lengths of the edges with the angles between, or their cosines, in an order of their own.
void DcdFrames::readCell(InputFile& file) {
    constexpr std::size_t values = 6;
    std::string_view const record = takeRecord(file, values * sizeof(double), "the cell");
    std::array<double, values> number{};
    for (std::size_t i = 0; i < values; ++i)
        number[i] = numberAt<double>(record.data() + i * sizeof(double), form.isForeign);
    std::array<double, 3> angles = {number[4], number[3], number[1]};
    if (std::all_of(angles.begin(), angles.end(),
                    [](double angle) { return std::abs(angle) <= 1.0; }))
        for (double& angle : angles)
            angle = angle == 0.0 ? 90.0 : std::acos(angle) * (180.0 / 3.14159265358979323846);
    cell = cellOfAngles({number[0], number[2], number[5]}, angles);
}

void DcdFrames::readAxis(InputFile& file, std::size_t axis) {
    bool const isPart = frame > 0 && !freeAtoms.empty();
    std::uint64_t const count = isPart ? freeAtoms.size() : atoms;
    std::string_view const record = takeRecord(file, count * sizeof(float), "coordinates");
    std::vector<float>& values = places[axis];
    values.resize(static_cast<std::size_t>(atoms));
    for (std::uint64_t i = 0; i < count; ++i)
        values[isPart ? freeAtoms[i] : i] =
            numberAt<float>(record.data() + i * sizeof(float), form.isForeign);
}

void DcdFrames::readFrame(InputFile& file) {
    cell.reset();
    if (hasCell)
        readCell(file);
    for (std::size_t axis = 0; axis < 3; ++axis)
        readAxis(file, axis);
    if (hasFourth)
        takeRecord(file, 0, "the fourth coordinate");
}

void DcdFrames::skip(InputFile& file) {
    if (frame == 0 && !freeAtoms.empty())
        return readFrame(file); // later frames lack the atoms that are fixed
    for (int record = 0; record < 3 + (hasCell ? 1 : 0) + (hasFourth ? 1 : 0); ++record) {
        std::uint64_t const length = takeMarker(file);
        if (length > ~std::uint64_t{0} - form.markerBytes() ||
            file.skip(length + form.markerBytes()) < length + form.markerBytes())
            failEnd(file, "a record");
    }
}

ParticleSet DcdFrames::read(InputFile& file, ReadOptions const& options) {
    readFrame(file);
    ParticleSet particles;
    particles.format = "DCD";
    if (stepsBetween > 0)
        particles.step = firstStep + frame * stepsBetween;
    particles.cell = cell;
    std::vector<Column> columns;
    for (std::string_view const name : positionNames[0].names)
        columns.push_back({std::string(name), "float", ScalarType::float32, ScalarType::float32,
                           columns.size() * sizeof(float)});
    RowConverter converter(particles, columns,
                           chooseUses(file, columns, dcdNames, options, particles),
                           options.summarise);
    std::size_t const count = static_cast<std::size_t>(atoms);
    converter.reserve(count);
    constexpr std::size_t rowsAtOnce = 4096;
    std::vector<std::array<float, 3>> rows;
    for (std::size_t begin = 0; begin < count; begin += rows.size()) {
        rows.resize(std::min(rowsAtOnce, count - begin));
        for (std::size_t row = 0; row < rows.size(); ++row)
            rows[row] = {places[0][begin + row], places[1][begin + row], places[2][begin + row]};
        converter.append(reinterpret_cast<char const*>(rows.data()), rows.size(), sizeof rows[0],
                         false);
        file.particles += rows.size();
    }
    return particles;
}

} // namespace

bool isDcd(std::string_view head) {
    return head.size() >= 16 && formOf(head).has_value();
}

std::unique_ptr<FrameFormat> makeDcdFrames(ReadOptions const&) {
    return std::make_unique<DcdFrames>();
}

} // namespace pipeline
