// What to read of a file.
#pragma once

#include "pipeline/files/progress.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace pipeline {

/// Which of a file's rows one of several processes reads.
struct RowShare {
    std::uint64_t number = 0;
    std::uint64_t of = 1;

    /// The first of them, of so many rows.
    std::uint64_t begin(std::uint64_t rows) const {
        return rows / of * number + std::min(number, rows % of);
    }
    std::uint64_t end(std::uint64_t rows) const { return RowShare{number + 1, of}.begin(rows); }
};

/// What to read of a file.
struct ReadOptions {
    std::string format{};   ///< one of `formatNames`; empty: told from the content, then the suffix
    int frame = 0;          ///< negative: counted from the end
    std::string assembly{}; ///< the biological assembly to build; empty: what the file holds
    /// The kinds of particles to read, of formats that keep them apart; none: all.
    std::vector<std::string> kinds{};
    std::string topology{};   ///< a file that names the particles of this one; empty: none
    std::string radiusFrom{}; ///< the column to take radii from; empty: the format's own names
    std::vector<std::string> attributes{}; ///< further columns to keep, by name
    bool vectorParts = false;   ///< keep those of a vector behind its length, as "fx" and so on
    bool allAttributes = false; ///< keep every column, every digit of it: `ParticleSet::typed`
    bool summarise = false;     ///< fill `ParticleSet::columns`
    bool countFrames = true;    ///< to summarise, also pass over all other frames of the file
    bool forMotion = false;     ///< prefer positions that do not jump at a cell's faces
    bool findOnly = false; ///< of a file of many frames, look for the frame and read no particles
    /// Readers that can find these rows without the others read them alone, and say so by
    /// `ParticleSet::isShare`; the others read all.
    RowShare rows{};
    PhaseProgress progress{}; ///< may be empty
};

} // namespace pipeline
