// What readers use gemmi for.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

// What is asked of gemmi, in words of our own. This header and its source are C++17: clang 14
// cannot compile gemmi as C++20 with the standard library of g++.

namespace pipeline {

/// An atom as gemmi reads it from PDB records; the texts live as long as the call that it is for.
struct PdbAtom {
    double x, y, z;
    std::int32_t serial;
    float occupancy, bFactor;
    std::int32_t residueNumber;
    std::uint8_t element; ///< atomic number; 0: unknown
    bool isAlternate;     ///< it is at one of several locations
    std::string const& name;
    std::string const& residue;
    std::string const& place; ///< chain and number of the residue
    std::string const& chain;
};

/// Gives every atom of some PDB records, which must be of one model. Throws `std::runtime_error`.
void forEachPdbAtom(std::string const& records, std::function<void(PdbAtom const&)> const& take);

/// Text that is no CIF.
class CifError : public std::runtime_error {
  public:
    CifError(std::string const& message, std::size_t where)
        : std::runtime_error(message), line(where) {}
    std::size_t line; ///< 0: unknown
};

/// Columns of one category of a CIF block, with a row for each of its entries.
class CifTable {
  public:
    virtual ~CifTable() = default;
    /// 0 as well when the category or a column that it must have is missing.
    virtual std::size_t rows() const = 0;
    /// A value without its quotes; empty when it, or its column, is missing.
    virtual std::string text(std::size_t row, std::size_t column) = 0;
};

/// An operation of symmetry on fractions of a cell's edges: three factors and an offset a row.
using CifOperation = std::array<std::array<double, 4>, 3>;

/// The blocks of a CIF file, of which one at a time is asked: the first, at the beginning.
class CifFile {
  public:
    /// Throws `CifError`.
    explicit CifFile(std::string const& text);
    ~CifFile();
    CifFile(CifFile const&) = delete;
    CifFile& operator=(CifFile const&) = delete;

    bool hasBlock() const { return blocks() > 0; }
    std::size_t blocks() const;
    /// From now on this block is asked.
    void turnTo(std::size_t block) { current = block; }
    std::string blockName() const;
    /// The operations of the block's symmetry: those that it lists, else those of the group that it
    /// tells by Hall's symbol, name or number, in the setting of its cell's angles where the name
    /// leaves that open; none when it does neither in a way that is known.
    std::vector<CifOperation> symmetry();
    /// The table of these tags of a category, such as "_atom_site."; with a '?' before those that
    /// may be missing, of which the first is none. Must not outlive the file.
    std::unique_ptr<CifTable> find(std::string const& category,
                                   std::vector<std::string> const& tags);

  private:
    struct Document;
    std::unique_ptr<Document> document;
    std::size_t current = 0;
};

} // namespace pipeline
