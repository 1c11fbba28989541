// Why a tree's answer differs from the judge's.
#pragma once

#include "tests/support/movingscene.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <limits>

namespace kelpatest {

/// What is known to make a difference; each names what rounding or the rules of the search allow.
enum class Cause {
    none,
    tie,       ///< another particle at the same distance
    beyondEnd, ///< moving trees: beyond 1e30, before the search has a first node to come back to
    boundary,  ///< where the hit lies, a plane of its leaf is no farther than rounding
    clamped,   ///< the same as far as a plane is when the reciprocal of a direction is clamped to
               ///< 1e18
    negative,  ///< still trees: the margin that leaves get points inwards before the origin
    instant,   ///< moving trees: the ray's time is that of a split in time
    range,     ///< none of these, but products of coordinates or directions leave single precision
    unexplained
};
inline constexpr std::size_t numCauses = 9;
inline constexpr std::array<char const*, numCauses> causeNames{
    "same",       "tie",     "beyond 1e30", "leaf boundary", "clamped",
    "negative t", "instant", "range",       "unexplained"};

struct Explanation {
    Cause cause = Cause::none;
    double size = 0.0; ///< how far from right, in parts of the coordinates or the radius
};

inline double planeAt(SDSphereNode<SDSphere> const& node, int, double) {
    return static_cast<double>(node.splitPos);
}
inline double planeAt(MBSphereNode const& node, int axis, double time) {
    return static_cast<double>(node.splitPos) + static_cast<double>(node.velocity[axis]) * time;
}

inline Box const& boxOf(StaticSphereTree const& tree) {
    return tree.bbox;
}
inline Box const& boxOf(MovingSphereTree const& tree) {
    return tree.rootBox.box;
}

/// How deep a place lies in the leaves that hold a particle: the distance to the nearest plane of
/// the leaf where that is farthest, negative when it lies outside all of them.
struct Depth {
    double inside = -std::numeric_limits<double>::infinity();
    double anyInstant = -std::numeric_limits<double>::infinity(); ///< with time splits closed
    double coordinates = 0.0; ///< the coarsest number on the way
};

template <class Tree> class DepthSearch {
  public:
    DepthSearch(Tree const& searched, ParticleId sought, double const (&at)[3], float when)
        : tree(searched), id(sought), place(at), time(when) {
        Box const& box = boxOf(tree);
        double inside = std::numeric_limits<double>::infinity();
        for (int axis = 0; axis < 3; ++axis)
            inside = std::min({inside, place[axis] - static_cast<double>(box.min[axis]),
                               static_cast<double>(box.max[axis]) - place[axis]});
        visit(*tree.root, inside, false);
    }
    Depth depth;

  private:
    template <class Node> void visit(Node const& node, double inside, bool isClosed) {
        double& best = isClosed ? depth.anyInstant : depth.inside;
        if (inside <= best)
            return;
        if (node.isLeaf()) {
            for (int k = 0; k < leafCount(node); ++k) {
                auto const& sphere = tree.spheres[node.leafSpheres()[k].sphereIndex];
                if (static_cast<int>(sphere.particleIndex) == id.index &&
                    sphere.systemIndex == id.system)
                    best = inside;
            }
            return;
        }
        int const axis = node.kind();
        auto const* const children = node.children();
        if (axis == 3) {
            visit(children[time > node.splitPos ? 1 : 0], inside, isClosed);
            if (time == node.splitPos)
                visit(children[1], inside, true);
            return;
        }
        double const plane = planeAt(node, axis, static_cast<double>(time));
        depth.coordinates = std::max(
            {depth.coordinates, std::fabs(plane), std::fabs(static_cast<double>(node.splitPos))});
        double const above = place[axis] - plane;
        visit(children[above > 0.0 ? 1 : 0], std::min(inside, std::fabs(above)), isClosed);
        visit(children[above > 0.0 ? 0 : 1], std::min(inside, -std::fabs(above)), isClosed);
    }

    Tree const& tree;
    ParticleId id;
    double const (&place)[3];
    float time;
};

/// A ray and the particle that it should hit, in double precision.
struct Meeting {
    double place[3]; ///< where the hit is
    double length;   ///< of the direction
    double radius;
    double coarsest = 0.0;  ///< largest coordinate
    bool isClamped = false; ///< a component's reciprocal is 1e18, though it be larger
    bool isInRange = true;  ///< products keep to single precision

    Meeting(Cloud const& cloud, ParticleId id, Query const& query, double t) {
        auto const [center, r] = sphereAt(cloud, id);
        radius = static_cast<double>(r);
        double squared = 0.0, far = 0.0;
        for (int axis = 0; axis < 3; ++axis) {
            double const c = static_cast<double>(center[axis]);
            double const dir = static_cast<double>(query.ray.dir[axis]);
            double const origin = query.ray.origin[axis];
            place[axis] = origin + t * dir;
            squared += dir * dir;
            far += (c - origin) * (c - origin);
            coarsest =
                std::max({coarsest, std::fabs(c), std::fabs(origin), std::fabs(place[axis])});
            isClamped |= std::fabs(dir) < 1e-18;
            isInRange &= dir == 0.0 || std::fabs(dir) >= 1e-18;
        }
        length = std::sqrt(squared);
        double const reach = std::max(std::sqrt(far), radius);
        isInRange &= reach < 1e18 && length > 1e-16 && length < 1e18 && reach * length < 1e36 &&
                     radius / length > 1e-18 && radius > 1e-17 && std::fabs(t) < 1e30;
    }
};

/// Explains why `found` is not the judge's `expected`. `isTrue`: it is a hit on some particle.
template <class Primitive>
Explanation explain(Scene<Primitive> const& scene, Query const& query, Answer const& expected,
                    int code, double found, bool isTrue) {
    constexpr bool isMoving = !std::is_same_v<Primitive, StaticParticlePrimitive>;
    constexpr double farthest = static_cast<double>(1e30F);
    constexpr double steps = 0x1p-20; // eight roundings of a coordinate
    if (isMoving && code != 0 && found > farthest)
        return {Cause::beyondEnd, 0.0};
    if (code != 0 && (!isTrue || expected.code == 0 || found < expected.t))
        return {Cause::unexplained, 0.0};
    if (code != 0 && found == expected.t)
        return {Cause::tie, 0.0};

    Meeting const meeting(scene.cloud, expected.on, query, expected.t);
    Depth const at = DepthSearch(scene.tree, expected.on, meeting.place, query.time).depth;
    double const scale = std::max({meeting.coarsest, meeting.radius, at.coordinates});
    double const rounding = steps * scale;
    if (std::fabs(at.inside) <= rounding)
        return {Cause::boundary, std::fabs(at.inside) / scale};
    if (meeting.isClamped && std::fabs(at.inside) <= 1e-18 * std::fabs(expected.t))
        return {Cause::clamped, std::fabs(at.inside) / scale};
    if (!isMoving && at.inside <= 2e-5 * std::fabs(expected.t) * meeting.length && expected.t < 0.0)
        return {Cause::negative, at.inside / std::fabs(expected.t) / meeting.length};
    if (at.inside < 0.0 && at.anyInstant >= -rounding)
        return {Cause::instant, 0.0};
    return {meeting.isInRange ? Cause::unexplained : Cause::range, 0.0};
}

} // namespace kelpatest
