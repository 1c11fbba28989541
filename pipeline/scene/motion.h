// Which particles of two snapshots belong together, and their ways in periodic cells.
#pragma once

#include "pipeline/files/particleset.h"

#include <array>
#include <cstdint>
#include <vector>

namespace pipeline {

/// For each particle of the first snapshot the index of its partner in the second, or -1: the one
/// with the same id, else that in the same row. Of several with one id each has another partner.
std::vector<std::int64_t> findPartners(ParticleSet const& first, ParticleSet const& second);

/// Positions moved back into a cell along its periodic edges.
std::vector<Kelpa::Vector> wrapped(std::vector<Kelpa::Vector> const& positions,
                                   PeriodicCell const& cell);

/// Where particles of the second snapshot are on their way from the first.
///
/// In a periodic cell particles that leave on one side come back on the other. Between snapshots
/// that tell how often (`ParticleSet::images`) the way goes on accordingly; else it leads to the
/// nearest image. Unwrapped positions are taken as they are.
class PeriodicWays {
  public:
    PeriodicWays(ParticleSet const& first, ParticleSet const& second);

    /// Where particle `to` of the second snapshot ends, coming from particle `from` of the first.
    Kelpa::Vector end(std::size_t from, std::size_t to);
    /// How many of the ways asked for led through a face of the cell.
    std::uint64_t crossingCount() const { return crossings; }

  private:
    using Step = std::array<double, 3>;

    void prepareNearest();
    Step alongEdges(Step const& edgeCounts) const;
    Step nearest(Step const& step) const;

    ParticleSet const& first;
    ParticleSet const& second;
    PeriodicCell cell;
    bool hasImages = false;
    bool findsNearest = false;
    bool isTilted = false;
    std::array<Step, 3> inverse{}; ///< of the edges: a step in fractions of them
    std::uint64_t crossings = 0;
};

} // namespace pipeline
