#pragma once
// Internal: what both traversals do alike on their way through a tree.

#include "kelpa/foundation/hitkernels.h"
#include "kelpa/foundation/iray.h"
#include "kelpa/foundation/vector.h"

#include <cstdint>

namespace Kelpa {

/// The ray parameter at which a ray meets a plane across an axis.
inline double planeParameter(IRay const& ray, int axis, float position) {
    return (static_cast<double>(position) - ray.origin[axis]) *
           static_cast<double>(ray.invDir[axis]);
}

/// Narrows the ray's interval to the part inside the box; false when nothing is left of it.
///
/// A parameter that is not a number narrows nothing. A ray that misses the box by less than 2^-20
/// of its end is let in: the planes inside are as coarse as the box.
inline bool clipToBox(IRay& ray, Box const& box) {
    for (int axis = 0; axis < 3; ++axis) {
        bool const backwards = ray.dirSign[axis] != 0;
        double const entry = planeParameter(ray, axis, backwards ? box.max[axis] : box.min[axis]);
        double const exit = planeParameter(ray, axis, backwards ? box.min[axis] : box.max[axis]);
        ray.tMin = entry > ray.tMin ? entry : ray.tMin;
        ray.tMax = exit < ray.tMax ? exit : ray.tMax;
    }
    constexpr double grazing = 1.0000009536743164; // 1 + 2^-20
    return !(ray.tMax * grazing < ray.tMin);
}

/// What a traversal's steps need of a ray, axis by axis.
class AxisRays {
  public:
    explicit AxisRays(IRay const& ray) {
        for (int axis = 0; axis < 3; ++axis) {
            axes[axis] = {ray.origin[axis], static_cast<double>(ray.invDir[axis])};
            backwards |= ray.dirSign[axis] << axis;
        }
    }

    /// Which child of a node split on an axis the ray meets first. From a register: the address of
    /// the next node waits for it.
    int nearChild(int axis) const { return (backwards >> axis) & 1; }

    /// As the function of the same name.
    double planeParameter(int axis, float position) const {
        return (static_cast<double>(position) - axes[axis].origin) * axes[axis].invDir;
    }
    /// The same with the origin moved back by `shift`.
    double planeParameter(int axis, float position, double shift) const {
        return (static_cast<double>(position) - (axes[axis].origin - shift)) * axes[axis].invDir;
    }

  private:
    struct {
        double origin;
        double invDir;
    } axes[3];
    int backwards = 0; // bit per axis
};

/// Keeps the branch around it from becoming arithmetic: the processor then guesses the next node
/// and fetches it, instead of waiting for the comparison that selects it. Rays in a million spheres
/// are 1.25 times as fast.
inline void keepAsBranch() {
    asm volatile("");
}

/// Children that wait while the nearer ones are visited, nearest on top.
///
/// Those on the stack belong to distinct inner nodes of one path, so as many entries suffice as
/// that path has inner nodes. Lives on the call stack; a query allocates nothing.
template <class Node, int Capacity> class PostponedChildren {
  public:
    struct Entry {
        Node const* node;
        double tMin;
        double tMax;
    };

    bool isEmpty() const { return used == 0; }
    void push(Node const* node, double tMin, double tMax) { entries[used++] = {node, tMin, tMax}; }
    Entry const& pop() { return entries[--used]; }

  private:
    Entry entries[Capacity]; // filled as it is used, not before
    int used = 0;
};

/// Inner levels that a traversal is prepared for in ordinary trees; deeper ones take a larger
/// stack.
inline constexpr int usualInnerLevels = 96;

/// The number under which a particle is compared with a ray's skip index; sums wrap in 32 bits.
inline std::int32_t skipNumber(std::int32_t singleSystem, std::int32_t particleIndex,
                               std::int32_t indexOffset) {
    if (singleSystem == 1)
        return particleIndex;
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(indexOffset) +
                                     static_cast<std::uint32_t>(particleIndex));
}

/// How the particles of a system are hit; any other number means not at all.
enum class ParticleType : std::int32_t { sphere = 0, point = 1 };

/// What a query answers for a hit on a system of this type.
inline int hitCode(std::int32_t particleType) {
    return static_cast<ParticleType>(particleType) == ParticleType::point ? 2 : 1;
}

/// From the centre to the hit, in the precision of particle arithmetic.
inline Vector sphereNormal(IRay const& ray, Vector const& center, float t) {
    Vector const toOrigin = fromTo(center, singleOrigin(ray));
    return {toOrigin.x + ray.dir.x * t, toOrigin.y + ray.dir.y * t, toOrigin.z + ray.dir.z * t};
}

} // namespace Kelpa
