// Records of moving trees: spheres, nodes, leaf entries, and what a build moves about.
#pragma once

#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/iray.h"
#include "kelpa/foundation/vector.h"
#include "kelpa/spheretree/motionblur/timebox.h"
#include "kelpa/spheretree/taggedlink.h"

#include <cstdint>
#include <cstring>

namespace Kelpa {

/// One usable particle: where to find its centres and radii.
struct MBSphere {
    std::uint32_t particleIndex;    ///< in its particle system
    std::uint16_t systemIndex;      ///< low bits of its system's number in `particleSystems` ...
    std::uint16_t systemIndexAbove; ///< ... and the others, where the sphere would be padded

    /// Where in the tree's `particleSystems` its system is.
    std::uint32_t system() const { return systemIndexAbove * 0x10000U + systemIndex; }
    /// Particle `index` of system number `system`.
    static MBSphere of(std::int32_t index, std::int32_t system) {
        auto const number = static_cast<std::uint32_t>(system);
        return {static_cast<std::uint32_t>(index), static_cast<std::uint16_t>(number),
                static_cast<std::uint16_t>(number >> 16U)};
    }
};
static_assert(sizeof(MBSphere) == 8);

/// What the builder works on: one sphere, or the part of it in one node.
struct MBSphereData {
    std::uint32_t sphereIndex; ///< in the tree's `spheres`
    TimeBox bbox;              ///< bounds of the part: a whole sphere's move with the sphere
    float radius;              ///< in the first snapshot
};
static_assert(sizeof(MBSphereData) == 52);

/// One entry of a leaf; the entries of a leaf lie one behind the other.
struct MBLeafSphere {
    std::uint32_t sphereIndex; ///< in the tree's `spheres`
};
static_assert(sizeof(MBLeafSphere) == 4);

#pragma pack(push, 4)
/// One tree node. A leaf keeps a count and its run of entries, an inner node a plane and its pair
/// of children: first what lies below the plane, then what lies above. A new node is an empty leaf.
///
/// Packed to multiples of 4, which misaligns `link`: read and write it by value only.
struct MBSphereNode {
    static constexpr std::uint32_t leafBits = 0xFF800000U;      ///< as a float, -infinity
    static constexpr std::int32_t mostLeafSpheres = 0x007FFFFF; ///< what fits beside `leafBits`
    static constexpr int timeKind = 3; ///< kind of a link from a plane in time

    union {
        /// Leaf: `leafBits` and the number of entries, as a float -infinity or a negative NaN.
        std::uint32_t leafWord = leafBits;
        float splitPos; ///< inner: where the plane cuts its axis, in the node's frame
    };
    std::uint64_t link = 0; ///< inner: kind (axis; 3: time) and address; leaf: address
    Vector velocity = {0.0F, 0.0F, 0.0F}; ///< of the node's frame: the mean of its records

    /// What the link says: see `link`.
    int kind() const { return linkKind(link); }
    /// Whether this is a leaf; else it is an inner node.
    bool isLeaf() const { return (firstWord() & leafBits) == leafBits; }
    /// Leaf: entries in the run.
    std::int32_t numLeafSpheres() const {
        return static_cast<std::int32_t>(firstWord() & ~leafBits);
    }
    /// Inner: two nodes, the lower side first.
    MBSphereNode* children() const { return linkTarget<MBSphereNode>(link); }
    /// Leaf: the run of entries.
    MBLeafSphere* leafSpheres() const { return linkTarget<MBLeafSphere>(link); }

    /// `count` must not exceed `mostLeafSpheres`.
    void becomeLeaf(MBLeafSphere const* run, std::int32_t count) {
        leafWord = leafBits | static_cast<std::uint32_t>(count);
        link = makeLink(run, 0);
    }
    /// Makes it an inner node over a pair of nodes, which the tree owns.
    void becomeInner(int axis, float position, MBSphereNode const* pair) {
        splitPos = position;
        link = makeLink(pair, axis);
    }

  private:
    // Whichever member of the union is in use.
    std::uint32_t firstWord() const {
        std::uint32_t word;
        std::memcpy(&word, this, sizeof word);
        return word;
    }
};
#pragma pack(pop)
static_assert(sizeof(MBSphereNode) == 24); // one load per step of a traversal

/// A node as queries read it: of `MBSphereNode` what they need, 16 bytes aligned. A leaf is marked
/// and counted as there.
struct MBWalkNode {
    union {
        std::uint32_t leafWord; ///< leaf: see `MBSphereNode`
        float splitPos;         ///< inner: see `MBSphereNode`
    };
    float velocity;     ///< inner: of the node's frame along the axis that it splits
    std::uint64_t link; ///< inner: kind and address of a pair of such nodes; leaf: of its entries

    /// Whether this is a leaf; else it is an inner node.
    bool isLeaf() const { return (firstWord() & MBSphereNode::leafBits) == MBSphereNode::leafBits; }
    /// Leaf: entries in the run.
    std::int32_t numLeafSpheres() const {
        return static_cast<std::int32_t>(firstWord() & ~MBSphereNode::leafBits);
    }
    /// Leaf: the run of entries.
    MBLeafSphere const* leafSpheres() const { return linkTarget<MBLeafSphere>(link); }

    /// Makes it a leaf, as the function of the same name.
    void becomeLeaf(MBLeafSphere const* run, std::int32_t count) {
        leafWord = MBSphereNode::leafBits | static_cast<std::uint32_t>(count);
        velocity = 0.0F;
        link = makeLink(run, 0);
    }

  private:
    std::uint32_t firstWord() const {
        std::uint32_t word;
        std::memcpy(&word, this, sizeof word);
        return word;
    }
};
static_assert(sizeof(MBWalkNode) == 16); // two pairs in a line of memory

/// One registered particle system: two snapshots of the same particles, matched by index. The
/// arrays belong to the host.
struct MovingParticleDataWithPrimitive {
    ParticleData* particles0;    ///< its `particleType` and `numParticles` count
    ParticleData* particles1;    ///< the second snapshot
    GenericPrimitive* primitive; ///< reported with hits on this system
    /// Added to a particle's index to form the reported one; -1 marks a system that is alone in its
    /// tree, whose primitive adds its own base instead. Read by every query: once a tree over
    /// several systems is built, a host may number them here so that no two particles share a
    /// number.
    std::int32_t indexOffset;
    Vector const* positions0; ///< of `particles0`
    Vector const* positions1; ///< of `particles1`
    float const* radii0;      ///< of `particles0`
    float const* radii1;      ///< of `particles1`
    float time0;              ///< when the snapshots were taken
    float time1;              ///< see `time0`
};

/// The closest hit of a query.
struct MBSphereHit {
    double hitT;         ///< starts at the smaller of 1e30F and the ray's end
    MBSphere* hitSphere; ///< null until there is a hit
    Vector hitVector;    ///< not normalised
};

/// A ray on its way through the tree, in the world's frame.
struct MBSphereRay : IRay {
    std::int32_t skipIndex; ///< number of the particle that the ray starts on
    double rayTMin;         ///< the interval as the caller set it
    double rayTMax;         ///< see `rayTMin`
    MBSphereHit* hitRecord; ///< the caller's; not null
    float rayTime;          ///< in the snapshots' unit
};

} // namespace Kelpa
