#include "tool/columns.h"
#include "tool/elements.h"
#include "tool/inputfile.h"
#include "tool/textvalues.h"

#include <algorithm>
#include <cstring>
#include <limits>
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

/// What a word of a row is.
enum class WordKind { number, logical, element, text };

struct RowLayout {
    bool isExtended = false;
    std::vector<WordKind> words;
    std::vector<Column> columns; ///< one for each word that is no text
    std::size_t rowBytes = 0;
};

/// A frame whose first two lines have been read.
struct Frame {
    int index = 0;
    std::uint64_t rows = 0;
    std::string comment;
};

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

void addColumn(RowLayout& layout, std::string name, std::string_view type, WordKind kind) {
    layout.words.push_back(kind);
    if (kind == WordKind::text)
        return;
    ScalarType const stored =
        kind == WordKind::element ? ScalarType::uint8 : storedFromText(name, ScalarType::float64);
    layout.columns.push_back(
        {std::move(name), std::string(type), ScalarType::float64, stored, layout.rowBytes});
    layout.rowBytes += scalarBytes(stored);
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
        addColumn(layout, std::string(name) + suffix, type, kind);
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

RowLayout layoutOf(InputFile const& file, std::string_view comment) {
    RowLayout layout;
    std::string_view properties = valueOf(comment, "Properties=");
    layout.isExtended = !properties.empty();
    if (!layout.isExtended)
        properties = "species:S:1:pos:R:3";
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

// Rows ---------------------------------------------------------------------------------------

/// Turns the words that name elements into atomic numbers and remembers those that name none.
class ElementReader {
  public:
    explicit ElementReader(std::vector<std::string>& unknownSymbols) : unknown(unknownSymbols) {}

    std::uint8_t read(std::string_view word) {
        if (word == lastWord) // rows of one element mostly stand together
            return lastElement;
        lastWord = word;
        std::uint32_t number = 0;
        if (parseNumber(word, number))
            lastElement = static_cast<std::uint8_t>(number < 119 ? number : 0);
        else
            lastElement = atomicNumberOf(word);
        if (lastElement == 0)
            remember(word);
        return lastElement;
    }

  private:
    void remember(std::string_view word) {
        constexpr std::size_t enoughForAMessage = 20;
        if (unknown.size() < enoughForAMessage &&
            std::find(unknown.begin(), unknown.end(), word) == unknown.end())
            unknown.emplace_back(word);
    }

    std::vector<std::string>& unknown;
    std::string lastWord;
    std::uint8_t lastElement = 0;
};

/// How a message goes on when the frames before this one are whole.
std::string wayOn(Frame const& frame) {
    return frame.index > 0 ? fmt::format("; use --frame {} or an earlier one", frame.index - 1)
                           : std::string();
}

[[noreturn]] void failEarlyEnd(InputFile const& file, Frame const& frame, std::uint64_t rowsHeld) {
    file.failHere("frame {} ends after {} of {} rows{}", frame.index, rowsHeld, frame.rows,
                  wayOn(frame));
}

bool parseLogical(std::string_view word, double& value) {
    value = word == "T" || word == "True" || word == "true" || word == "TRUE" ? 1.0 : 0.0;
    return value == 1.0 || word == "F" || word == "False" || word == "false" || word == "FALSE";
}

void parseRow(InputFile const& file, Frame const& frame, RowLayout const& layout,
              std::string_view line, ElementReader& elements, char* row) {
    auto column = layout.columns.begin();
    for (std::size_t index = 0; index < layout.words.size(); ++index) {
        std::string_view const word = nextWord(line);
        if (word.empty())
            file.failHere("a row of frame {} with {} of {} columns{}", frame.index, index,
                          layout.words.size(), wayOn(frame));
        if (layout.words[index] == WordKind::text)
            continue;
        bool isStored = true;
        if (double truth = 0.0; layout.words[index] == WordKind::element)
            row[column->offset] = static_cast<char>(elements.read(word));
        else if (layout.words[index] == WordKind::logical && parseLogical(word, truth))
            std::memcpy(row + column->offset, &truth, sizeof truth);
        else
            isStored = storeWord(*column, word, row);
        if (!isStored)
            file.failHere("{} where a number for {} belongs{}", quoted(word), quoted(column->name),
                          wayOn(frame));
        ++column;
    }
}

ParticleSet readRows(InputFile& file, Frame const& frame, ReadOptions const& options) {
    RowLayout const layout = layoutOf(file, frame.comment);
    ParticleSet particles;
    particles.format = layout.isExtended ? "extended XYZ" : "XYZ";

    ColumnNames names = {"column", positionNames, colorNames, velocityNames, {}};
    for (std::string_view const name : elementNames)
        if (names.element.empty() &&
            std::any_of(layout.columns.begin(), layout.columns.end(),
                        [&](Column const& column) { return column.name == name; }))
            names.element = name;
    RowConverter converter(particles, layout.columns,
                           chooseUses(file, layout.columns, names, options, particles),
                           options.summarise);
    converter.reserve(plausibleRows(file, frame.rows, 2 * layout.words.size()));

    constexpr std::size_t rowsAtOnce = 256;
    std::vector<char> rows(rowsAtOnce * layout.rowBytes);
    ElementReader elements(particles.unknownElements);
    while (file.particles < frame.rows) {
        std::size_t const count = static_cast<std::size_t>(
            std::min<std::uint64_t>(rowsAtOnce, frame.rows - file.particles));
        for (std::size_t row = 0; row < count; ++row) {
            std::optional<std::string_view> const line = file.nextLine();
            if (!line)
                failEarlyEnd(file, frame, file.particles + row);
            parseRow(file, frame, layout, *line, elements, rows.data() + row * layout.rowBytes);
        }
        converter.append(rows.data(), count, layout.rowBytes, false);
        file.particles += count;
    }
    return particles;
}

// Frames -------------------------------------------------------------------------------------

/// Reads the first two lines of a frame, past blank ones; nothing at the end of the file.
std::optional<Frame> beginFrame(InputFile& file, int index) {
    std::optional<std::string_view> line = file.nextLine();
    while (line && line->find_first_not_of(" \t") == std::string_view::npos)
        line = file.nextLine();
    if (!line)
        return std::nullopt;
    Frame frame;
    frame.index = index;
    std::string_view words = *line;
    std::string_view const count = nextWord(words);
    if (!parseNumber(count, frame.rows) || !nextWord(words).empty())
        file.failHere("{} where the number of atoms of frame {} belongs{}", quoted(*line), index,
                      wayOn(frame));
    std::optional<std::string_view> const comment = file.nextLine();
    if (!comment)
        failEarlyEnd(file, frame, 0);
    frame.comment = *comment;
    return frame;
}

void skipRows(InputFile& file, Frame const& frame) {
    for (std::uint64_t row = 0; row < frame.rows; ++row)
        if (!file.nextLine())
            failEarlyEnd(file, frame, row);
}

/// Passes over whole frames, raising `next` by one for each, up to number `end` or the file's end.
void skipFrames(InputFile& file, int& next, int end) {
    while (next < end) {
        std::optional<Frame> const frame = beginFrame(file, next);
        if (!frame)
            return;
        skipRows(file, *frame);
        ++next;
    }
}

[[noreturn]] void failNoFrame(InputFile const& file, int wanted, int frameCount) {
    file.fail("no frame {}; it has {} (the first is 0, the last -1)", wanted, frameCount);
}

/// Reads the frame with the number `wanted`, from the front, of a file that is at its beginning.
ParticleSet readFrame(InputFile& file, int wanted, ReadOptions const& options) {
    int frameCount = 0;
    skipFrames(file, frameCount, wanted);
    std::optional<Frame> const frame = beginFrame(file, frameCount);
    if (!frame)
        failNoFrame(file, wanted, frameCount);
    ParticleSet particles = readRows(file, *frame, options);
    particles.frameCount = wanted + 1;
    return particles;
}

} // namespace

ParticleSet readXyz(InputFile& file, ReadOptions const& options) {
    constexpr int allFrames = std::numeric_limits<int>::max();
    if (options.frame < 0) {
        if (!file.canBeReadAgain())
            file.fail("frames are counted from the end in files only, not in a pipe");
        int frameCount = 0;
        skipFrames(file, frameCount, allFrames);
        if (options.frame < -frameCount)
            failNoFrame(file, options.frame, frameCount);
        InputFile fromStart(file.path(), options.progress);
        ParticleSet particles = readFrame(fromStart, frameCount + options.frame, options);
        particles.frameCount = frameCount;
        return particles;
    }
    ParticleSet particles = readFrame(file, options.frame, options);
    if (options.summarise) {
        // A summary tells about damage further on, but the frame it is about is good.
        try {
            skipFrames(file, particles.frameCount, allFrames);
        } catch (InputError const& error) {
            particles.notes.emplace_back(error.what());
        }
    } else {
        file.peek(1); // at the end of gzipped data this compares the checksum
    }
    return particles;
}

} // namespace kelpatool
