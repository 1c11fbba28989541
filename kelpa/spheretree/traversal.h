// Internal: what both traversals do alike on their way through a tree.
#pragma once

#include "kelpa/foundation/hitkernels.h"
#include "kelpa/foundation/iray.h"
#include "kelpa/foundation/vector.h"

#include <cstdint>
#include <span>

namespace Kelpa {

/// The ray parameter at which a ray meets a plane across an axis.
[[gnu::always_inline]] inline double planeParameter(IRay const& ray, int axis, float position) {
    return (static_cast<double>(position) - ray.origin[axis]) *
           static_cast<double>(ray.invDir[axis]);
}

inline constexpr double grazing = 1.0000009536743164; ///< 1 + 2^-20, see `clipToBox`

/// Narrows the ray's interval to the part inside the box; false when nothing is left of it.
///
/// A parameter that is not a number narrows nothing. A ray that misses the box by less than 2^-20
/// of its end is let in: the planes inside are as coarse as the box.
[[gnu::always_inline]] inline bool clipToBox(IRay& ray, Box const& box) {
    for (int axis = 0; axis < 3; ++axis) {
        // Looked up, not chosen by a branch: signs are a coin's toss.
        float const sides[2] = {box.min[axis], box.max[axis]};
        int const entered = ray.dirSign[axis];
        double const entry = planeParameter(ray, axis, sides[entered]);
        double const exit = planeParameter(ray, axis, sides[1 - entered]);
        ray.tMin = entry > ray.tMin ? entry : ray.tMin;
        ray.tMax = exit < ray.tMax ? exit : ray.tMax;
    }
    return !(ray.tMax * grazing < ray.tMin);
}

/// What a traversal's steps need of a ray, axis by axis.
class AxisRays {
  public:
    [[gnu::always_inline]] explicit AxisRays(IRay const& ray)
        : axes{{ray.origin[0], static_cast<double>(ray.invDir.x)},
               {ray.origin[1], static_cast<double>(ray.invDir.y)},
               {ray.origin[2], static_cast<double>(ray.invDir.z)},
               {}},
          backwards(ray.dirSign[0] | ray.dirSign[1] << 1 | ray.dirSign[2] << 2),
          nearBits(static_cast<std::uint64_t>(backwards) * 0x1111111111111111U),
          nearOffsets(static_cast<std::uint64_t>(backwards) * 0x0010001000100010U) {}

    /// Which child of a node split on an axis the ray meets first. From a register: the address of
    /// the next node waits for it.
    int nearChild(int axis) const { return (backwards >> axis) & 1; }

    /// The same for the axis that the link of an inner node tells, of nodes on multiples of 4: the
    /// link is shifted by as it is, and every 4 bits are the same.
    std::uint64_t nearChildBy(std::uint64_t link) const { return nearBits >> (link & 63U) & 1U; }

    /// Where in a pair of nodes of 16 bytes, to which the link of an inner node leads, the child
    /// lies that the ray meets first: 0 or 16. The address of the next node waits for it, so the
    /// link is shifted by as it is: its low 4 bits are the axis, and what the shift takes of the
    /// bits above are multiples of 16, after which the same bits come again.
    std::uint64_t nearOffset(std::uint64_t link) const { return nearOffsets >> (link & 63U) & 16U; }

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
    } axes[4];                 // one more, so that any kind of node is an index
    int backwards;             // bit per axis
    std::uint64_t nearBits;    // the same, sixteen times
    std::uint64_t nearOffsets; // the same, from bit 4 on, four times
};

/// Keeps the branch around it from becoming arithmetic: the processor then guesses the next node
/// and fetches it, instead of waiting for the comparison that selects it. Rays in a million spheres
/// are 1.25 times as fast.
[[gnu::always_inline]] inline void keepAsBranch() {
    asm volatile("");
}

/// Whether both sides of a plane at `tSplit` are to be visited: it lies inside the interval, or is
/// so close to an end of it, or so far from being a number, that single precision cannot tell.
[[gnu::always_inline]] inline bool crossesPlane(double tSplit, double tMin, double tMax) {
    // The product of the distances decides, rounded to single precision at every step. Between the
    // ends it has the wrong sign or is not a number; so one comparison less delays the next node.
    if (tMin < tSplit && tSplit < tMax)
        return true;
    auto const fromStart = static_cast<float>(tSplit - tMin);
    auto const fromEnd = static_cast<float>(tSplit - tMax);
    return !(fromStart * fromEnd > 0.0F);
}

/// A ray's interval, which tells with one comparison on which side of most planes it lies.
///
/// What `isBehind` or `isBefore` says, `crossesPlane` says too: such planes are at least 5e-19 away
/// from both ends, so that the product of the distances, in single precision, is above 0.
class CrossedInterval {
  public:
    [[gnu::always_inline]] CrossedInterval(double from, double to) : tMin(from), tMax(to) {
        bool const isOrdered = from <= to; // else one comparison tells nothing
        below = isOrdered ? from - margin : -__builtin_inf();
        above = isOrdered ? to + margin : __builtin_inf();
    }

    [[gnu::always_inline]] bool isBehind(double tSplit) const { return tSplit < below; }
    [[gnu::always_inline]] bool isBefore(double tSplit) const { return tSplit > above; }
    /// Keeps what lies before a plane that crosses it.
    [[gnu::always_inline]] void endAt(double tSplit) { *this = CrossedInterval(tMin, tSplit); }

    double tMin;
    double tMax;

  private:
    static constexpr double margin = 1e-18;
    double below;
    double above;
};

/// Whether two directions, of any lengths, differ by less than 18 degrees.
[[gnu::always_inline]] inline bool areAlong(Vector const& a, Vector const& b) {
    float const cosine = dot(a, b);
    return cosine > 0.0F && cosine * cosine > 0.9F * dot(a, a) * dot(b, b);
}

/// Whether rays run so much the same way that the processor guesses one's steps from another's, as
/// those from a camera do. A guess at that from three of them; only the speed depends on it.
template <class Ray> [[gnu::always_inline]] inline bool areTogether(std::span<Ray*> rays) {
    return rays.empty() || (areAlong(rays[0]->dir, rays[rays.size() / 2]->dir) &&
                            areAlong(rays[0]->dir, rays[rays.size() - 1]->dir));
}

/// A node and the part of a ray that is inside it.
template <class Node> struct Span {
    Node const* node;
    double tMin;
    double tMax;
};

/// Children that wait while the nearer ones are visited, nearest on top, in a room of the caller's.
///
/// Those on the stack belong to distinct inner nodes of one path, so as many entries suffice as
/// that path has inner nodes. Lives on the call stack; a query allocates nothing.
template <class Node> class PostponedChildren {
  public:
    /// Filled as it is used, not before; one more takes what is not wanted on top of a full stack.
    template <int Capacity> using Room = Span<Node>[Capacity + 1];

    explicit PostponedChildren(Span<Node>* emptyRoom) : bottom(emptyRoom), top(emptyRoom) {}

    bool isEmpty() const { return top == bottom; }
    void push(Node const* node, double tMin, double tMax) { *top++ = {node, tMin, tMax}; }
    /// Pushes or not, without a branch.
    [[gnu::always_inline]] void pushIf(std::uint64_t isWanted, Node const* node, double tMin,
                                       double tMax) {
        *top = {node, tMin, tMax};
        top += isWanted;
    }
    Span<Node> const& pop() { return *--top; }

  private:
    // Apart from the room, so that it stays in registers.
    Span<Node>* bottom;
    Span<Node>* top;
};

/// Inner levels that a traversal is prepared for in ordinary trees; deeper ones take a larger
/// stack.
inline constexpr int usualInnerLevels = 96;

/// The number under which a particle is compared with a ray's skip index; sums wrap in 32 bits.
[[gnu::always_inline]] inline std::int32_t
skipNumber(std::int32_t singleSystem, std::int32_t particleIndex, std::int32_t indexOffset) {
    if (singleSystem == 1)
        return particleIndex;
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(indexOffset) +
                                     static_cast<std::uint32_t>(particleIndex));
}

/// The number under which a hit is reported, in the same way.
[[gnu::always_inline]] inline std::int32_t reportedNumber(std::int32_t singleSystem,
                                                          std::int32_t particleIndex,
                                                          std::int32_t indexOffset,
                                                          std::int32_t baseIndex) {
    return skipNumber(0, particleIndex, singleSystem == 1 ? baseIndex : indexOffset);
}

/// What a query wants to know of a ray: the closest hit, or whether there is any.
enum class Goal { closest, any };

/// How the particles of a system are hit; any other number means not at all.
enum class ParticleType : std::int32_t { sphere = 0, point = 1 };

/// What a query answers for a hit on a system of this type.
[[gnu::always_inline]] inline int hitCode(std::int32_t particleType) {
    return static_cast<ParticleType>(particleType) == ParticleType::point ? 2 : 1;
}

/// From the centre to the hit, in the precision of particle arithmetic.
[[gnu::always_inline]] inline Vector sphereNormal(IRay const& ray, Vector const& center, float t) {
    Vector const toOrigin = fromTo(center, singleOrigin(ray));
    return {toOrigin.x + ray.dir.x * t, toOrigin.y + ray.dir.y * t, toOrigin.z + ray.dir.z * t};
}

} // namespace Kelpa
