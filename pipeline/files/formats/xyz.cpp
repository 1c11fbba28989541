// Reads XYZ, plain and extended, frame after frame.
#include "pipeline/files/formats/frames.h"
#include "pipeline/files/formats/readers.h"
#include "pipeline/files/formats/textrows.h"
#include "pipeline/files/textvalues.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <optional>

// XYZ: per frame a line with the number of atoms, a comment and a row per atom. Extended XYZ names
// the columns of the rows in the comment: Properties=species:S:1:pos:R:3:..., a name, a type (S
// text, R real, I integer, L logical) and how many columns it spans.

namespace pipeline {

namespace {

constexpr VectorColumns positionNames[] = {{"pos", {"pos.x", "pos.y", "pos.z"}}};
constexpr VectorColumns colorNames[] = {{"color", {"color.x", "color.y", "color.z"}}};
constexpr VectorColumns velocityNames[] = {
    {"velo", {"velo.x", "velo.y", "velo.z"}},
    {"vel", {"vel.x", "vel.y", "vel.z"}},
    {"velocities", {"velocities.x", "velocities.y", "velocities.z"}}};
constexpr std::string_view elementNames[] = {"species", "element", "Z", "numbers"};

// The comment --------------------------------------------------------------------------------

constexpr std::string_view blanks = " \t\r";

/// What the comment of a frame says: values without their quotes by keys in lower case.
using Comment = std::map<std::string, std::string, std::less<>>;

/// The bracket or quote that closes what a character opens; 0: it opens nothing.
char closerOf(char opener) {
    constexpr std::string_view pairs = "\"\"''{}[]";
    for (std::size_t at = 0; at < pairs.size(); at += 2)
        if (pairs[at] == opener)
            return pairs[at + 1];
    return 0;
}

/// Cuts what stands within quotes or brackets off a comment; without an end, all of it.
std::string cutEnclosed(std::string_view& rest) {
    char const opener = rest.front();
    char const closer = closerOf(opener);
    bool const mayNest = closer != opener;
    std::string value;
    std::size_t at = 1;
    for (int depth = 1; at < rest.size(); ++at) {
        char const c = rest[at];
        depth += mayNest && c == opener ? 1 : c == closer ? -1 : 0;
        if (depth == 0)
            break;
        bool const isEscape = !mayNest && c == '\\' && at + 1 < rest.size();
        value += isEscape ? rest[++at] : c;
    }
    rest.remove_prefix(std::min(rest.size(), at + 1));
    return value;
}

/// Cuts a key or a value off a comment: what is enclosed, or what none of `ends` is in.
std::string cutItem(std::string_view& rest, std::string_view ends) {
    if (!rest.empty() && closerOf(rest.front()) != 0)
        return cutEnclosed(rest);
    std::string item(rest.substr(0, rest.find_first_of(ends)));
    rest.remove_prefix(item.size());
    return item;
}

void skipBlanks(std::string_view& rest) {
    rest.remove_prefix(std::min(rest.size(), rest.find_first_not_of(blanks)));
}

/// Reads a comment key by key, so that what stands in one value is no key of its own.
Comment parseComment(std::string_view rest) {
    Comment comment;
    for (skipBlanks(rest); !rest.empty(); skipBlanks(rest)) {
        std::string key = cutItem(rest, " \t\r=");
        skipBlanks(rest);
        if (!rest.starts_with('='))
            continue; // a word of its own, such as a title's
        rest.remove_prefix(1);
        skipBlanks(rest);
        std::transform(key.begin(), key.end(), key.begin(), [](char c) {
            return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        });
        comment[key] = cutItem(rest, blanks);
    }
    return comment;
}

/// The value of a key, or nothing; lists in brackets become words.
std::string wordsOf(Comment const& comment, std::string_view key) {
    auto const found = comment.find(key);
    std::string words = found == comment.end() ? std::string() : found->second;
    std::replace_if(
        words.begin(), words.end(), [](char c) { return c == ',' || c == '[' || c == ']'; }, ' ');
    return words;
}

// Layout of rows -----------------------------------------------------------------------------

WordKind kindOf(InputFile const& file, std::string_view name, std::string_view type) {
    if (type == "R" || type == "I")
        return WordKind::number;
    if (type == "L")
        return WordKind::logical;
    if (type == "S")
        return name == "species" || name == "element" ? WordKind::element : WordKind::name;
    file.failHere("no column type {} in Properties; it is S, R, I or L", quoted(type));
}

/// Names the columns of one property: `id`, `pos.x` to `pos.z`, `virial.1` to `virial.9`.
void addProperty(InputFile const& file, RowLayout& layout, std::string_view name,
                 std::string_view type, std::size_t count) {
    constexpr std::size_t mostColumns = 1000;
    if (count == 0 || count > mostColumns - layout.words.size())
        file.failHere("{} columns of {} in Properties; 1 to {} in all are read", count,
                      quoted(name), mostColumns);
    WordKind const kind = kindOf(file, name, type);
    for (std::size_t part = 0; part < count; ++part) {
        std::string suffix;
        if (count == 3)
            suffix = std::string(".") + "xyz"[part];
        else if (count > 1)
            suffix = "." + std::to_string(part + 1);
        layout.addWord(std::string(name) + suffix, type, kind);
    }
}

std::string_view cutAtColon(std::string_view& list) {
    std::string_view const item = list.substr(0, list.find(':'));
    list.remove_prefix(std::min(list.size(), item.size() + 1));
    return item;
}

RowLayout layoutOf(InputFile const& file, std::string_view properties) {
    RowLayout layout;
    while (!properties.empty()) {
        std::string_view const name = cutAtColon(properties);
        std::string_view const type = cutAtColon(properties);
        std::string_view const columns = cutAtColon(properties);
        std::size_t count = 0;
        if (name.empty() || !parseNumber(columns, count))
            file.failHere("Properties lists name:type:columns, not {}:{}:{}", quoted(name),
                          quoted(type), quoted(columns));
        addProperty(file, layout, name, type, count);
    }
    return layout;
}

/// The cell that `Lattice` and `pbc` tell of; without the latter it repeats along all edges.
std::optional<PeriodicCell> cellOf(Comment const& comment) {
    std::string const numbers = wordsOf(comment, "lattice");
    std::string const periodic = wordsOf(comment, "pbc");
    std::string_view lattice = numbers;
    std::string_view flags = periodic;
    PeriodicCell cell;
    for (std::size_t part = 0; part < 9; ++part)
        if (!parseNumber(nextWord(lattice), cell.edges[part / 3][part % 3]))
            return std::nullopt;
    for (bool& isPeriodic : cell.isPeriodic) {
        std::string_view const flag = nextWord(flags);
        isPeriodic = flag.empty() || flag == "T" || flag == "1" || flag == "True" || flag == "true";
    }
    return cell;
}

// Frames -------------------------------------------------------------------------------------

class XyzFrames final : public FrameFormat {
  public:
    bool begin(InputFile& file, int index) override;
    void skip(InputFile& file) override { skipTextRows(file, frame); }
    ParticleSet read(InputFile& file, ReadOptions const& options) override;

  private:
    TextFrame frame;
    Comment comment;
};

bool XyzFrames::begin(InputFile& file, int index) {
    std::optional<std::string_view> line = file.nextLine();
    while (line && line->find_first_not_of(" \t") == std::string_view::npos)
        line = file.nextLine();
    if (!line)
        return false;
    frame = {index, 0, fmt::format("frame {}", index)};
    std::string_view words = *line;
    std::string_view const count = nextWord(words);
    if (!parseNumber(count, frame.rows) || !nextWord(words).empty())
        file.failHere(frame.wayOn(), "{} where the number of atoms of {} belongs", quoted(*line),
                      frame.name);
    std::optional<std::string_view> const second = file.nextLine();
    if (!second)
        failEarlyEnd(file, frame, 0);
    comment = parseComment(*second);
    return true;
}

ParticleSet XyzFrames::read(InputFile& file, ReadOptions const& options) {
    auto const properties = comment.find("properties");
    bool const isExtended = properties != comment.end();
    RowLayout layout = layoutOf(file, isExtended ? properties->second : "species:S:1:pos:R:3");
    layout.mayHaveMore = !isExtended; // plain rows often go on, with velocities or charges
    ColumnNames names = {"column", positionNames, colorNames, velocityNames, {}};
    for (std::string_view const name : elementNames)
        if (names.element.empty() && layout.find(name) != nullptr)
            names.element = name;

    ParticleSet particles;
    particles.format = isExtended ? "extended XYZ" : "XYZ";
    particles.cell = cellOf(comment);
    std::string const step = wordsOf(comment, "step");
    std::string const time = wordsOf(comment, "time");
    if (std::int64_t number = 0; parseNumber(step, number))
        particles.step = number;
    if (double number = 0.0; parseNumber(time, number))
        particles.time = number;
    readTextRows(file, frame, layout, names, options, particles);
    return particles;
}

} // namespace

std::unique_ptr<FrameFormat> makeXyzFrames(ReadOptions const&) {
    return std::make_unique<XyzFrames>();
}

} // namespace pipeline
