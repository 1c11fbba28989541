// Internal: all that differs between the bytes of the two trees.
#pragma once

#include "kelpa/spheretree/motionblur/mbspheretree.h"
#include "kelpa/spheretree/motionblur/walknodes.h"
#include "kelpa/spheretree/static/sdleafpacks.h"
#include "kelpa/spheretree/static/sdspheretree.h"

#include <algorithm>
#include <cstdint>

namespace Kelpa {

/// What a build finds out beside nodes, entries, spheres and packs.
struct StillFacts {
    Box bbox;
    std::int32_t statMaxDepth;
    std::int32_t statNumLeaves;
    std::int32_t statDepthSum;
    std::int32_t innerLevels;
};
struct MovingFacts {
    TimeBox rootBox;
    float boundsTimeMin;
    float boundsTimeMax;
    Box boundsBox;
    Box boundsMotion;
    float shutterMin;
    float shutterMax;
    std::int32_t statMaxDepth;
    std::int32_t numOutsideShutter;
};

/// What differs between the two trees.
template <class Tree> struct Form;

template <> struct Form<StaticSphereTree> {
    using Facts = StillFacts;
    static constexpr std::uint32_t kind = 1;

    static float*& packs(StaticSphereTree& tree) { return tree.packedLeaves; }
    static std::int32_t& particles(StaticSphereTree& tree) { return tree.totalParticles; }
    static std::int32_t entriesOf(SDSphereNode<SDSphere> const& leaf) {
        return leaf.numLeafSpheres;
    }
    static std::int32_t particlesIn(ParticleDataWithPrimitive const& system) {
        return std::max(system.particles->numParticles, 0);
    }
    static Facts facts(StaticSphereTree const& t) {
        return {t.bbox, t.statMaxDepth, t.statNumLeaves, t.statDepthSum, t.innerLevels};
    }
    static void take(StaticSphereTree& t, Facts const& facts) {
        t.bbox = facts.bbox;
        t.statMaxDepth = facts.statMaxDepth;
        t.statNumLeaves = facts.statNumLeaves;
        t.statDepthSum = facts.statDepthSum;
        t.innerLevels = facts.innerLevels;
    }
    /// Whether the deepest of the nodes lies where searches are ready for it.
    static bool isDeepEnough(Facts const& facts, std::int32_t innerLevels) {
        return innerLevels <= facts.innerLevels;
    }
    /// Whether a leaf's packed copy lies within the packs.
    static bool isPackInside(SDSphereNode<SDSphere> const& leaf, std::uint64_t packedFloats) {
        if (packedFloats == 0 || leaf.numLeafSpheres == 0)
            return leaf.packWord == LeafPack::none;
        LeafPack const pack{leaf.packWord};
        auto const count = static_cast<std::uint64_t>(leaf.numLeafSpheres);
        std::uint64_t const floats = 3 * count + (pack.hasEqualRadii() ? 1 : count);
        return pack.word != LeafPack::none &&
               pack.position() + floats + static_cast<std::uint64_t>(packPadding) <= packedFloats;
    }
    static bool arePacksWhole(std::uint64_t, std::int32_t) { return true; } // leaf by leaf
    /// Makes what queries use beside nodes, entries and packs, once all those are in their places.
    static void complete(StaticSphereTree&) {}
};

template <> struct Form<MovingSphereTree> {
    using Facts = MovingFacts;
    static constexpr std::uint32_t kind = 2;

    static float*& packs(MovingSphereTree& tree) { return tree.packedSpheres; }
    static std::int32_t& particles(MovingSphereTree& tree) { return tree.numParticles; }
    static std::int32_t entriesOf(MBSphereNode const& leaf) { return leaf.numLeafSpheres(); }
    static std::int32_t particlesIn(MovingParticleDataWithPrimitive const& system) {
        return std::max(system.particles0->numParticles, 0);
    }
    static Facts facts(MovingSphereTree const& t) {
        return {t.rootBox,    t.boundsTimeMin, t.boundsTimeMax, t.boundsBox,        t.boundsMotion,
                t.shutterMin, t.shutterMax,    t.statMaxDepth,  t.numOutsideShutter};
    }
    static void take(MovingSphereTree& t, Facts const& facts) {
        t.rootBox = facts.rootBox;
        t.boundsTimeMin = facts.boundsTimeMin;
        t.boundsTimeMax = facts.boundsTimeMax;
        t.boundsBox = facts.boundsBox;
        t.boundsMotion = facts.boundsMotion;
        t.shutterMin = facts.shutterMin;
        t.shutterMax = facts.shutterMax;
        t.statMaxDepth = facts.statMaxDepth;
        t.numOutsideShutter = facts.numOutsideShutter;
    }
    static bool isDeepEnough(Facts const& facts, std::int32_t innerLevels) {
        return innerLevels <= facts.statMaxDepth; // which counts leaves as well
    }
    static bool isPackInside(MBSphereNode const&, std::uint64_t) { return true; }
    static bool arePacksWhole(std::uint64_t packedFloats, std::int32_t spheres) {
        return packedFloats == 0 || packedFloats == 8 * static_cast<std::uint64_t>(spheres);
    }
    static void complete(MovingSphereTree& tree) {
        if (tree.packedSpheres != nullptr)
            layOutWalkNodes(tree);
    }
};

} // namespace Kelpa
