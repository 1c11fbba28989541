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
    std::vector<WordKind> kinds; ///< those of the layout, but skipped for what nobody uses
    ElementReader elements;
    std::uint64_t& unfitIds;
    std::uint64_t longRows = 0; ///< with more words than columns
    std::uint64_t firstLongRow = 0;

    /// Puts one word into its place in a row; false when it is not what the column holds.
    bool store(std::size_t index, std::string_view word, char* row) {
        Column const& column = layout.columns[index];
        auto const put = [&](auto value) {
            std::memcpy(row + column.offset, &value, sizeof value);
            return true;
        };
        double truth = 0.0;
        switch (kinds[index]) {
        case WordKind::name:
            return put(layout.names[index]->numberOf(word));
        case WordKind::element:
            return put(elements.read(word));
        case WordKind::label:
            if (std::optional<std::uint32_t> const number = layout.names[index]->find(word))
                return put(std::int64_t{*number});
            break;
        case WordKind::logical:
            if (parseLogical(word, truth))
                return put(truth);
            break;
        case WordKind::number:
        case WordKind::skipped:
            break;
        }
        return storeWord(column, word, row, unfitIds);
    }

    void parse(std::string_view line, char* row) {
        if (layout.comment != 0)
            line = line.substr(0, line.find(layout.comment));
        for (std::size_t index = 0; index < kinds.size(); ++index) {
            std::string_view const word = nextWord(line);
            if (word.empty())
                file.failHere(frame.wayOn(), "a row of {} with {} of {} columns", frame.name, index,
                              kinds.size());
            if (kinds[index] != WordKind::skipped && !store(index, word, row))
                file.failHere(frame.wayOn(), "{} where a number for {} belongs", quoted(word),
                              quoted(layout.columns[index].name));
        }
        if (!layout.mayHaveMore && !nextWord(line).empty() && ++longRows == 1)
            firstLongRow = file.lineNumber();
    }
};

/// The kinds of a layout's words, but skipped for those whose columns nothing is read from.
std::vector<WordKind> kindsRead(RowLayout const& layout, std::vector<ColumnUse> const& uses) {
    std::vector<WordKind> kinds = layout.words;
    for (std::size_t column = 0; column < kinds.size(); ++column)
        if (std::none_of(uses.begin(), uses.end(),
                         [&](ColumnUse const& use) { return use.column == column; }))
            kinds[column] = WordKind::skipped;
    return kinds;
}

} // namespace

void RowLayout::addWord(std::string name, std::string_view type, WordKind kind,
                        std::shared_ptr<NameTable> const& labels) {
    words.push_back(kind);
    names.push_back(kind == WordKind::name ? std::make_shared<NameTable>() : labels);
    ScalarType const stored = kind == WordKind::element ? ScalarType::uint8
                              : kind == WordKind::name  ? ScalarType::uint32
                              : kind == WordKind::label ? ScalarType::int64
                                                        : storedFromText(name, ScalarType::float64);
    columns.push_back({std::move(name), std::string(type), ScalarType::float64, stored, rowBytes});
    columns.back().isText = true;
    columns.back().names = names.back();
    if (kind == WordKind::element)
        columns.back().names = elementSymbols();
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
