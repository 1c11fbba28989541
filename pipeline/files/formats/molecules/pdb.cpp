// Reads PDB.
#include "pipeline/files/formats/cellofangles.h"
#include "pipeline/files/formats/frames.h"
#include "pipeline/files/formats/molecules/assembly.h"
#include "pipeline/files/formats/molecules/gemmifile.h"
#include "pipeline/files/formats/molecules/molecule.h"
#include "pipeline/files/formats/readers.h"
#include "pipeline/files/formats/textrows.h"
#include "pipeline/files/textvalues.h"

#include <algorithm>
#include <optional>

// PDB: models are frames; of alternate locations the first is read, and if asked for the whole
// biological assembly. Gemmi parses; what stands in the files is checked here, because gemmi takes
// damaged numbers for zeros, and assemblies are read here, because it wants them in columns that
// real files of large viruses leave.

namespace pipeline {

namespace {

bool isAtomRecord(std::string_view line) {
    return line.starts_with("ATOM  ") || line.starts_with("HETATM");
}

/// Refuses an atom's record whose coordinates, in columns 31 to 54, are no numbers.
void checkAtomRecord(InputFile const& file, std::string_view line) {
    constexpr std::size_t coordinatesBegin = 30;
    constexpr std::size_t fieldWidth = 8;
    constexpr std::size_t coordinatesEnd = coordinatesBegin + 3 * fieldWidth;
    if (line.size() < coordinatesEnd)
        file.failHere("the record of an atom ends in column {}, before its coordinates do in {}; "
                      "the file is incomplete",
                      line.size(), coordinatesEnd);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        std::string_view field = line.substr(coordinatesBegin + axis * fieldWidth, fieldWidth);
        std::string_view const word = nextWord(field);
        double number = 0.0;
        if (!parseNumber(word, number) || !nextWord(field).empty() ||
            word.find_first_not_of("0123456789.+-") != std::string_view::npos)
            file.failHere("{} where the coordinate {} of an atom belongs, in columns {} to {}",
                          quoted(word), "xyz"[axis], coordinatesBegin + axis * fieldWidth + 1,
                          coordinatesBegin + (axis + 1) * fieldWidth);
    }
}

/// Whether columns 79 and 80 hold a charge such as "2+". Files from before 1996 have a line's
/// number there, and many programs something of their own.
bool isCharge(std::string_view text) {
    auto const isDigit = [](char c) { return c >= '0' && c <= '9'; };
    auto const isSign = [](char c) { return c == '+' || c == '-'; };
    return (isDigit(text[0]) && isSign(text[1])) || (isSign(text[0]) && isDigit(text[1]));
}

void appendRecord(std::string& records, std::string_view line) {
    constexpr std::size_t recordColumns = 80;
    constexpr std::size_t beforeCharge = 78;
    line = line.substr(0, recordColumns);
    if (line.size() > beforeCharge &&
        (line.size() < recordColumns || !isCharge(line.substr(beforeCharge))))
        line = line.substr(0, beforeCharge);
    for (char const c : line)
        records += c >= ' ' && c <= '~' ? c : '?';
    records += '\n';
}

/// The cell of a CRYST1 record: three lengths of 9 columns, three angles of 7.
std::optional<PeriodicCell> cellOf(std::string_view record) {
    std::array<double, 6> numbers{};
    std::size_t begin = 6;
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        std::size_t const width = i < 3 ? 9 : 7;
        std::string_view field = begin < record.size() ? record.substr(begin, width) : "";
        if (!parseNumber(nextWord(field), numbers[i]))
            return std::nullopt;
        begin += width;
    }
    return cellOfAngles({numbers[0], numbers[1], numbers[2]}, {numbers[3], numbers[4], numbers[5]});
}

/// Keeps the atoms that gemmi finds in the records.
void takeAtoms(std::string const& records, Molecule& molecule) {
    ElementReader elements(molecule.unknownElements);
    AlternateFilter alternates;
    forEachPdbAtom(records, [&](PdbAtom const& atom) {
        if (!alternates.keeps(atom.place, atom.residue, atom.name, atom.isAlternate))
            return;
        molecule.atoms.push_back({.x = atom.x,
                                  .y = atom.y,
                                  .z = atom.z,
                                  .serial = atom.serial,
                                  .occupancy = atom.occupancy,
                                  .bFactor = atom.bFactor,
                                  .residue = atom.residueNumber,
                                  .chain = molecule.chains->numberOf(atom.chain),
                                  .name = molecule.names->numberOf(atom.name),
                                  .residueName = molecule.residueNames->numberOf(atom.residue),
                                  .element = atom.element});
        if (atom.element == 0)
            elements.keep(atom.name, 0);
    });
}

// Frames --------------------------------------------------------------------------------------

/// Models, parted by MODEL, ENDMDL or END, as different programs write them.
class PdbFrames final : public FrameFormat {
  public:
    explicit PdbFrames(ReadOptions const& options) : wantsAssembly(!options.assembly.empty()) {}

    bool begin(InputFile& file, int number) override;
    void skip(InputFile& file) override;
    ParticleSet read(InputFile& file, ReadOptions const& options) override;

  private:
    void takeHeader(InputFile const& file, std::string_view line);
    std::optional<std::string_view> nextOfModel(InputFile& file);
    void refuseOpenEnd(InputFile const& file) const;

    bool wantsAssembly;
    AssemblyRemarks remarks;
    std::optional<PeriodicCell> cell;
    int index = 0;
    bool wasHeaded = false;
    bool hasModelRecord = false; ///< the current model was opened by one
    bool isEnded = false;        ///< and something closed it
};

void PdbFrames::takeHeader(InputFile const& file, std::string_view line) {
    wasHeaded = wasHeaded || line.starts_with("HEADER");
    hasModelRecord = hasModelRecord || line.starts_with("MODEL ");
    if (line.starts_with("CRYST1"))
        cell = cellOf(line);
    if (wantsAssembly)
        remarks.read(file, line);
}

bool PdbFrames::begin(InputFile& file, int number) {
    index = number;
    hasModelRecord = false;
    while (std::optional<std::string_view> const line = file.peekLine()) {
        if (isAtomRecord(*line))
            return true;
        takeHeader(file, *file.nextLine());
    }
    if (number == 0)
        file.fail("no ATOM or HETATM record");
    return false;
}

/// The next line of the model that was begun; nothing at its end, or the file's.
std::optional<std::string_view> PdbFrames::nextOfModel(InputFile& file) {
    std::optional<std::string_view> const line = file.peekLine();
    isEnded = line && (line->starts_with("MODEL ") || line->starts_with("END"));
    if (isEnded && !line->starts_with("MODEL ")) // which begins the next
        file.nextLine();
    if (isEnded || !line)
        return std::nullopt;
    return file.nextLine();
}

void PdbFrames::refuseOpenEnd(InputFile const& file) const {
    if (hasModelRecord && !isEnded)
        file.fail("model {} ends after {} atoms without an ENDMDL record; the file is incomplete",
                  index, file.particles);
}

void PdbFrames::skip(InputFile& file) {
    file.particles = 0;
    while (std::optional<std::string_view> const line = nextOfModel(file))
        file.particles += isAtomRecord(*line) ? 1 : 0;
    refuseOpenEnd(file);
}

ParticleSet PdbFrames::read(InputFile& file, ReadOptions const& options) {
    std::string records;
    while (std::optional<std::string_view> const line = nextOfModel(file)) {
        if (isAtomRecord(*line)) {
            checkAtomRecord(file, *line);
            appendRecord(records, *line);
            ++file.particles;
        } else if (line->starts_with("TER")) {
            appendRecord(records, *line);
        }
    }
    refuseOpenEnd(file);
    Molecule molecule;
    molecule.cell = cell;
    molecule.assemblies = remarks.finish(file);
    try {
        takeAtoms(records, molecule);
    } catch (std::runtime_error const& error) {
        file.fail("the atoms cannot be read: {}", quoted(error.what()));
    }
    ParticleSet particles = makeParticles(
        file, molecule, wantsAssembly ? AtomKind::assembly : AtomKind::molecule, options, "PDB");
    if (wasHeaded && !isEnded)
        particles.notes.push_back(
            fmt::format("{} has no END record; it may be incomplete", file.path()));
    return particles;
}

} // namespace

std::unique_ptr<FrameFormat> makePdbFrames(ReadOptions const& options) {
    return std::make_unique<PdbFrames>(options);
}

} // namespace pipeline
