// Particles in arrays of their own, as builds want them.
#pragma once

#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/platform.h"
#include "kelpa/foundation/vector.h"

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <utility>
#include <vector>

namespace Kelpa {

/// Owns the arrays that a `ParticleData` points to.
///
/// Fill it once, then hand `data()` to a primitive: the pointer and the arrays stay where they are
/// until the system is destroyed, which must not be before the primitive is. Not copied or moved,
/// so that the pointer cannot go stale unseen.
class ParticleSystem {
  public:
    /// One radius per centre; `colors` is empty or has one per centre. Throws `std::length_error`
    /// when there are more than 2^31 - 1 of anything.
    ParticleSystem(std::vector<Vector> centers, std::vector<float> sizes,
                   std::vector<Vector> tints = {}, std::int32_t particleType = 0,
                   double sampleTime = 0.0)
        : positions(std::move(centers)), radii(std::move(sizes)),
          colors(std::move(tints)), view{sampleTime,       particleType,
                                         positions.data(), checked(positions.size()),
                                         radii.data(),     checked(radii.size()),
                                         colors.data(),    checked(colors.size())} {}
    ParticleSystem(ParticleSystem const&) = delete;
    ParticleSystem& operator=(ParticleSystem const&) = delete;

    /// What primitives take; valid as long as this system. A sample time outside the shutter, 0 to
    /// 1, is told to the debug log once: what is slow then, and the way out, says
    /// `snapshotsInShutter`.
    ParticleData* data() {
        bool const isInShutter = view.sampleTime >= 0.0 && view.sampleTime <= 1.0;
        if (!isInShutter && !std::exchange(wasTold, true))
            debug("[ParticleSystem] The sample time %g lies outside the shutter, 0 to 1: of moving "
                  "particles that makes slow trees (see snapshotsInShutter)\n",
                  view.sampleTime);
        return &view;
    }
    /// The same for `snapshotsInShutter`, at whatever time.
    ParticleData const& snapshot() const { return view; }

    std::vector<Vector> const positions; ///< centres
    std::vector<float> const radii;      ///< one per centre
    std::vector<Vector> const colors;    ///< one per centre, or none

  private:
    static std::int32_t checked(std::size_t count) {
        if (count > static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max()))
            throw std::length_error("a particle system holds at most 2147483647 particles");
        return static_cast<std::int32_t>(count);
    }

    ParticleData view;
    bool wasTold = false;
};

} // namespace Kelpa
