// Where a scene's particles are at one time, and how large.
#pragma once

#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/vector.h"

#include "pipeline/scene/parting.h"

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace pipeline {

/// Any number of particles at one time. Trees take them a block at a time, where they lie.
class Snapshot {
  public:
    /// One radius per centre; type and time as in `Kelpa::ParticleData`.
    Snapshot(std::vector<Kelpa::Vector> centers, std::vector<float> sizes,
             std::int32_t particleType = 0, double sampleTime = 0.0)
        : positions(std::move(centers)), radii(std::move(sizes)), type(particleType),
          time(sampleTime) {}

    std::int64_t size() const { return static_cast<std::int64_t>(positions.size()); }

    /// Particles [`first`, `first` + `count`), for as long as the snapshot lives and keeps their
    /// order.
    Kelpa::ParticleData part(std::int64_t first, std::int32_t count) const {
        return {time,    type, positions.data() + first, count, radii.data() + first, count,
                nullptr, 0};
    }

    /// Brings the particles to the places that a parting gives them.
    void order(Parting const& parting) {
        parting.order(positions);
        parting.order(radii);
    }

    std::vector<Kelpa::Vector> positions; ///< centres
    std::vector<float> radii;             ///< one per centre

  private:
    std::int32_t type;
    double time;
};

} // namespace pipeline
