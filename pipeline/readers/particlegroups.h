// Particles as arrays of a file tell them, on their way to rows.
#pragma once

#include "pipeline/files/scalartype.h"
#include "pipeline/readers/readersender.h"

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace pipeline {

/// Some columns that are read together, such as the three of a vector.
struct ColumnSource {
    std::string name;                 ///< of the column, or of the vector
    std::vector<std::string> endings; ///< behind the name, one a column, such as ".x"
    ScalarType type = ScalarType::float64;
    std::string typeName; ///< as the file calls it
    /// Reads numbers of particles from `first` on as those of a type, particle by particle.
    std::function<void(std::uint64_t first, std::uint64_t count, ScalarType as, char* to)> read;
    /// What the numbers stand for, if they have names, by number.
    std::vector<std::pair<std::int64_t, std::string>> names{};
};

/// The endings of the columns of an array with so many numbers a particle.
std::vector<std::string> endingsOf(std::uint64_t parts);

/// A source of a whole number that all particles share.
ColumnSource constantSource(std::string name, std::int64_t value);
/// A source of numbers that all particles share, one a column.
ColumnSource constantSource(std::string name, std::vector<double> values);

/// Particles that have the same columns.
struct ParticleGroup {
    std::uint64_t count = 0;
    std::vector<ColumnSource> columns;
};

/// Sends the columns that are wanted of all groups, and their rows, a part of the arrays at a time.
/// What a group lacks that others have is NaN, or 0 where all the others have whole numbers;
/// numbers of a column that differ in type become those of a wider one.
void sendGroups(std::vector<ParticleGroup> const& groups, ReaderInput const& input,
                ReaderSender const& sender);

} // namespace pipeline
