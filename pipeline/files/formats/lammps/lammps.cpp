// Reads LAMMPS dumps, frame after frame.
#include "pipeline/files/formats/frames.h"
#include "pipeline/files/formats/lammps/lammpscolumns.h"
#include "pipeline/files/formats/readers.h"
#include "pipeline/files/formats/textrows.h"
#include "pipeline/files/textvalues.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>
#include <optional>

// Text dumps of LAMMPS (A. P. Thompson et al., Computer Physics Communications 271, 2022): frames
// of items, each a line that starts with "ITEM:" and the lines that belong to it. The item ATOMS
// names the columns of the rows that follow; their order changes from frame to frame.

namespace pipeline {

namespace {

using std::array;

constexpr std::string_view itemMark = "ITEM:";

/// Whether the boundary flags of one axis, such as "pp" or "fs", say periodic.
bool isPeriodic(std::string_view flags) {
    return flags.starts_with('p');
}

// Frames -------------------------------------------------------------------------------------

class LammpsFrames final : public FrameFormat {
  public:
    bool begin(InputFile& file, int index) override;
    void skip(InputFile& file) override { skipTextRows(file, frame); }
    ParticleSet read(InputFile& file, ReadOptions const& options) override;

  private:
    std::string_view itemLine(InputFile& file, std::string_view what);
    void readStep(InputFile& file);
    void readCount(InputFile& file);
    void readBox(InputFile& file, std::string_view flags);
    static void skipItem(InputFile& file);
    RowLayout layoutOf(InputFile& file) const;

    TextFrame frame;
    bool hasCount = false;
    std::optional<std::int64_t> step;
    std::optional<double> time;
    std::optional<PeriodicCell> cell;
    std::string columns; ///< their names, as the item ATOMS lists them
};

/// The next line of an item that is not at its end.
std::string_view LammpsFrames::itemLine(InputFile& file, std::string_view what) {
    std::optional<std::string_view> const line = file.nextLine();
    if (!line)
        file.failHere(frame.wayOn(), "{} ends before {}", frame.name, what);
    return *line;
}

void LammpsFrames::readStep(InputFile& file) {
    std::string_view const line = itemLine(file, "its time step");
    std::string_view words = line;
    if (!parseNumber(nextWord(words), step.emplace()))
        file.failHere(frame.wayOn(), "{} where the time step of {} belongs", quoted(line),
                      frame.name);
    frame.name = fmt::format("frame at step {}", *step);
}

void LammpsFrames::readCount(InputFile& file) {
    std::string_view const line = itemLine(file, "its number of atoms");
    std::string_view words = line;
    if (!parseNumber(nextWord(words), frame.rows) || !nextWord(words).empty())
        file.failHere(frame.wayOn(), "{} where the number of atoms of {} belongs", quoted(line),
                      frame.name);
    hasCount = true;
}

void LammpsFrames::readBox(InputFile& file, std::string_view flags) {
    std::string_view const known = flags;
    bool const isTilted = known.find("xy xz yz") != std::string_view::npos;
    bool const isGeneral = known.find("abc origin") != std::string_view::npos;
    // Both in one line are no box of LAMMPS; the general form counts then, and is cut off once.
    if (isGeneral)
        flags.remove_prefix(known.find("origin") + std::strlen("origin"));
    else if (isTilted)
        flags.remove_prefix(known.find("yz") + std::strlen("yz"));
    array<array<double, 4>, 3> lines{};
    std::size_t const numbers = isGeneral ? 4 : isTilted ? 3 : 2;
    array<bool, 3> periodic{};
    for (std::size_t axis = 0; axis < 3; ++axis) {
        // Dumps of old versions have no flags; nearly all of their boxes were periodic.
        std::string_view const flag = nextWord(flags);
        periodic[axis] = flag.empty() || isPeriodic(flag);
    }
    for (array<double, 4>& bounds : lines) {
        std::string_view const line = itemLine(file, "its box");
        std::string_view words = line;
        for (std::size_t i = 0; i < numbers; ++i)
            if (!parseNumber(nextWord(words), bounds[i]))
                file.failHere(frame.wayOn(), "{} where {} bounds of the box of {} belong",
                              quoted(line), numbers, frame.name);
    }
    cell = cellOfBounds(lines, isTilted, isGeneral);
    cell->isPeriodic = periodic;
}

/// Passes over the lines of an item that tells nothing of particles, such as UNITS.
void LammpsFrames::skipItem(InputFile& file) {
    for (;;) {
        std::optional<std::string_view> const line = file.peekLine();
        if (!line || line->starts_with(itemMark))
            return;
        file.nextLine();
    }
}

bool LammpsFrames::begin(InputFile& file, int index) {
    std::optional<std::string_view> line = file.peekLine();
    while (line && line->find_first_not_of(" \t") == std::string_view::npos) {
        file.nextLine();
        line = file.peekLine();
    }
    if (!line)
        return false;
    frame = {index, 0, fmt::format("frame {}", index), itemMark};
    hasCount = false;
    step.reset();
    time.reset();
    cell.reset();
    for (;;) {
        std::string_view item = itemLine(file, "its rows");
        if (!item.starts_with(itemMark))
            file.failHere(frame.wayOn(),
                          "{} where {} belongs, as after as many rows as {} promises", quoted(item),
                          quoted(itemMark), frame.name);
        item.remove_prefix(itemMark.size());
        item.remove_prefix(std::min(item.size(), item.find_first_not_of(' ')));
        if (item.starts_with("TIMESTEP")) {
            readStep(file);
        } else if (item.starts_with("TIME")) {
            std::string_view words = itemLine(file, "its time");
            if (double value = 0.0; parseNumber(nextWord(words), value))
                time = value;
        } else if (item.starts_with("NUMBER OF ATOMS")) {
            readCount(file);
        } else if (item.starts_with("BOX BOUNDS")) {
            // A copy: the flags are in a line that is gone once the next is read.
            readBox(file, std::string(item.substr(std::strlen("BOX BOUNDS"))));
        } else if (item.starts_with("ATOMS")) {
            columns = item.substr(std::strlen("ATOMS"));
            break;
        } else if (item.starts_with("NUMBER OF") || item.starts_with("ENTRIES") ||
                   item.starts_with("GRID")) {
            file.failHere("{}, which are no atoms; dumps of style atom and custom are read",
                          quoted(item));
        } else {
            skipItem(file);
        }
    }
    if (!hasCount)
        file.failHere(frame.wayOn(), "rows of {} before the item NUMBER OF ATOMS", frame.name);
    return true;
}

/// The columns that the item ATOMS names. What starts as no number does in the first row is a
/// name, unless it is a place or an id.
RowLayout LammpsFrames::layoutOf(InputFile& file) const {
    constexpr std::string_view numbers[] = {"id", "xu", "yu", "zu",  "x",   "y",  "z",
                                            "xs", "ys", "zs", "xsu", "ysu", "zsu"};
    constexpr std::size_t mostColumns = 1000;
    RowLayout layout;
    std::string_view names = columns;
    std::string_view row = frame.rows > 0 ? file.peekLine().value_or("") : "";
    for (std::string_view name = nextWord(names); !name.empty(); name = nextWord(names)) {
        std::string_view const word = nextWord(row);
        double number = 0.0;
        bool const isText =
            !word.empty() && !parseNumber(word, number) &&
            std::find(std::begin(numbers), std::end(numbers), name) == std::end(numbers);
        if (layout.words.size() == mostColumns)
            file.failHere("more than {} columns", mostColumns);
        layout.addWord(std::string(name), isText ? "text" : "number",
                       name == "element" ? WordKind::element
                       : isText          ? WordKind::name
                                         : WordKind::number);
    }
    if (layout.words.empty())
        file.failHere(
            "the item ATOMS names no columns, as in dumps from before 2008; dump again or "
            "add their names, such as: ITEM: ATOMS id type xs ys zs");
    return layout;
}

ParticleSet LammpsFrames::read(InputFile& file, ReadOptions const& options) {
    RowLayout layout = layoutOf(file);
    DumpPlaces const places(layout, options.forMotion);
    std::function<void(char*)> derive;
    if (!places.fractions().empty()) {
        if (!cell)
            file.failHere(frame.wayOn(),
                          "{} of {} are fractions of a box, and the item BOX BOUNDS is missing",
                          places.fractions(), frame.name);
        derive = places.derive(layout, *cell);
    }
    ParticleSet particles;
    particles.format = "LAMMPS dump";
    particles.step = step;
    particles.time = time;
    particles.cell = cell;
    particles.isUnwrapped = !places.isWrapped();
    readTextRows(file, frame, layout, places.names(layout.find("element") != nullptr), options,
                 particles, derive);
    return particles;
}

} // namespace

std::unique_ptr<FrameFormat> makeLammpsFrames(ReadOptions const&) {
    return std::make_unique<LammpsFrames>();
}

} // namespace pipeline
