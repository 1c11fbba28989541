// Reads LAMMPS data files.
#include "pipeline/files/formats/frames.h"
#include "pipeline/files/formats/readers.h"
#include "pipeline/files/formats/textrows.h"
#include "pipeline/files/textvalues.h"

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <optional>
#include <unordered_map>

// Data files of LAMMPS, which a simulation starts from: a title, counts and the box, then sections,
// of which Atoms and Velocities are read. What the words of an atom's row are depends on a style
// that many files do not name; where they do not, it is told from the rows.

namespace pipeline {

namespace {

constexpr VectorColumns positionNames[] = {{"x y z", {"x", "y", "z"}}};
constexpr VectorColumns imageNames[] = {{"ix iy iz", {"ix", "iy", "iz"}}};
constexpr ColumnNames dataNames = {"column", positionNames, {}, {}, {}, imageNames, "type"};
constexpr std::size_t imageWords = 3; ///< that may follow in a row of any style

/// A style of atoms and the words of its rows. Whole numbers are `id`, `mol`, `type` and names with
/// `flag` or `tag` in them.
struct AtomStyle {
    std::string_view name;
    std::string_view words;
    bool mayHaveMore = false; ///< as many as the simulation has of something
};

// Those that are told from rows alone are tried in this order: the usual ones first.
constexpr AtomStyle styles[] = {
    {"atomic", "id type x y z"},
    {"molecular", "id mol type x y z"},
    {"full", "id mol type q x y z"},
    {"charge", "id type q x y z"},
    {"ellipsoid", "id type ellipsoidflag density x y z"},
    {"body", "id type bodyflag mass x y z"},
    {"sphere", "id type diameter density x y z"},
    {"line", "id mol type lineflag density x y z"},
    {"bpm/sphere", "id mol type diameter density x y z"},
    {"electron", "id type q espin eradius x y z"},
    {"template", "id mol templateflag templatetag type x y z"},
    {"sph", "id type rho esph cv x y z"},
    {"spin", "id type x y z spx spy spz sp"},
    {"dipole", "id type q x y z mux muy muz"},
    {"wavepacket", "id type q espin eradius etag cs_re cs_im x y z"},
    {"smd", "id type mol volume mass kradius cradius x0 y0 z0 x y z"},
    {"dielectric", "id mol type q x y z normx normy normz area ed em epsilon curvature"},
    // Of the same shapes as others, so that only a name tells them.
    {"angle", "id mol type x y z"},
    {"bond", "id mol type x y z"},
    {"dpd", "id type theta x y z"},
    {"mdpd", "id type rho x y z"},
    {"edpd", "id type edpd_temp edpd_cv x y z"},
    {"peri", "id type volume density x y z"},
    {"tri", "id mol type triflag density x y z"},
    {"tdpd", "id type x y z", true},
    {"hybrid", "id type x y z", true},
};

std::vector<std::string_view> split(std::string_view line) {
    std::vector<std::string_view> words;
    for (std::string_view word = nextWord(line); !word.empty(); word = nextWord(line))
        words.push_back(word);
    return words;
}

std::string_view withoutComma(std::string_view word) {
    return word.substr(0, word.find(','));
}

std::string_view withoutComment(std::string_view line) {
    return line.substr(0, line.find('#'));
}

bool isWhole(std::string_view name) {
    return name == "id" || name == "mol" || name == "type" || name.ends_with("flag") ||
           name.ends_with("tag");
}

// The header ----------------------------------------------------------------------------------

struct Header {
    std::uint64_t atoms = 0;
    std::int64_t types = 0;
    std::optional<std::int64_t> step;
    std::shared_ptr<NameTable> labels; ///< of the types, by their numbers; null: they have none
    PeriodicCell cell;
};

void skipToRows(InputFile& file) {
    while (std::optional<std::string_view> const line = file.peekLine()) {
        if (withoutComment(*line).find_first_not_of(" \t\r") != std::string_view::npos)
            return;
        file.nextLine();
    }
}

/// Reads the rows of the section Atom Type Labels, which names the types in any order.
void readLabels(InputFile& file, Header& header) {
    TextFrame const section{0, static_cast<std::uint64_t>(std::max<std::int64_t>(header.types, 0)),
                            "the section Atom Type Labels"};
    std::map<std::int64_t, std::string> labels;
    skipToRows(file);
    for (std::uint64_t row = 0; row < section.rows; ++row) {
        std::string_view words = withoutComment(nextTextRow(file, section, row));
        std::int64_t type = 0;
        bool const isType = parseNumber(nextWord(words), type) && type >= 1 && type <= header.types;
        if (!isType || !labels.emplace(type, nextWord(words)).second)
            file.failHere("a type from 1 to {} and its label belong in each row of Atom Type "
                          "Labels, each type once",
                          header.types);
    }
    header.labels = std::make_shared<NameTable>();
    header.labels->numberOf("?"); // of type 0, which there is none
    for (auto const& [type, label] : labels)
        if (header.labels->numberOf(label) != static_cast<std::uint64_t>(type))
            file.failHere("the label {} stands for two types", quoted(label));
}

/// Takes a line of the header, such as "420 atoms" or "0 1 xlo xhi".
void takeHeaderLine(InputFile const& file, std::string_view line, Header& header) {
    std::vector<std::string_view> const words = split(withoutComment(line));
    auto const ends = [&](std::initializer_list<std::string_view> names) {
        return words.size() > names.size() &&
               std::equal(names.begin(), names.end(), words.end() - std::ssize(names));
    };
    auto const numberAt = [&](std::size_t place, double& number) {
        if (place >= words.size() || !parseNumber(words[place], number))
            file.failHere("{} where the box belongs", quoted(line));
    };
    if (ends({"atoms"}) && !parseNumber(words[0], header.atoms))
        file.failHere("{} where the number of atoms belongs", quoted(words[0]));
    if (ends({"atom", "types"}) && !parseNumber(words[0], header.types))
        file.failHere("{} where the number of types belongs", quoted(words[0]));
    constexpr std::string_view axes[][2] = {{"xlo", "xhi"}, {"ylo", "yhi"}, {"zlo", "zhi"}};
    for (std::size_t axis = 0; axis < 3; ++axis)
        if (ends({axes[axis][0], axes[axis][1]})) {
            double high = 0.0;
            numberAt(0, header.cell.origin[axis]);
            numberAt(1, high);
            header.cell.edges[axis][axis] = high - header.cell.origin[axis];
        }
    if (ends({"xy", "xz", "yz"})) {
        numberAt(0, header.cell.edges[1][0]);
        numberAt(1, header.cell.edges[2][0]);
        numberAt(2, header.cell.edges[2][1]);
    }
}

/// Reads up to the line that starts the section Atoms, and returns what follows the name: a style.
std::string readHeader(InputFile& file, Header& header) {
    // A title may say whatever it likes; those that LAMMPS writes end with the step.
    if (std::optional<std::string_view> const title = file.nextLine()) {
        constexpr std::string_view mark = "timestep = ";
        std::size_t const at = title->find(mark);
        std::string_view words = title->substr(std::min(title->size(), at));
        words.remove_prefix(std::min(words.size(), mark.size()));
        if (std::int64_t step = 0; parseNumber(withoutComma(nextWord(words)), step))
            header.step = step;
    }
    while (std::optional<std::string_view> const line = file.nextLine()) {
        std::string_view words = *line;
        if (nextWord(words) == "Atoms") {
            std::string_view const comment = words.substr(std::min(words.size(), words.find('#')));
            std::vector<std::string_view> const style =
                split(comment.substr(comment.empty() ? 0 : 1));
            return style.empty() ? std::string() : std::string(style[0]);
        }
        if (line->starts_with("Atom Type Labels")) {
            readLabels(file, header);
            continue;
        }
        takeHeaderLine(file, *line, header);
    }
    file.fail("no section Atoms; data files of LAMMPS have one");
}

// Styles --------------------------------------------------------------------------------------

/// Whether a row may be one of the style, with or without images behind it.
bool fits(AtomStyle const& style, std::vector<std::string_view> const& row, Header const& header) {
    std::vector<std::string_view> const names = split(style.words);
    bool const hasImages = row.size() == names.size() + imageWords;
    if (row.size() != names.size() && !hasImages &&
        !(style.mayHaveMore && row.size() > names.size()))
        return false;
    std::int64_t whole = 0;
    double number = 0.0;
    for (std::size_t i = 0; i < names.size(); ++i)
        if (names[i] == "type" && header.labels && header.labels->find(row[i]))
            continue;
        else if (isWhole(names[i]) ? !parseNumber(row[i], whole) : !parseNumber(row[i], number))
            return false;
        else if (names[i] == "type" && (whole < 1 || whole > header.types))
            return false;
    for (std::size_t i = names.size(); hasImages && i < row.size(); ++i)
        if (!parseNumber(row[i], whole))
            return false;
    return true;
}

/// The style of the rows: that which is named, else the first that fits the rows at hand.
AtomStyle const& chooseStyle(InputFile& file, std::string const& named, Header const& header,
                             ParticleSet& particles) {
    for (AtomStyle const& style : styles)
        if (style.name == named)
            return style;
    constexpr std::size_t looked = 64 * 1024; // bytes, some thousand rows
    std::string_view rest = file.peek(looked).substr(0, looked);
    std::vector<std::vector<std::string_view>> rows;
    while (rows.size() < header.atoms) {
        std::size_t const end = rest.find('\n');
        std::vector<std::string_view> row = split(withoutComment(rest.substr(0, end)));
        if (row.empty() || (end == std::string_view::npos && !rows.empty()))
            break; // behind the last, or within a row
        rows.push_back(std::move(row));
        if (end == std::string_view::npos)
            break;
        rest.remove_prefix(end + 1);
    }
    for (AtomStyle const& style : styles)
        if (std::all_of(rows.begin(), rows.end(),
                        [&](auto const& row) { return fits(style, row, header); })) {
            if (!rows.empty())
                particles.notes.push_back(fmt::format(
                    "{}: the section Atoms names no style that is known; its rows are read as {} "
                    "({})",
                    file.path(), style.name, style.words));
            return style;
        }
    file.failHere("the rows of Atoms are of no style that is known; name it in the file, such as "
                  "\"Atoms # full\"");
}

RowLayout layoutOf(InputFile& file, AtomStyle const& style, Header const& header) {
    RowLayout layout;
    layout.comment = '#';
    for (std::string_view const name : split(style.words))
        if (name == "type" && header.labels)
            layout.addWord(std::string(name), "label", WordKind::label, header.labels);
        else
            layout.addWord(std::string(name), isWhole(name) ? "integer" : "real", WordKind::number);
    std::string_view const row = withoutComment(file.peekLine().value_or(""));
    bool const hasImages = split(row).size() == layout.words.size() + imageWords;
    layout.mayHaveMore = style.mayHaveMore;
    for (std::string_view const name : imageNames[0].names)
        if (hasImages && !style.mayHaveMore)
            layout.addWord(std::string(name), "integer", WordKind::number);
    return layout;
}

// Velocities ----------------------------------------------------------------------------------

/// Reads the section Velocities, if one follows, whose rows name the atoms in any order.
void readVelocities(InputFile& file, Header const& header, ParticleSet& particles) {
    std::optional<std::string_view> line = file.nextLine();
    for (; line; line = file.nextLine())
        if (std::string_view words = *line; nextWord(words) == "Velocities")
            break;
    if (!line)
        return;
    std::unordered_map<std::int64_t, std::size_t> indices;
    for (std::size_t i = 0; i < particles.ids.size(); ++i)
        indices.emplace(particles.ids[i], i);
    particles.velocities.resize(particles.positions.size());
    TextFrame const section{0, header.atoms, "the section Velocities"};
    skipToRows(file);
    for (std::uint64_t row = 0; row < section.rows; ++row) {
        std::string_view words = nextTextRow(file, section, row);
        std::int64_t id = 0;
        std::array<float, 3> velocity{};
        bool isRow = parseNumber(nextWord(words), id);
        for (float& part : velocity)
            isRow = parseNumber(nextWord(words), part) && isRow;
        auto const atom = indices.find(id);
        if (!isRow || atom == indices.end())
            file.failHere("an atom's id, which Atoms has, and three numbers belong in each row of "
                          "Velocities");
        particles.velocities[atom->second] = {velocity[0], velocity[1], velocity[2]};
    }
}

} // namespace

ParticleSet readLammpsData(InputFile& file, ReadOptions const& options) {
    requireOnlyFrame(file, options, "a data file of LAMMPS");
    Header header;
    std::string const named = readHeader(file, header);
    skipToRows(file);
    ParticleSet particles;
    particles.format = "LAMMPS data";
    particles.step = header.step;
    AtomStyle const& style = chooseStyle(file, named, header, particles);
    RowLayout const layout = layoutOf(file, style, header);
    header.cell.isPeriodic = {true, true, true}; // which a data file does not tell; most are
    particles.cell = header.cell;
    particles.typeNames = header.labels;
    readTextRows(file, {0, header.atoms, "the section Atoms"}, layout, dataNames, options,
                 particles);
    readVelocities(file, header, particles);
    return particles;
}

} // namespace pipeline
