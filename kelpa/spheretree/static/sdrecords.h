// Records of still trees: spheres, nodes, leaf entries, and what a build moves about.
#pragma once

#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/iray.h"
#include "kelpa/foundation/vector.h"
#include "kelpa/spheretree/taggedlink.h"

#include <cstdint>

namespace Kelpa {

/// One usable particle: where to find its centre and radius.
struct SDSphere {
    std::int32_t particleIndex;     ///< in its particle system
    std::uint16_t systemIndex;      ///< low bits of its system's number in `particleSystems` ...
    std::uint16_t systemIndexAbove; ///< ... and the others, where the sphere would be padded

    /// Where in the tree's `particleSystems` its system is.
    std::uint32_t system() const { return systemIndexAbove * 0x10000U + systemIndex; }
    /// Particle `index` of system number `system`.
    static SDSphere of(std::int32_t index, std::int32_t system) {
        auto const number = static_cast<std::uint32_t>(system);
        return {index, static_cast<std::uint16_t>(number),
                static_cast<std::uint16_t>(number >> 16U)};
    }
};
static_assert(sizeof(SDSphere) == 8);

/// What the builder works on: one sphere, or the part of it in one node.
struct SDSphereData {
    std::uint32_t sphereIndex; ///< in the tree's `spheres`
    Box bbox;                  ///< bounds of the part
    float radius;              ///< of the whole sphere
};
static_assert(sizeof(SDSphereData) == 32);

/// A sphere's copy in the order in which a build reads spheres.
struct OrderedSphere {
    Vector center; ///< of the particle
    float radius;  ///< see `center`
};
static_assert(sizeof(OrderedSphere) == 16);

/// One entry of a leaf; the entries of a leaf lie one behind the other.
struct SDLeafSphere {
    std::uint32_t sphereIndex; ///< in the tree's `spheres`
};
static_assert(sizeof(SDLeafSphere) == 4);

/// One tree node. A leaf keeps a count and its run of entries, an inner node a plane and its pair
/// of children: first the lower side of the plane, then the upper. A new node is an empty leaf.
template <class Sphere> struct alignas(16) SDSphereNode {
    static constexpr int leafKind = 3; ///< kind of a link from a leaf

    union {
        std::int32_t numLeafSpheres = 0; ///< leaf: entries in the run
        float splitPos;                  ///< inner: where the plane cuts its axis
    };
    /// Leaf: where its packed copy lies; 0: nowhere. Lies where the node would be padded.
    std::uint32_t packWord = 0;
    std::uint64_t link = leafKind; ///< kind (0, 1, 2: axis of the plane; 3: leaf) and address

    /// What the link says: see `link`.
    int kind() const { return linkKind(link); }
    /// Whether this is a leaf; else it is an inner node.
    bool isLeaf() const { return kind() == leafKind; }
    /// Inner: two nodes, the lower side first.
    SDSphereNode* children() const { return linkTarget<SDSphereNode>(link); }
    /// Leaf: the run of entries.
    SDLeafSphere* leafSpheres() const { return linkTarget<SDLeafSphere>(link); }

    /// Makes it a leaf with `count` entries from `run` on, which the tree owns.
    void becomeLeaf(SDLeafSphere const* run, std::int32_t count) {
        numLeafSpheres = count;
        link = makeLink(run, leafKind);
    }
    /// Makes it an inner node over a pair of nodes, which the tree owns.
    void becomeInner(int axis, float position, SDSphereNode const* pair) {
        splitPos = position;
        link = makeLink(pair, axis);
    }
};
static_assert(sizeof(SDSphereNode<SDSphere>) == 16); // one load per step of a traversal

/// One registered particle system. The arrays belong to the host.
struct ParticleDataWithPrimitive {
    ParticleData* particles;     ///< as registered
    GenericPrimitive* primitive; ///< reported with hits on this system
    /// Added to a particle's index to form the reported one; -1 marks a system that is alone in its
    /// tree, whose primitive adds its own base instead. Read by every query: once a tree over
    /// several systems is built, a host may number them here so that no two particles share a
    /// number.
    std::int32_t indexOffset;
    Vector const* positions; ///< of `particles`
    float const* radii;      ///< of `particles`
};

/// The closest hit of a query.
struct SDSphereHit {
    double t;         ///< starts at the smaller of 1e30F and the ray's end
    SDSphere* sphere; ///< null until there is a hit
    Vector normal;    ///< not normalised
};

/// A ray on its way through the tree.
struct SDSphereRay : IRay {
    std::int32_t skipIndex; ///< number of the particle that the ray starts on
    double tMinStart;       ///< the interval as the caller set it
    double tMaxStart;       ///< see `tMinStart`
    SDSphereHit* hit;       ///< the caller's; not null
};

} // namespace Kelpa
