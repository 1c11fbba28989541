// Atoms as the formats of molecules and crystals share them, on their way to particles.
#pragma once

#include "pipeline/files/formats/molecules/assembly.h"
#include "pipeline/files/inputfile.h"
#include "pipeline/files/particleset.h"
#include "pipeline/files/readoptions.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace pipeline {

/// An atom as `RowConverter` sees it.
struct AtomRow {
    double x = 0.0, y = 0.0, z = 0.0;
    std::int32_t serial = 0; ///< of a crystal: which of the sites it is a copy of
    float occupancy = 1.0F;
    float bFactor = 0.0F;
    std::int32_t residue = 0;
    std::uint32_t chain = 0; ///< by its number in the molecule's table, as are the next two
    std::uint32_t name = 0;
    std::uint32_t residueName = 0;
    std::int32_t copy = 0; ///< of the assembly, or by which operation of a crystal
    std::uint8_t element = 0;
};

/// What atoms stand for, and so which numbers they have.
enum class AtomKind { molecule, assembly, crystal };

/// The atoms of one model of a file.
struct Molecule {
    std::vector<AtomRow> atoms;
    std::shared_ptr<NameTable> chains = std::make_shared<NameTable>();
    std::shared_ptr<NameTable> names = std::make_shared<NameTable>();
    std::shared_ptr<NameTable> residueNames = std::make_shared<NameTable>();
    std::vector<std::string> unknownElements;
    std::vector<Assembly> assemblies;
    std::optional<PeriodicCell> cell;
};

/// Tells which of an atom's alternate locations is the first.
class AlternateFilter {
  public:
    /// Whether an atom is to be kept. `place` names chain and number of its residue; the atoms of a
    /// place come one after the other. Without an alternate location every atom is.
    bool keeps(std::string const& place, std::string const& residue, std::string const& atom,
               bool isAlternate) {
        if (place != currentPlace) {
            currentPlace = place;
            firstResidue = residue; // a place may even hold one residue or another
            seen.clear();
        }
        return !isAlternate || (residue == firstResidue && seen.insert(atom).second);
    }

  private:
    std::string currentPlace;
    std::string firstResidue;
    std::set<std::string> seen;
};

/// Makes particles of the molecule, or of the assembly that `options` ask for. Empties it.
ParticleSet makeParticles(InputFile& file, Molecule& molecule, AtomKind kind,
                          ReadOptions const& options, std::string_view format);

} // namespace pipeline
