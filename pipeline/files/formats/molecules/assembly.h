// Biological assemblies: copies of a molecule, turned and moved.
#pragma once

#include "pipeline/files/inputfile.h"

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace pipeline {

/// A rotation and a translation of a molecule: per axis three factors and an offset.
struct Placement {
    std::array<std::array<double, 4>, 3> rows{{{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}}};

    std::array<double, 3> place(std::array<double, 3> const& point) const;
    /// The placement that does `first`, then this one.
    Placement after(Placement const& first) const;
};

/// Some chains of a file, each put to every placement.
struct ChainCopies {
    std::vector<std::string> chains;
    std::vector<Placement> placements;
};

/// A biological assembly: what works together in nature, of which the file holds a part.
struct Assembly {
    std::string name;
    std::vector<ChainCopies> parts;
};

/// The assembly of this name; refuses a file that has none of it, and says which it has.
Assembly const& findAssembly(InputFile const& file, std::vector<Assembly> const& assemblies,
                             std::string_view name);

/// Collects the assemblies that the REMARK 350 records of a PDB file describe.
class AssemblyRemarks {
  public:
    /// Takes a line of the file; those that are no REMARK 350 are none of its business.
    void read(InputFile const& file, std::string_view line);
    /// The assemblies, once all lines are read; refuses a matrix that is incomplete.
    std::vector<Assembly> finish(InputFile const& file);

  private:
    void readMatrixRow(InputFile const& file, std::string_view text);
    void expectWholeMatrix(InputFile const& file) const;
    void readChains(std::string_view list);

    std::vector<Assembly> assemblies;
    int rowsRead = 0;   ///< of the matrix that is being read: 0 to 2
    std::string number; ///< of that matrix
};

/// The placements that an expression of mmCIF such as "1,3", "(1-60)" or "(P)(1-5)" stands for:
/// lists of operators, which `find` knows by name; of several lists every product, the last done
/// first. Refuses what is no such expression, and more than a hundred thousand placements.
std::vector<Placement> parseOperators(InputFile const& file, std::string_view expression,
                                      std::function<Placement(std::string_view name)> const& find);

} // namespace pipeline
