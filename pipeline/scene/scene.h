#pragma once

#include "kelpa/host/particlesystem.h"
#include "kelpa/host/threadpool.h"
#include "kelpa/particleprimitives/particleprimitives.h"

#include "pipeline/files/particleset.h"
#include "pipeline/files/progress.h"
#include "pipeline/picture/camera.h"

#include "tool/options/options.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kelpatool {

/// What rays ask: the still or the moving primitive, whichever the scene has.
class Geometry {
  public:
    Geometry() = default;
    Geometry(Geometry const&) = delete;
    Geometry& operator=(Geometry const&) = delete;
    virtual ~Geometry() = default;

    virtual void build(Kelpa::ProgressCallback& progress, Kelpa::ThreadManager* manager,
                       TreeOptions const& options) = 0;
    virtual int intersect(Kelpa::RSRay& ray) = 0;
    virtual bool bunchIntersect(Kelpa::RayBunchExtParams const& rays,
                                Kelpa::RayBunchCommonResult& hits, double* tMins, double* tMaxs,
                                unsigned char const* lanes, unsigned long numLanes) = 0;
    virtual std::uint64_t memory() = 0;
    /// Spheres that the tree took.
    virtual std::int32_t sphereCount() const = 0;
    /// The primitive's bounds, in the scene's coordinates.
    virtual Bounds bounds() = 0;
    /// The box of the particles' motion, when the primitive was to report moving bounds.
    virtual std::optional<Bounds> motionBounds() = 0;
};

/// Particles left out, by reason.
struct Rejected {
    std::uint64_t notFinite = 0;   ///< a centre, or a radius, is no finite number
    std::uint64_t notPositive = 0; ///< the radius is zero or negative (or below 1e-15)

    std::uint64_t total() const { return notFinite + notPositive; }
};

/// Particles ready to be rendered.
///
/// The systems are in coordinates relative to `origin`, which is not zero only where the particles
/// lie far from zero compared with their extent: subtracting costs nothing there, and origins of
/// rays keep their precision.
struct Scene {
    std::unique_ptr<Kelpa::ParticleSystem> first;
    std::unique_ptr<Kelpa::ParticleSystem> second; ///< null: the particles stand still
    std::unique_ptr<Geometry> geometry;
    std::vector<Kelpa::Vector> colors; ///< linear; empty: `color` for all
    Kelpa::Vector color;
    std::vector<std::int64_t> ids; ///< empty: the particles' own indices
    Vec origin{};
    Rejected rejected;
    char upAxis = 'z';
    double largestStep = 0.0; ///< between the snapshots, as far as the shutter is open
    double meanStep = 0.0;
    std::optional<float> spacingRadius; ///< before scaling, if the radius of all was chosen by it
    std::string colorColumn;            ///< the column that gives the colours, if any
    std::optional<std::array<float, 2>> colorRange; ///< of its values, as the colour map shows them
    std::vector<Kelpa::Vector> framedCenters;       ///< usable particles, at both ends of their way
    std::vector<float> framedRadii;
};

/// Says a note to the user; swallows it when the run is quiet.
using Note = std::function<void(std::string const&)>;

/// Chooses radii and colours, matches snapshots, and makes the particle systems. The tree is not
/// built. Throws `InputError` when the particles cannot be used, and what `progress` throws.
Scene makeScene(Options const& options, ParticleSet particles, ParticleSet const* second,
                Note const& note, PhaseProgress const& progress);

/// The radii that a scene of these particles would have, and where they come from.
std::vector<float> chooseRadii(ParticleOptions const& options, ParticleSet const& particles,
                               Note const& note, PhaseProgress const& progress);

} // namespace kelpatool
