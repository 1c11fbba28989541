// Seeded rays at clouds.
#pragma once

#include "tests/support/bruteforce.h"

#include <cstdint>

namespace kelpatest {

/// How a ray meets the particle that it is made for.
enum class Aim {
    through,      ///< near it, from near or far
    camera,       ///< from outside the cloud
    grazing,      ///< within a few roundings of its rim
    leaving,      ///< starts on it
    inside,       ///< starts in it
    axisParallel, ///< with both kinds of zero across
    alongPlane,   ///< in the plane of one of its bounds or of its centre, where planes are put
    noInterval    ///< with an empty or a reversed interval
};
inline constexpr int numAims = 8;

/// Makes rays at the particles of a cloud, which must outlive it.
class RaySource {
  public:
    RaySource(Cloud const& target, std::uint64_t seed) : cloud(target), random(seed) {
        forUsable(cloud, [this](ParticleId id) {
            usable.push_back(id);
            auto const [center, radius] = sphereAt(cloud, id);
            for (int axis = 0; axis < 3; ++axis)
                reach = std::max(reach, static_cast<double>(std::fabs(center[axis]) + radius));
        });
    }

    Query make(Aim aim) {
        ParticleId const id = usable.empty() ? ParticleId{} : usable[random.bits() % usable.size()];
        auto const [center, radius] = usable.empty() ? Sphere{{}, 1.0F} : sphereAt(cloud, id);
        Shot const shot = makeShot(aim, radius);
        float const length = random.powerOfTwo(-12, 12);
        bool const rounded = random.below(2) == 0;

        Query query;
        query.start = aim == Aim::leaving ? id : ParticleId{};
        query.ray.dir = scaled(shot.dir, length);
        for (int axis = 0; axis < 3; ++axis) {
            double const from = static_cast<double>(center[axis] + shot.offset[axis]) -
                                static_cast<double>(shot.dir[axis]) * shot.distance;
            query.ray.origin[axis] = rounded ? roundedToSingle(from) : from;
        }
        if (aim == Aim::noInterval) {
            constexpr double ends[][2] = {{5.0, 5.0}, {7.0, 3.0}, {1e30, 0.0}, {0.0, -1.0}};
            auto const& end = ends[random.below(4)];
            query.tMin = end[0];
            query.tMax = end[1];
        } else if (random.below(4) == 0) {
            double const there = shot.distance / static_cast<double>(length);
            query.tMin = there * static_cast<double>(random.unit());
            query.tMax = query.tMin + there;
        }
        return query;
    }

  private:
    struct Shot {
        Vector dir;      ///< of length 1
        Vector offset;   ///< from the centre to the point that is aimed at
        double distance; ///< from the ray's start to that point
    };

    Shot makeShot(Aim aim, float radius) {
        Shot shot{random.direction(), scaled(random.inCube(1.2F), radius),
                  static_cast<double>(radius * random.between(1.0F, 30.0F))};
        int const axis = random.below(3);
        auto const boundOrCenter = [&] { return radius * static_cast<float>(random.below(3) - 1); };
        switch (aim) {
        case Aim::camera:
            shot.distance = 3.0 * reach;
            break;
        case Aim::grazing: {
            float const rim = 1.0F + static_cast<float>(random.below(5) - 2) * 0x1p-22F;
            shot.offset = scaled(acrossTo(shot.dir), radius * rim);
            break;
        }
        case Aim::leaving:
        case Aim::inside: {
            float const depth = aim == Aim::leaving ? 1.0F : 0.9F * random.unit();
            shot.offset = scaled(random.direction(), radius * depth);
            shot.distance = 0.0;
            break;
        }
        case Aim::axisParallel:
            for (int across = 0; across < 3; ++across) {
                shot.dir[across] = random.below(2) == 0 ? 0.0F : -0.0F;
                if (random.below(2) == 0)
                    shot.offset[across] = boundOrCenter();
            }
            shot.dir[axis] = random.below(2) == 0 ? 1.0F : -1.0F;
            break;
        case Aim::alongPlane:
            shot.dir[axis] = 0.0F;
            shot.offset[axis] = boundOrCenter();
            break;
        default:
            if (random.below(2) == 0)
                shot.distance = reach * static_cast<double>(random.unit());
        }
        return shot;
    }

    /// A direction at right angles to `dir`.
    Vector acrossTo(Vector const& dir) {
        Vector const other = random.direction();
        Vector const across = {dir.y * other.z - dir.z * other.y, dir.z * other.x - dir.x * other.z,
                               dir.x * other.y - dir.y * other.x};
        float const squared = (across.x * across.x + across.y * across.y) + across.z * across.z;
        return scaled(across, 1.0F / std::sqrt(squared));
    }

    Cloud const& cloud;
    Random random;
    std::vector<ParticleId> usable;
    double reach = 0.0; ///< largest coordinate of a particle's bounds
};

} // namespace kelpatest
