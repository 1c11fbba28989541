// Rays that go from block to block by themselves, and what they send home.
#pragma once

#include "kelpa/foundation/vector.h"

#include <bit>
#include <cstdint>
#include <vector>

namespace pipeline {

/// What is wanted to be known of a ray.
enum class Wanted : std::uint8_t {
    hit,      ///< the closest hit with all that surfaces are made of
    distance, ///< how far the closest hit is
    yesOrNo   ///< whether there is a hit
};
constexpr std::size_t wantedKinds = 3;

/// A ray on its way, with all that blocks need to know of it, wherever they are.
///
/// It goes as it lies in memory between programs of the same build, so it is kept small.
class TravellingRay {
  public:
    /// Places at home are below this.
    static constexpr std::uint32_t endOfPlaces = 1U << 29U;
    /// Homes are below this.
    static constexpr int endOfHomes = 1 << 16;

    double origin[3];
    double tMin;
    double end; ///< of the search; the nearest hit's parameter once there is one
    /// The particle that it starts on, plus 1, and where it comes from.
    std::uint64_t skipAndHome;
    Kelpa::Vector dir;
    float time;
    std::uint32_t placeAndState;
    std::int32_t block; ///< that it enters next; -1 when it has ended

    void setOut(std::int64_t skipIndex, Wanted what) {
        skipAndHome = static_cast<std::uint64_t>(skipIndex + 1) << homeBits;
        placeAndState = static_cast<std::uint32_t>(what) << kindShift;
    }
    void setHome(int rank, std::uint32_t place) {
        skipAndHome = (skipAndHome >> homeBits << homeBits) | static_cast<std::uint64_t>(rank);
        placeAndState = (placeAndState & ~(endOfPlaces - 1)) | place;
    }
    void setHit(double t) {
        end = t;
        placeAndState |= hitBit;
    }
    std::int64_t skipIndex() const {
        return static_cast<std::int64_t>(skipAndHome >> homeBits) - 1;
    }
    int home() const { return static_cast<int>(skipAndHome & ((1U << homeBits) - 1)); }
    std::uint32_t place() const { return placeAndState & (endOfPlaces - 1); }
    Wanted wanted() const { return static_cast<Wanted>(placeAndState >> kindShift & 3U); }
    bool hasHit() const { return (placeAndState & hitBit) != 0; }

  private:
    static constexpr unsigned homeBits = 16;
    static constexpr unsigned kindShift = 29;
    static constexpr std::uint32_t hitBit = 1U << 31U;
};
static_assert(sizeof(TravellingRay) == 72);

/// What pictures need to know of a particle that they show.
struct ParticleLook {
    std::int64_t row; ///< among those that were read
    std::int64_t id;
    Kelpa::Vector color; ///< linear
    float radius;        ///< when the shutter opens
};

/// A hit as it goes home; of several the closest counts, of equal ones that of the lower row.
struct HomingHit {
    double t;
    std::int64_t index; ///< of the particle, in the scene
    Kelpa::Vector normal;
    std::uint32_t place;
    ParticleLook look;
};
static_assert(sizeof(HomingHit) == 64);

/// The distance of a hit as it goes home; of several the least counts.
struct HomingDistance {
    std::uint32_t place;
    std::uint32_t t[2]; ///< the bits of a double, which would be aligned

    static HomingDistance of(std::uint32_t place, double t) {
        auto const bits = std::bit_cast<std::uint64_t>(t);
        return {place, {static_cast<std::uint32_t>(bits), static_cast<std::uint32_t>(bits >> 32U)}};
    }
    double distance() const {
        return std::bit_cast<double>(std::uint64_t{t[1]} << 32U | std::uint64_t{t[0]});
    }
};
static_assert(sizeof(HomingDistance) == 12);

/// What one rank has for another: rays that go on there, and answers to rays that came from there.
struct Parcel {
    std::vector<TravellingRay> rays;
    std::vector<HomingHit> hits;
    std::vector<HomingDistance> distances;
    std::vector<std::uint32_t> occluded; ///< places of the rays that hit anything

    std::size_t bytes() const {
        return rays.size() * sizeof(TravellingRay) + hits.size() * sizeof(HomingHit) +
               distances.size() * sizeof(HomingDistance) + occluded.size() * sizeof(std::uint32_t);
    }
    /// Of rays and answers together.
    std::int64_t count() const {
        return static_cast<std::int64_t>(rays.size() + hits.size() + distances.size() +
                                         occluded.size());
    }
};

} // namespace pipeline
