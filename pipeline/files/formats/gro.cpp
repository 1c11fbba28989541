// Reads GRO, frame after frame.
#include "pipeline/files/elements.h"
#include "pipeline/files/formats/frames.h"
#include "pipeline/files/formats/readers.h"
#include "pipeline/files/formats/textrows.h"
#include "pipeline/files/textvalues.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

// GRO, the structure files of GROMACS: per frame a title, the number of atoms, a row per atom and
// the box. Columns are fixed: five characters each for the residue's number and name, the atom's
// name and number, then places in nanometres and perhaps velocities, all as wide as the distance of
// the decimal points in the first row tells.

namespace pipeline {

namespace {

constexpr VectorColumns positionNames[] = {{"x y z", {"x", "y", "z"}}};
constexpr VectorColumns velocityNames[] = {{"vx vy vz", {"vx", "vy", "vz"}}};
constexpr ColumnNames groNames = {"column", positionNames, {}, velocityNames, "element"};

constexpr std::size_t numbersBegin = 20; ///< where places begin in a row
constexpr std::size_t fieldWidth = 5;    ///< of the fields before them
constexpr std::size_t residueNameColumn =
    2; ///< in a layout, behind the atom's and residue's numbers
constexpr std::size_t nameColumn = 3;
constexpr std::size_t numbersColumn = 4;

std::string_view trimmed(std::string_view text) {
    std::size_t const first = text.find_first_not_of(' ');
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \r\t") + 1 - first);
}

/// A part of a line; less, or nothing, where the line is too short.
std::string_view part(std::string_view line, std::size_t begin, std::size_t width) {
    return begin < line.size() ? line.substr(begin, width) : std::string_view();
}

/// The element that an atom's name tells. A name is an element's symbol and then what tells atoms
/// of a residue apart: CA is a carbon, and calcium only as a residue of its own.
std::uint8_t elementOfAtom(std::string_view atom, std::string_view residue) {
    atom.remove_prefix(std::min(atom.size(), atom.find_first_not_of("0123456789")));
    auto const lettersOf = [](std::string_view text) {
        return text.substr(0, text.find_first_of("0123456789+-*'"));
    };
    bool const isIon = lettersOf(atom) == lettersOf(residue);
    std::uint8_t const whole = atomicNumberOf(lettersOf(atom));
    std::uint8_t const first = atomicNumberOf(atom.substr(0, 1));
    // Symbols of two letters that no residue of several atoms has as first letters of a name.
    constexpr std::string_view halogensAndMetals[] = {"CL", "Cl", "BR", "Br", "FE", "Fe",
                                                      "ZN", "Zn", "MG", "Mg", "SI", "Si"};
    bool const isTwoLetters =
        std::any_of(std::begin(halogensAndMetals), std::end(halogensAndMetals),
                    [&](std::string_view symbol) { return atom.starts_with(symbol); });
    if (isIon && whole != 0)
        return whole;
    if (isTwoLetters)
        return atomicNumberOf(atom.substr(0, 2));
    return first != 0 ? first : whole;
}

/// Whether an atom's name stands for a place that only carries charge: the fourth site of TIP4P
/// water or a lone pair. A sphere there would hide the atom that it belongs to.
bool isVirtualSite(std::string_view atom) {
    return atom.starts_with("MW") || atom.starts_with("LP");
}

/// What the names in a row tell.
struct NamedAtom {
    std::uint32_t residue = 0; ///< its name, by number
    std::uint32_t atom = 0;
    std::optional<std::uint8_t> element; ///< nothing for a virtual site
};

/// Reads the names in rows; equal ones often follow each other.
class AtomNames {
  public:
    AtomNames(NameTable& residueNames, NameTable& atomNames,
              std::vector<std::string>& unknownSymbols)
        : residues(residueNames), atoms(atomNames), elements(unknownSymbols) {}

    NamedAtom const& in(std::string_view row) {
        std::string_view const names = part(row, fieldWidth, 2 * fieldWidth);
        if (names == lastNames)
            return last;
        lastNames = names;
        std::string_view const atom = trimmed(part(row, 2 * fieldWidth, fieldWidth));
        std::string_view const residue = trimmed(part(row, fieldWidth, fieldWidth));
        last = {residues.numberOf(residue), atoms.numberOf(atom), {}};
        if (!isVirtualSite(atom))
            last.element = elements.keep(atom, elementOfAtom(atom, residue));
        return last;
    }

  private:
    NameTable& residues;
    NameTable& atoms;
    ElementReader elements;
    std::string lastNames = "\n"; ///< which no row has
    NamedAtom last;
};

// Frames -------------------------------------------------------------------------------------

class GroFrames final : public FrameFormat {
  public:
    bool begin(InputFile& file, int index) override;
    void skip(InputFile& file) override;
    ParticleSet read(InputFile& file, ReadOptions const& options) override;

  private:
    void measureColumns(InputFile& file);
    RowLayout layoutOf() const;
    void parseRow(InputFile const& file, RowLayout const& layout, std::string_view line, char* row);
    void readBox(InputFile& file, ParticleSet& particles) const;

    TextFrame frame;
    std::optional<std::int64_t> step;
    std::optional<double> time;
    std::size_t width = 0;       ///< of a number's column
    std::size_t numberCount = 0; ///< three, or six with velocities
    std::int64_t atomBase = 0;   ///< atom numbers have five digits and start again at 0
    std::int64_t lastNumber = 0; ///< of the row before
};

bool isBlank(std::string_view line) {
    return trimmed(line).empty();
}

/// The number that follows a word in a title, such as "t= 1.5"; trajectories have them.
template <class Number>
std::optional<Number> numberBehind(std::string_view title, std::string_view word) {
    std::string_view rest = title;
    for (std::string_view each = nextWord(rest); !each.empty(); each = nextWord(rest)) {
        Number number{};
        if (each == word && parseNumber(nextWord(rest), number))
            return number;
    }
    return std::nullopt;
}

bool GroFrames::begin(InputFile& file, int index) {
    std::optional<std::string_view> line = file.nextLine();
    if (!line)
        return false;
    bool const hasTitle = !isBlank(*line);
    step.reset();
    time.reset();
    if (auto const found = numberBehind<double>(*line, "t="))
        time = found;
    if (auto const found = numberBehind<std::int64_t>(*line, "step="))
        step = found;
    line = file.nextLine();
    while (!hasTitle && line && isBlank(*line)) // blank lines at the end are no frame
        line = file.nextLine();
    if (!hasTitle && !line)
        return false;
    frame = {index, 0, fmt::format("frame {}", index)};
    if (!line)
        file.failHere(frame.wayOn(), "{} ends before its number of atoms", frame.name);
    std::string_view words = *line;
    if (!parseNumber(nextWord(words), frame.rows) || !nextWord(words).empty())
        file.failHere(frame.wayOn(), "{} where the number of atoms of {} belongs", quoted(*line),
                      frame.name);
    return true;
}

void GroFrames::skip(InputFile& file) {
    skipTextRows(file, frame);
    file.nextLine();
}

/// Takes the columns' width and number from the decimal points of the first row.
void GroFrames::measureColumns(InputFile& file) {
    std::string_view const row = frame.rows > 0 ? file.peekLine().value_or("") : "";
    auto const pointFrom = [row](std::size_t place) { return row.find('.', place); };
    std::size_t const first = pointFrom(numbersBegin);
    std::size_t const second = first == std::string_view::npos ? first : pointFrom(first + 1);
    constexpr std::size_t usualWidth = 8;
    width = second == std::string_view::npos ? usualWidth : second - first;
    numberCount = pointFrom(numbersBegin + 3 * width) == std::string_view::npos ? 3 : 6;
    atomBase = 0;
    lastNumber = 0;
}

RowLayout GroFrames::layoutOf() const {
    constexpr std::string_view names[] = {"x", "y", "z", "vx", "vy", "vz"};
    RowLayout layout;
    layout.addWord("id", "integer", WordKind::number);
    layout.addWord("residue", "integer", WordKind::number);
    layout.addWord("residue_name", "text", WordKind::name);
    layout.addWord("name", "text", WordKind::name);
    for (std::size_t i = 0; i < numberCount; ++i)
        layout.addWord(std::string(names[i]), "real", WordKind::number);
    layout.addDerived("element");
    layout.columns.back().names = elementSymbols();
    return layout;
}

void GroFrames::parseRow(InputFile const& file, RowLayout const& layout, std::string_view line,
                         char* row) {
    std::string_view const numberField = trimmed(part(line, 3 * fieldWidth, fieldWidth));
    std::int64_t number = 0;
    if (!parseNumber(numberField, number))
        file.failHere(frame.wayOn(), "{} where the atom's number belongs, in columns 16 to 20",
                      quoted(numberField));
    if (number < lastNumber && lastNumber == 99999)
        atomBase += 100000;
    lastNumber = number;
    number += atomBase;
    std::memcpy(row + layout.columns[0].offset, &number, sizeof number);

    // Residues are told, not needed: what is no number there is 0.
    double residue = 0.0;
    parseNumber(trimmed(part(line, 0, fieldWidth)), residue);
    std::memcpy(row + layout.columns[1].offset, &residue, sizeof residue);

    for (std::size_t i = 0; i < numberCount; ++i) {
        std::string_view const field = trimmed(part(line, numbersBegin + i * width, width));
        Column const& column = layout.columns[numbersColumn + i];
        double value = 0.0;
        // Some atoms of a frame may lack velocities; they rest.
        if (!parseNumber(field, value) && !(i >= 3 && field.empty()))
            file.failHere(frame.wayOn(), "{} where a number for {} belongs, in columns {} to {}",
                          quoted(field), quoted(column.name), numbersBegin + i * width + 1,
                          numbersBegin + (i + 1) * width);
        std::memcpy(row + column.offset, &value, sizeof value);
    }
}

/// Reads three edges' lengths, and the six tilts that may follow.
void GroFrames::readBox(InputFile& file, ParticleSet& particles) const {
    std::optional<std::string_view> const line = file.nextLine();
    if (!line) {
        particles.notes.push_back(
            {fmt::format("{}: {} ends without its box", file.path(), frame.name)});
        return;
    }
    // Of edges a, b and c: ax by cz, then ay az bx bz cx cy.
    constexpr std::array<std::array<std::size_t, 2>, 9> order = {
        {{0, 0}, {1, 1}, {2, 2}, {0, 1}, {0, 2}, {1, 0}, {1, 2}, {2, 0}, {2, 1}}};
    PeriodicCell cell;
    std::string_view words = *line;
    for (std::size_t i = 0; i < order.size(); ++i) {
        std::string_view const word = nextWord(words);
        if (word.empty() && i >= 3)
            break;
        if (!parseNumber(word, cell.edges[order[i][0]][order[i][1]]))
            file.failHere(frame.wayOn(), "{} where the box of {} belongs", quoted(*line),
                          frame.name);
    }
    for (std::size_t edge = 0; edge < 3; ++edge)
        cell.isPeriodic[edge] = cell.edges[edge][edge] > 0.0; // a box of zeros stands for none
    particles.cell = cell;
}

ParticleSet GroFrames::read(InputFile& file, ReadOptions const& options) {
    measureColumns(file);
    RowLayout const layout = layoutOf();
    ParticleSet particles;
    particles.format = "GRO";
    particles.step = step;
    particles.time = time;
    particles.angstrom = 0.1F;
    RowConverter converter(particles, layout.columns,
                           chooseUses(file, layout.columns, groNames, options, particles),
                           options.summarise);
    converter.reserve(plausibleRows(file, frame.rows, numbersBegin + 3 * width));

    AtomNames names(*layout.names[residueNameColumn], *layout.names[nameColumn],
                    particles.unknownElements);
    readRows(file, frame.rows, layout.rowBytes, false, converter, [&](char* row) {
        std::string_view const line = nextTextRow(file, frame, file.particles);
        parseRow(file, layout, line, row);
        NamedAtom const& named = names.in(line);
        auto const put = [&](Column const& column, auto value) {
            std::memcpy(row + column.offset, &value, sizeof value);
        };
        put(layout.columns[residueNameColumn], named.residue);
        put(layout.columns[nameColumn], named.atom);
        put(layout.columns.back(), static_cast<double>(named.element.value_or(std::uint8_t{0})));
        if (!named.element)
            particles.virtualSites.push_back(static_cast<std::size_t>(file.particles));
        return named.element.has_value();
    });
    if (!particles.virtualSites.empty())
        particles.notes.push_back({fmt::format(
            "{} virtual sites (MW, LP) are no atoms and left out", particles.virtualSites.size())});
    readBox(file, particles);
    return particles;
}

} // namespace

std::unique_ptr<FrameFormat> makeGroFrames(ReadOptions const&) {
    return std::make_unique<GroFrames>();
}

} // namespace pipeline
