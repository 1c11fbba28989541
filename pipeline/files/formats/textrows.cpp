// Splits lines into words and words into numbers, with the place of what is wrong.
#include "pipeline/files/formats/textrows.h"

#include "pipeline/files/elements.h"
#include "pipeline/files/textvalues.h"

#include <algorithm>
#include <cstring>
#include <optional>

namespace pipeline {

namespace {

bool parseLogical(std::string_view word, double& value) {
    value = word == "T" || word == "True" || word == "true" || word == "TRUE" ? 1.0 : 0.0;
    return value == 1.0 || word == "F" || word == "False" || word == "false" || word == "FALSE";
}

/// Parses rows of one layout.
struct RowParser {
    InputFile const& file;
    TextFrame const& frame;
    RowLayout const& layout;
    std::vector<WordKind> kinds; ///< those of the layout, with text for what nobody uses
    ElementReader elements;
    std::uint64_t& unfitIds;
    std::uint64_t longRows = 0; ///< with more words than columns
    std::uint64_t firstLongRow = 0;

    /// Puts one word into its place in a row; false when it is not what the column holds.
    bool store(Column const& column, WordKind kind, std::string_view word, char* row) {
        if (double truth = 0.0; kind == WordKind::logical && parseLogical(word, truth)) {
            std::memcpy(row + column.offset, &truth, sizeof truth);
            return true;
        }
        if (kind != WordKind::element)
            return storeWord(column, word, row, unfitIds);
        row[column.offset] = static_cast<char>(elements.read(word));
        return true;
    }

    void parse(std::string_view line, char* row) {
        if (layout.comment != 0)
            line = line.substr(0, line.find(layout.comment));
        auto column = layout.columns.begin();
        for (std::size_t index = 0; index < kinds.size(); ++index) {
            std::string_view const word = nextWord(line);
            if (word.empty())
                file.failHere(frame.wayOn(), "a row of {} with {} of {} columns", frame.name, index,
                              kinds.size());
            if (kinds[index] != WordKind::text && !store(*column, kinds[index], word, row))
                file.failHere(frame.wayOn(), "{} where a number for {} belongs", quoted(word),
                              quoted(column->name));
            column += layout.words[index] == WordKind::text ? 0 : 1;
        }
        if (!layout.mayHaveMore && !nextWord(line).empty() && ++longRows == 1)
            firstLongRow = file.lineNumber();
    }
};

/// The kinds of a layout's words, but text for those whose columns nothing is read from.
std::vector<WordKind> kindsRead(RowLayout const& layout, std::vector<ColumnUse> const& uses) {
    std::vector<WordKind> kinds = layout.words;
    std::size_t column = 0;
    for (WordKind& kind : kinds) {
        if (kind == WordKind::text)
            continue;
        if (std::none_of(uses.begin(), uses.end(),
                         [&](ColumnUse const& use) { return use.column == column; }))
            kind = WordKind::text;
        ++column;
    }
    return kinds;
}

} // namespace

void RowLayout::addWord(std::string name, std::string_view type, WordKind kind) {
    words.push_back(kind);
    if (kind == WordKind::text) {
        texts.push_back(std::move(name));
        return;
    }
    ScalarType const stored =
        kind == WordKind::element ? ScalarType::uint8 : storedFromText(name, ScalarType::float64);
    columns.push_back({std::move(name), std::string(type), ScalarType::float64, stored, rowBytes});
    columns.back().isText = true;
    rowBytes += scalarBytes(stored);
}

void RowLayout::addDerived(std::string name) {
    columns.push_back({std::move(name), {}, ScalarType::float64, ScalarType::float64, rowBytes});
    columns.back().isDerived = true;
    columns.back().isText = true;
    rowBytes += scalarBytes(ScalarType::float64);
}

Column const* RowLayout::find(std::string_view name) const {
    auto const found = std::find_if(columns.begin(), columns.end(),
                                    [&](Column const& column) { return column.name == name; });
    return found == columns.end() ? nullptr : &*found;
}

Hint TextFrame::wayOn() const {
    return index > 0 ? Hint{Hint::To::readEarlierFrame, index - 1} : Hint{};
}

void failEarlyEnd(InputFile const& file, TextFrame const& frame, std::uint64_t rowsHeld) {
    file.failHere(frame.wayOn(), "{} ends after {} of {} rows", frame.name, rowsHeld, frame.rows);
}

std::string_view nextTextRow(InputFile& file, TextFrame const& frame, std::uint64_t rowsHeld) {
    // Looked at before it is taken, so that the message tells the line of the last row.
    std::optional<std::string_view> const line = file.peekLine();
    if (!line || line->find_first_not_of(" \t") == std::string_view::npos ||
        (!frame.nextFrameStarts.empty() && line->starts_with(frame.nextFrameStarts)))
        failEarlyEnd(file, frame, rowsHeld);
    return *file.nextLine();
}

void skipTextRows(InputFile& file, TextFrame const& frame) {
    for (std::uint64_t row = 0; row < frame.rows; ++row)
        nextTextRow(file, frame, row);
}

std::uint8_t ElementReader::read(std::string_view word) {
    if (word == lastWord)
        return lastElement;
    std::uint32_t number = 0;
    if (parseNumber(word, number))
        return keep(word, static_cast<std::uint8_t>(number < 119 ? number : 0));
    return keep(word, atomicNumberOf(word));
}

std::uint8_t ElementReader::keep(std::string_view word, std::uint8_t element) {
    constexpr std::size_t enoughForAMessage = 20;
    lastWord = word;
    lastElement = element;
    if (element == 0 && unknown.size() < enoughForAMessage &&
        std::find(unknown.begin(), unknown.end(), word) == unknown.end())
        unknown.emplace_back(word);
    return element;
}

void readTextRows(InputFile& file, TextFrame const& frame, RowLayout const& layout,
                  ColumnNames const& names, ReadOptions const& options, ParticleSet& particles,
                  std::function<void(char* row)> const& derive) {
    std::vector<ColumnUse> const uses = chooseUses(file, layout.columns, names, options, particles);
    for (std::string const& text : layout.texts)
        particles.leftOut.push_back("text " + quoted(text));
    bool const readsAll = options.summarise || derive;
    RowParser parser{file,
                     frame,
                     layout,
                     readsAll ? layout.words : kindsRead(layout, uses),
                     ElementReader(particles.unknownElements),
                     particles.unfitIds};
    RowConverter converter(particles, layout.columns, uses, options.summarise);
    converter.reserve(plausibleRows(file, frame.rows, 2 * layout.words.size()));

    readRows(file, frame.rows, layout.rowBytes, false, converter, [&](char* row) {
        parser.parse(nextTextRow(file, frame, file.particles), row);
        if (derive)
            derive(row);
        return true;
    });
    if (parser.longRows > 0)
        particles.notes.push_back({fmt::format(
            "{}:{}: a row of {} with more words than its {} columns; {} such rows, of which the "
            "first words count",
            file.path(), parser.firstLongRow, frame.name, layout.words.size(), parser.longRows)});
}

} // namespace pipeline
