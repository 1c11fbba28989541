#include "pipeline/files/formats/frames.h"
#include "pipeline/files/formats/textrows.h"
#include "pipeline/files/textvalues.h"

#include <algorithm>
#include <optional>

// XYZ: per frame a line with the number of atoms, a comment and a row per atom. Extended XYZ names
// the columns of the rows in the comment: Properties=species:S:1:pos:R:3:..., a name, a type (S
// text, R real, I integer, L logical) and how many columns it spans.

namespace kelpatool {

namespace {

constexpr VectorColumns positionNames[] = {{"pos", {"pos.x", "pos.y", "pos.z"}}};
constexpr VectorColumns colorNames[] = {{"color", {"color.x", "color.y", "color.z"}}};
constexpr VectorColumns velocityNames[] = {
    {"velo", {"velo.x", "velo.y", "velo.z"}},
    {"vel", {"vel.x", "vel.y", "vel.z"}},
    {"velocities", {"velocities.x", "velocities.y", "velocities.z"}}};
constexpr std::string_view elementNames[] = {"species", "element", "Z", "numbers"};

// Layout of rows -----------------------------------------------------------------------------

WordKind kindOf(InputFile const& file, std::string_view name, std::string_view type) {
    if (type == "R" || type == "I")
        return WordKind::number;
    if (type == "L")
        return WordKind::logical;
    if (type == "S")
        return name == "species" || name == "element" ? WordKind::element : WordKind::text;
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

/// What `key=` is followed by in a comment, without its quotes; empty when the key is not there.
std::string_view valueOf(std::string_view comment, std::string_view key) {
    std::size_t const at = comment.find(key);
    if (at == std::string_view::npos || (at > 0 && comment[at - 1] != ' '))
        return {};
    std::string_view const value = comment.substr(at + key.size());
    if (value.starts_with('"') || value.starts_with('\''))
        return value.substr(1, value.find(value[0], 1) - 1);
    return value.substr(0, value.find_first_of(" \t"));
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

/// The cell that `Lattice=` and `pbc=` tell of; without the latter it repeats along all edges.
std::optional<PeriodicCell> cellOf(std::string_view comment) {
    std::string_view lattice = valueOf(comment, "Lattice=");
    std::string_view flags = valueOf(comment, "pbc=");
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
    std::string comment;
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
        file.failHere("{} where the number of atoms of {} belongs{}", quoted(*line), frame.name,
                      frame.wayOn());
    std::optional<std::string_view> const second = file.nextLine();
    if (!second)
        failEarlyEnd(file, frame, 0);
    comment = *second;
    return true;
}

ParticleSet XyzFrames::read(InputFile& file, ReadOptions const& options) {
    std::string_view const properties = valueOf(comment, "Properties=");
    bool const isExtended = !properties.empty();
    RowLayout const layout = layoutOf(file, isExtended ? properties : "species:S:1:pos:R:3");
    ColumnNames names = {"column", positionNames, colorNames, velocityNames, {}};
    for (std::string_view const name : elementNames)
        if (names.element.empty() && layout.find(name) != nullptr)
            names.element = name;

    ParticleSet particles;
    particles.format = isExtended ? "extended XYZ" : "XYZ";
    particles.cell = cellOf(comment);
    readTextRows(file, frame, layout, names, options, particles);
    return particles;
}

} // namespace

ParticleSet readXyz(InputFile& file, ReadOptions const& options) {
    XyzFrames frames;
    return readFrameOf(file, frames, options);
}

} // namespace kelpatool
