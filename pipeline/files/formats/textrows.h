// Rows of words, as text formats have them.
#pragma once

#include "pipeline/files/columnuses.h"

#include <functional>
#include <memory>

namespace pipeline {

/// What a word of a row is. A label is a number or the name of one; what is skipped is in no
/// column.
enum class WordKind : std::uint8_t { number, logical, element, name, label, skipped };

/// The words of a row, and the columns in which those that are no text are kept.
struct RowLayout {
    std::vector<WordKind> words;
    std::vector<Column> columns; ///< in the order of the words; behind them those derived
    std::vector<std::shared_ptr<NameTable>> names; ///< of the words; null: they are numbers
    std::size_t rowBytes = 0;
    char comment = 0;         ///< what starts a comment at the end of a row; 0: none has any
    bool mayHaveMore = false; ///< words behind those listed are usual, and nothing to note

    /// A name gets a table of its own; a label is told from the one given.
    void addWord(std::string name, std::string_view type, WordKind kind,
                 std::shared_ptr<NameTable> const& labels = nullptr);
    /// Adds a column that is computed from others; after all words.
    void addDerived(std::string name);
    /// The column of this name, or null.
    Column const* find(std::string_view name) const;
};

/// A frame of text whose rows are to be read.
struct TextFrame {
    int index = 0;
    std::uint64_t rows = 0;
    std::string name;                   ///< for messages: "frame 3", "frame at step 9000"
    std::string_view nextFrameStarts{}; ///< no row starts so, but the next frame; may be empty

    /// How a message goes on when the frames before this one are whole.
    Hint wayOn() const;
};

[[noreturn]] void failEarlyEnd(InputFile const& file, TextFrame const& frame,
                               std::uint64_t rowsHeld);

/// The next row of a frame, of which `rowsHeld` are behind; refuses a frame that ends before.
std::string_view nextTextRow(InputFile& file, TextFrame const& frame, std::uint64_t rowsHeld);

/// Passes over the rows of a frame.
void skipTextRows(InputFile& file, TextFrame const& frame);

/// Turns words that name elements, by symbol or number, into atomic numbers and remembers those
/// that name none.
class ElementReader {
  public:
    explicit ElementReader(std::vector<std::string>& unknownSymbols) : unknown(unknownSymbols) {}

    std::uint8_t read(std::string_view word);
    /// The same where another rule has told the element of the word.
    std::uint8_t keep(std::string_view word, std::uint8_t element);

  private:
    std::vector<std::string>& unknown;
    std::string lastWord; ///< rows of one element mostly stand together
    std::uint8_t lastElement = 0;
};

/// Reads the rows of a frame into `particles`. `derive`, unless empty, fills the derived columns of
/// each row from the others.
void readTextRows(InputFile& file, TextFrame const& frame, RowLayout const& layout,
                  ColumnNames const& names, ReadOptions const& options, ParticleSet& particles,
                  std::function<void(char* row)> const& derive = {});

} // namespace pipeline
