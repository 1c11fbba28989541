// Rays that are asked now and answered later.
#pragma once

#include "pipeline/scene/geometry.h"
#include "pipeline/scene/travellingray.h"

#include <cstdint>
#include <vector>

namespace pipeline {

/// Stands in for a geometry whose answers take their time.
///
/// Whoever asks does so again and again, each time from the first ray on. Rays whose answers have
/// come get them; the next ones are written down and told that they hit nothing. So the code that
/// makes rays and uses hits need not know that rays wait, and keeps nothing meanwhile: to make a
/// ray twice costs far less than to load or to send what it meets.
class RayTape final : public RayTarget {
  public:
    /// The closest hit of a ray, or none.
    struct Hit {
        double t;
        std::int64_t index; ///< -1: none
        Kelpa::Vector normal;
        ParticleLook look;
    };
    static constexpr double noDistance = -1.0; ///< of what hits nothing

    /// Begins with nothing known.
    void clear();
    /// Begins from the first ray again. At most `mostNew` rays are written down, but as many whose
    /// hits are wanted as come; what is beyond them has to be asked again.
    void rewind(std::size_t mostNew);
    /// Of the rays that `bunchIntersect` is asked from now on: hits or distances.
    void want(Wanted what) { wanted = what; }
    /// Whether a ray since `rewind` was told what is not known: what came of it is of no use.
    bool lacksAnswers() const { return isLacking; }

    bool bunchIntersect(Kelpa::RayBunchExtParams const& rays, Kelpa::RayBunchCommonResult& hits,
                        double* tMins, double* tMaxs, unsigned char const* lanes,
                        unsigned long numLanes) override;
    std::uint64_t bunchOccluded(Kelpa::RayBunchExtParams const& rays, double const* tMins,
                                double const* tMaxs, unsigned char const* lanes,
                                unsigned long numLanes) override;

    // For whoever answers. An answer says that there is no hit until it is given another.

    /// The rays to be answered; the place of each is that of its answer among those of its kind.
    std::vector<TravellingRay> asked;
    std::vector<Hit> hits;
    std::vector<double> distances;
    std::vector<char> occluded;

  private:
    Wanted wanted = Wanted::hit;
    std::size_t most = 0;
    std::size_t next[wantedKinds] = {};
    std::size_t known[wantedKinds] = {}; ///< answers that have come
    bool isLacking = false;
};

} // namespace pipeline
