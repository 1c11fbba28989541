// What a particle file holds.
#pragma once

#include "kelpa/foundation/vector.h"

#include "pipeline/files/errors.h"
#include "pipeline/files/nametable.h"
#include "pipeline/files/scalartype.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace pipeline {

/// One named column of a particle file: a number per particle. The length of a vector counts as
/// one.
///
/// A column of names (chains, residues, atoms, kinds of particles) has beside it a table of them:
/// each value is then a whole number from 0 that counts its entries, and has no order but that. So
/// has every column that tells elements; its values are atomic numbers, its entries the symbols.
struct Attribute {
    std::string name;
    std::vector<float> values;
    std::string source{};                     ///< of a vector: "length of fx fy fz"
    std::shared_ptr<NameTable const> names{}; ///< null: the values are just numbers
};

/// A column that is kept in its own type, every digit of it.
struct TypedColumn {
    std::string name;
    ScalarType type = ScalarType::float64;
    bool isText = false;       ///< parsed from text, whose type says nothing about its digits
    std::vector<char> bytes{}; ///< the values, one behind the other
    std::shared_ptr<NameTable const> names{}; ///< as of an attribute
};

/// The range of one column as it stands in the file, for `kelpa info`.
struct AttributeSummary {
    std::string name; ///< as in the file
    std::string type; ///< as in the file, such as "float32"
    double min = 0.0; ///< over the finite values
    double max = 0.0;
    std::size_t notFinite = 0;
    std::shared_ptr<NameTable const> names{}; ///< as of an attribute
    std::vector<std::uint64_t> counts{};      ///< particles by name
};

/// A box of particles that repeats along some of its edges.
struct PeriodicCell {
    std::array<double, 3> origin{};
    std::array<std::array<double, 3>, 3> edges{};
    std::array<bool, 3> isPeriodic{};
};

/// What a particle file holds, in the file's own units. Every array but `positions` is either empty
/// (the file has no such thing) or has one entry per particle.
struct ParticleSet {
    std::vector<Kelpa::Vector> positions;
    std::vector<float> radii;
    std::vector<Kelpa::Vector> colors;     ///< linear RGB, 0 to 1
    std::vector<Kelpa::Vector> velocities; ///< length per the file's own unit of time
    std::vector<std::int64_t> ids;
    std::vector<std::uint8_t> elements;         ///< atomic numbers; 0: unknown
    std::vector<std::int64_t> types;            ///< kinds of particles that the file only numbers
    std::shared_ptr<NameTable const> typeNames; ///< by type, if the file names them as well
    std::vector<Kelpa::Vector> images; ///< by how many edges of `cell` wrapping moved each back
    std::vector<Attribute> attributes; ///< those that the reader was asked for
    /// When asked for, every further column, and under the names "x", "vx", "red", "radius" and
    /// "id" those that the arrays above are too narrow for.
    std::vector<TypedColumn> typed;

    std::optional<PeriodicCell> cell;
    std::array<int, 3> copies{1, 1, 1}; ///< of the cell and what is in it, along its edges
    std::optional<float> spacing;       ///< `radiusFromSpacing` of all, if only some are held
    bool isUnwrapped = false; ///< positions go on beyond the cell: no jumps from frame to frame
    float angstrom = 1.0F;    ///< in the file's unit of length, where elements give the radii

    std::string name;   ///< for messages: the file, and which of its frames if it has several
    std::string format; ///< such as "PLY binary little-endian"
    std::string
        radiusSource;        ///< the column that `radii` came from, such as "psz" or "diameter / 2"
    std::string colorSource; ///< the columns that `colors` came from
    std::vector<AttributeSummary> columns;    ///< filled when asked for
    std::vector<std::string> unknownElements; ///< symbols that are in no table
    std::uint64_t unfitIds = 0; ///< ids and types cut to whole numbers, or to -1 as beyond 64 bits
    std::uint64_t wrappedIds = 0; ///< of 2^63 and more, which have the same bits as negative ones
    std::vector<std::size_t> virtualSites; ///< rows of the file, rising, that are no particles
    std::vector<std::string> leftOut;      ///< what the file holds besides, such as "list 'links'"
    std::vector<Remark> notes;             ///< what the user should know, a line each
    std::optional<std::int64_t> step;      ///< of the simulation, at this frame
    std::optional<double> time;            ///< of the frame, in the file's own unit
    int frame = 0;      ///< which of them, or of the files of a sequence, this is
    int frameCount = 1; ///< frames in the file, as far as the reader had to count them
    /// How many frames' time after the one that it was read to follow it was taken: more than 1
    /// where files of a sequence are missing in between.
    double steps = 1.0;
    bool isShare = false; ///< holds `ReadOptions::rows` alone
    char upAxis = 'z';    ///< 'y' for formats from film effects
};

} // namespace pipeline
