// What library and host exchange: rays, particles, threads and progress.
#pragma once

#include "kelpa/foundation/vector.h"

#include <cstdint>

namespace Kelpa {

class GenericPrimitive;
class ThreadProcedure;

/// The geometry of a ray: the points `origin` + t * `dir`.
///
/// `dir` need not be normalised: every ray parameter t is in units of its length.
struct TraceRay {
    double origin[3]; ///< where t is 0; rounded to single precision in particle arithmetic
    Vector dir;       ///< of any length but 0
};

/// The ray that a raycaster carries from primitive to primitive, with the closest hit so far.
///
/// A primitive that is alone in its tree searches [`intervalMin`, `intervalMax`]; one that shares
/// its tree with others searches [`clipMin`, min(`clipMax`, `hitT`)].
struct RSRay : TraceRay {
    double intervalMin; ///< start of the search alone in a tree
    double intervalMax; ///< its end; lower it to `hitT` after a hit when asking several primitives
    float time;         ///< moving particles only: in the unit of the snapshots' `sampleTime`
    double clipMin;     ///< start of the search in a shared tree
    double clipMax;     ///< its end, unless `hitT` lies before
    double hitT;        ///< parameter of the closest hit so far
    GenericPrimitive* hitPrimitive; ///< as registered with the tree; not owned
    Vector hitNormal;               ///< not normalised
    std::int32_t hitLocalIndex;     ///< index of the hit particle in its particle system
    std::int64_t hitIndex;          ///< reported index of the hit particle
    /// Reported index of the particle on which the ray starts (low 32 bits): such a sphere is hit
    /// only where the ray leaves it, such a point not at all. A value that no particle reports,
    /// such as `baseIndex` - 1 for a primitive that is alone in its tree, skips nothing. In a tree
    /// that several primitives share, add the `baseIndex` of the primitive that is asked to the
    /// reported index; where the records carry the offset -1, particle i is reported as i - 1, so
    /// -1 plus that base means particle 0 of every system.
    std::int64_t skipIndex;
};

/// What the bunch forms of the surface queries are given; the particle primitives read none of it.
struct RayBunchParams {};

/// Up to 64 rays, one per lane.
struct RayBunchExtParams {
    double originX[64];         ///< by lane, as all of these
    double originY[64];         ///< see `originX`
    double originZ[64];         ///< see `originX`
    float dirX[64];             ///< direction, of any length but 0
    float dirY[64];             ///< see `dirX`
    float dirZ[64];             ///< see `dirX`
    float time[64];             ///< moving particles only
    std::int64_t skipIndex[64]; ///< as `RSRay::skipIndex`
};

/// The closest hits of a bunch, one per lane; each member as its namesake in `RSRay`.
struct PrimitiveIntersections {
    unsigned char hit[64];              ///< 1: the last hit was on a sphere, 2: on a point
    double hitT[64];                    ///< set before asking: the end of each ray's search
    GenericPrimitive* hitPrimitive[64]; ///< not owned
    std::int64_t hitIndex[64];          ///< reported index of the hit particle
    float hitNormalX[64];               ///< not normalised
    float hitNormalY[64];               ///< see `hitNormalX`
    float hitNormalZ[64];               ///< see `hitNormalX`
    std::int32_t hitLocalIndex[64];     ///< index in the particle system
};

/// The hits that a host carries through all primitives that it asks about one bunch.
struct RayBunchCommonResult : PrimitiveIntersections {
    bool noHits; ///< cleared by every call that hits at least one ray
};

/// One snapshot of one particle system. The arrays belong to the host, which keeps them alive and
/// unchanged for as long as a tree built from them is built or asked.
struct ParticleData {
    double sampleTime; ///< when the snapshot was taken; used in single precision
    /// 0: solid spheres. 1: points, hit where a ray passes closest to the centre, if that is within
    /// the radius. Anything else: never hit.
    std::int32_t particleType;
    Vector const* positions;   ///< `numParticles` centres
    std::int32_t numParticles; ///< 0 or more
    float const* radii;        ///< `numRadii` radii; particles without a radius are left out
    std::int32_t numRadii;     ///< `numParticles`, or fewer
    Vector const* colors;      ///< used only when there are as many as particles
    std::int32_t numColors;    ///< `numParticles`, or 0
};

/// The host's worker threads.
///
/// Never destroyed through this interface.
class ThreadManager {
  public:
    /// Has `procedure->proc(parameter)` called once on some thread and returns without waiting.
    ///
    /// Must accept calls from its own workers. It may run the job at once on the calling thread,
    /// keep it waiting for a free worker, or refuse it by throwing: then the job never runs there,
    /// and the build does that work on the thread that asked.
    /// A build waits for its jobs: building on a worker while no other is free waits for ever.
    /// After `proc` returns the manager must not touch `procedure` again: its owner may be gone.
    virtual void runThread(ThreadProcedure* procedure, void* parameter) = 0;

  protected:
    ~ThreadManager() = default;
};

/// How loud a message of a build is.
enum MessageLevel {
    statisticsLevel =
        20000,            ///< a line of the statistics; of these only the first ends in a newline
    progressLevel = 30000 ///< a line of progress, which ends in a newline
};

/// Where a build reports to and asks whether to go on.
///
/// Never destroyed through this interface.
class ProgressCallback {
  public:
    /// Non-zero asks the build to stop early; the tree is then valid, but partial. A yes is
    /// remembered by the job that it was given to, which stops whatever is answered later.
    ///
    /// Called from worker threads too, several at once, and once per record of every node: answer
    /// from an atomic, without a lock.
    virtual std::int32_t getAbort() = 0;

    /// Takes a message, formatted as `printf` does; called only on the thread that builds.
    ///
    /// `kind` is 0, `level` a `MessageLevel`.
    virtual void info(int kind, int level, char const* format, ...)
        __attribute__((format(printf, 4, 5))) = 0;

  protected:
    ~ProgressCallback() = default;
};

} // namespace Kelpa
