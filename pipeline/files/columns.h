// From rows as files hold them to arrays of particles.
#pragma once

#include "pipeline/files/inputfile.h"
#include "pipeline/files/particleset.h"
#include "pipeline/files/readoptions.h"
#include "pipeline/files/scalartype.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace pipeline {

/// One number that every row of a file holds.
struct Column {
    std::string name;
    std::string typeName;   ///< as the file calls it
    ScalarType declared;    ///< decides what the numbers mean, such as 0 to 255 for a colour
    ScalarType stored;      ///< how a row in memory holds it: text is parsed to fewer types
    std::size_t offset;     ///< in a row, in bytes
    bool isDerived = false; ///< computed, and so not summarised; behind all that are read
    bool isText = false;    ///< numbers of no declared type
    /// What its whole numbers count, complete up to those in the rows; null: they are just numbers.
    std::shared_ptr<NameTable const> names{};
};

/// The type in which a text reader stores a column: one that keeps every digit.
ScalarType storedFromText(std::string_view name, ScalarType declared);

/// Parses a word into a row; false when it is no number. Counts those that a whole column cannot
/// hold as they are in `unfitIds`.
bool storeWord(Column const& column, std::string_view word, char* row, std::uint64_t& unfitIds);

enum class Target : std::uint8_t {
    position,
    radius,
    color,
    velocity,
    image,
    id,
    element,
    type,
    attribute,
    length, ///< of a vector as an attribute, to which the column is one of its parts
    typed,
};

/// One thing that a column is read for. A column may have several uses.
struct ColumnUse {
    std::size_t column;
    Target target;
    std::size_t part = 0; ///< the axis, or which of the attributes or typed columns
    float factor = 1.0F;  ///< for radii
};

/// Turns rows as a file holds them into the arrays of a particle set, column by column.
class RowConverter {
  public:
    /// `particles` must outlive the converter; `summarise` fills its `columns`.
    RowConverter(ParticleSet& particles, std::vector<Column> columns, std::vector<ColumnUse> uses,
                 bool summarise);

    /// Makes room for so many particles in one go.
    void reserve(std::size_t count);
    /// Appends particles from `count` rows of `rowBytes`; `swapBytes`: of the other byte order.
    void append(char const* rows, std::size_t count, std::size_t rowBytes, bool swapBytes);

  private:
    void convert(ColumnUse const& use, char const* rows, std::size_t count, std::size_t rowBytes);
    void keep(ColumnUse const& use, char const* from, std::size_t count, std::size_t rowBytes);
    void summarise(std::size_t column, char const* rows, std::size_t count, std::size_t rowBytes);
    void countNames(std::size_t column, char const* rows, std::size_t count, std::size_t rowBytes);
    template <class Operation> void forEachArray(Operation operation);

    ParticleSet& particles;
    std::vector<Column> columns;
    std::vector<ColumnUse> uses;
    std::vector<std::uint64_t> finiteCount; ///< per column; empty: nothing is summarised
    std::vector<char> swapped;
    std::size_t converted = 0;
};

/// Fills so many rows one by one and appends them in blocks that stay in the cache. `fill` gives
/// false for a row that is no particle; `InputFile::particles` counts those behind it.
void readRows(InputFile& file, std::uint64_t count, std::size_t rowBytes, bool swapBytes,
              RowConverter& converter, std::function<bool(char* row)> const& fill);

/// How many rows may be reserved at once on a header's word: no more than the file could hold,
/// with plenty of room for compression.
std::size_t plausibleRows(InputFile const& file, std::uint64_t promised, std::size_t rowBytes);

} // namespace pipeline
