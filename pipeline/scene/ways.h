// Where particles are when the shutter opens and when it closes.
#pragma once

#include "kelpa/foundation/vector.h"

#include "pipeline/files/particleset.h"
#include "pipeline/files/progress.h"
#include "pipeline/scene/appearance.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace pipeline {

struct Still {};
struct AlongVelocities {};
struct ToNextFrame {};
struct ToFile {
    std::string path;
};

/// Where particles go.
using Motion = std::variant<Still, AlongVelocities, ToNextFrame, ToFile>;

inline bool isMoving(Motion const& motion) {
    return !std::holds_alternative<Still>(motion);
}
/// Whether they go where a second snapshot has them.
inline bool hasSecondSnapshot(Motion const& motion) {
    return std::holds_alternative<ToNextFrame>(motion) || std::holds_alternative<ToFile>(motion);
}

/// How particles move between two snapshots, or along their velocities.
struct MotionOptions {
    Motion motion;
    std::array<double, 2> times = {0.0, 1.0};     ///< when the two snapshots were taken
    std::optional<std::array<double, 2>> shutter; ///< in the unit of `times`
    std::optional<double> dt; ///< the file's unit of time per unit of the shutter
};

/// Particles at the two ends of their way while the shutter is open.
struct Ways {
    std::vector<Kelpa::Vector> positions0;
    std::vector<Kelpa::Vector> positions1; ///< empty: they stand still
    std::vector<float> radii0;
    std::vector<float> radii1;
};

/// Where the velocities take the particles while the shutter is open. Throws `InputError` when
/// there are none.
Ways waysAlongVelocities(MotionOptions const& options, ParticleSet const& particles,
                         std::vector<float> const& radii);

/// What one particle does between two snapshots.
struct Way {
    Kelpa::Vector from;
    Kelpa::Vector to;
    float radiusFrom;
    float radiusTo;
};

/// How the particles of two snapshots belong together. Those that only one of them has stand still
/// where it has them.
struct Match {
    std::vector<Way> ways;              ///< of the first's particles, then of the newcomers
    std::vector<std::size_t> newcomers; ///< particles of the second that the first does not have
    bool hasIds = false;                ///< they are matched by these, else by their order
    std::uint64_t onlyFirst = 0;        ///< particles of the first that the second does not have
    std::uint64_t crossing = 0;         ///< that go on beyond a periodic cell
};

/// Matches two snapshots; `radii` are those of the first's particles. Throws `InputError` when they
/// cannot be matched.
Match matchSnapshots(RadiusOptions const& options, ParticleSet const& first,
                     ParticleSet const& second, std::vector<float> const& radii,
                     PhaseProgress const& progress);

/// The ends of ways while the shutter is open, where the second snapshot was taken `steps` frames'
/// time after the first.
Ways placeAtShutter(std::vector<Way> const& ways, MotionOptions const& options, double steps);

} // namespace pipeline
