// Reads TRR trajectories.
#include "pipeline/files/columnuses.h"
#include "pipeline/files/formats/frames.h"
#include "pipeline/files/formats/readers.h"
#include "pipeline/files/formats/trajectories/xdr.h"
#include "pipeline/files/textvalues.h"

#include <array>
#include <numeric>
#include <vector>

// TRR, trajectories of GROMACS in full precision, single or double: per frame the lengths of its
// blocks, then those blocks: the box, places in nanometres, velocities in nanometres a picosecond,
// and others, which are passed over. A frame may lack any of them.

namespace pipeline {

namespace {

constexpr VectorColumns positionNames[] = {{"x y z", {"x", "y", "z"}}};
constexpr VectorColumns velocityNames[] = {{"vx vy vz", {"vx", "vy", "vz"}}};
constexpr ColumnNames trrNames = {"column", positionNames, {}, velocityNames, {}};

class TrrFrames final : public FrameFormat {
  public:
    bool begin(InputFile& file, int index) override;
    void skip(InputFile& file) override;
    ParticleSet read(InputFile& file, ReadOptions const& options) override;

  private:
    /// Blocks in the order of the header; those of a frame stand in the same.
    enum Block {
        settings,
        energies,
        box,
        virial,
        pressure,
        topology,
        symbols,
        place,
        velocity,
        force
    };

    void checkLengths(InputFile const& file);
    std::uint64_t bytesBetween(std::size_t first, std::size_t last) const {
        return std::accumulate(lengths.begin() + static_cast<std::ptrdiff_t>(first),
                               lengths.begin() + static_cast<std::ptrdiff_t>(last),
                               std::uint64_t{0});
    }
    void skipBytes(InputFile& file, std::uint64_t count) const {
        if (file.skip(count) < count)
            file.fail("the file ends within {}; it is incomplete", name);
    }
    PeriodicCell takeBox(InputFile& file) const;

    std::string name; ///< for messages: "frame 3"
    std::array<std::uint64_t, 10> lengths{};
    std::int64_t step = 0;
    double time = 0.0;
    std::uint64_t atoms = 0;
    std::size_t numberBytes = 4;
};

bool TrrFrames::begin(InputFile& file, int index) {
    constexpr std::int32_t magic = 1993;
    if (file.peek(1).empty())
        return false;
    name = fmt::format("frame {}", index);
    if (auto const found = takeXdrNumber<std::int32_t>(file, name); found != magic)
        file.fail("{} where {}, a frame of TRR, begins with {}; the file is damaged", found, name,
                  magic);
    constexpr std::uint32_t longestTitle = 1024;
    takeXdr(file, 4, name); // the length of the title with its end
    auto const titleBytes = takeXdrNumber<std::uint32_t>(file, name);
    if (titleBytes > longestTitle)
        file.fail("{} has a title of {} bytes; the file is damaged", name, titleBytes);
    takeXdr(file, (titleBytes + 3) / 4 * 4, name);
    for (std::uint64_t& length : lengths)
        length = takeXdrNumber<std::uint32_t>(file, name);
    atoms = takeXdrNumber<std::uint32_t>(file, name);
    checkLengths(file);
    step = takeXdrNumber<std::int32_t>(file, name);
    takeXdr(file, 4, name);                                                // a count
    std::string_view const numbers = takeXdr(file, 2 * numberBytes, name); // time, a parameter
    time = numberBytes == 8 ? xdrNumber<double>(numbers.data())
                            : static_cast<double>(xdrNumber<float>(numbers.data()));
    return true;
}

void TrrFrames::checkLengths(InputFile const& file) {
    constexpr std::uint64_t boxNumbers = 9;
    numberBytes = 4;
    if (lengths[box] != 0)
        numberBytes = static_cast<std::size_t>(lengths[box] / boxNumbers);
    else
        for (Block const block : {place, velocity, force})
            if (lengths[block] != 0 && atoms > 0)
                numberBytes = static_cast<std::size_t>(lengths[block] / (3 * atoms));
    bool isGood = (numberBytes == 4 || numberBytes == 8) &&
                  (lengths[box] == 0 || lengths[box] == boxNumbers * numberBytes);
    for (Block const block : {place, velocity, force})
        isGood = isGood && (lengths[block] == 0 || lengths[block] == 3 * atoms * numberBytes);
    if (!isGood)
        file.fail("the blocks of {} have lengths that {} atoms cannot have; the file is damaged",
                  name, atoms);
}

void TrrFrames::skip(InputFile& file) {
    skipBytes(file, bytesBetween(settings, lengths.size()));
}

PeriodicCell TrrFrames::takeBox(InputFile& file) const {
    std::string_view const bytes = takeXdr(file, lengths[box], name);
    PeriodicCell cell;
    for (std::size_t i = 0; i < 9; ++i) {
        char const* const at = bytes.data() + i * numberBytes;
        cell.edges[i / 3][i % 3] =
            numberBytes == 8 ? xdrNumber<double>(at) : static_cast<double>(xdrNumber<float>(at));
    }
    for (std::size_t edge = 0; edge < 3; ++edge)
        cell.isPeriodic[edge] = cell.edges[edge][edge] > 0.0;
    return cell;
}

ParticleSet TrrFrames::read(InputFile& file, ReadOptions const& options) {
    if (lengths[place] == 0 && atoms > 0)
        file.fail("{} holds no places of its atoms; try another --frame", name);
    ParticleSet particles;
    particles.format = "TRR";
    particles.step = step;
    particles.time = time;
    particles.angstrom = 0.1F;
    skipBytes(file, bytesBetween(settings, box));
    if (lengths[box] != 0)
        particles.cell = takeBox(file);
    skipBytes(file, bytesBetween(virial, place));

    bool const hasVelocities = lengths[velocity] != 0;
    ScalarType const type = numberBytes == 8 ? ScalarType::float64 : ScalarType::float32;
    std::vector<Column> columns;
    for (std::string_view const column : {"x", "y", "z", "vx", "vy", "vz"})
        if (columns.size() < 3 || hasVelocities)
            columns.push_back({std::string(column), numberBytes == 8 ? "double" : "float", type,
                               type, columns.size() * numberBytes});
    RowConverter converter(particles, columns,
                           chooseUses(file, columns, trrNames, options, particles),
                           options.summarise);
    // Places and velocities stand one behind the other; a row has both.
    std::size_t const vectorBytes = 3 * numberBytes;
    std::size_t const rowBytes = columns.size() * numberBytes;
    std::string const places(takeXdr(file, lengths[place], name));
    std::string_view const velocities = takeXdr(file, lengths[velocity], name);
    constexpr std::size_t rowsAtOnce = 4096;
    std::string rows;
    for (std::uint64_t atom = 0; atom < atoms;) {
        rows.clear();
        for (; atom < atoms && rows.size() < rowsAtOnce * rowBytes; ++atom) {
            std::size_t const at = static_cast<std::size_t>(atom) * vectorBytes;
            rows.append(places, at, vectorBytes);
            if (hasVelocities)
                rows.append(velocities.substr(at, vectorBytes));
        }
        converter.append(rows.data(), rows.size() / rowBytes, rowBytes,
                         std::endian::native == std::endian::little);
        file.particles = atom;
    }
    skipBytes(file, lengths[force]);
    return particles;
}

} // namespace

std::unique_ptr<FrameFormat> makeTrrFrames(ReadOptions const&) {
    return std::make_unique<TrrFrames>();
}

} // namespace pipeline
