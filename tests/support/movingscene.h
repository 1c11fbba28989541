// Moving scenes for tests, and every particle asked as their judge.
#pragma once

#include "tests/support/scene.h"

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <utility>
#include <vector>

namespace kelpatest {

enum class Way { standing, drifting, scattering, turning, resizing, crossing };
inline constexpr Way ways[] = {Way::standing, Way::drifting, Way::scattering,
                               Way::turning,  Way::resizing, Way::crossing};

/// When the systems of a cloud have their snapshots. The first lasts longest inside the shutter.
inline constexpr double sampleTimes[][2] = {
    {0.0, 1.0}, {0.0, 0.5}, {0.25, 1.0}, {-0.5, 1.5}, {0.3, 0.6}};

/// Gives a cloud its second snapshots; its systems take their times from the `firstTimes`-th on.
inline Cloud moved(Cloud cloud, Way way, std::uint64_t seed, std::size_t firstTimes = 0) {
    Random random(seed);
    for (std::size_t s = 0; s < cloud.systems.size(); ++s) {
        System& first = cloud.systems[s];
        System& second = cloud.later.emplace_back();
        float const drift = first.radii.size() > 1 ? first.radii[1] : 0.0F;
        for (std::size_t i = 0; i < first.positions.size(); ++i) {
            Vector to = first.positions[i];
            float radius = i < first.radii.size() ? first.radii[i] : 0.0F;
            if (way == Way::drifting)
                to = sum(to, scaled({1.0F, -0.5F, 0.0F}, drift));
            if (way == Way::scattering)
                to = sum(to, scaled(random.direction(), 2.0F * radius));
            if (way == Way::turning)
                to = {-to.y, to.x, to.z};
            if (way == Way::resizing)
                radius *= random.powerOfTwo(-2, 2);
            if (way == Way::crossing)
                to = scaled(to, -1.0F);
            second.add(to, radius);
        }
        second.data.particleType = first.data.particleType;
        second.seal();
        auto const& times = sampleTimes[(firstTimes + s) % std::size(sampleTimes)];
        first.data.sampleTime = times[0];
        second.data.sampleTime = times[1];
    }
    return cloud;
}

/// A moving cloud in its tree. `cloud` is what the judge and the rays take for it: the cloud as it
/// stands at one time.
struct MovingScene : Scene<MovingParticlePrimitive> {
    explicit MovingScene(Cloud content, std::int32_t baseIndex = usualBase)
        : Scene(std::move(content), baseIndex) {
        first = std::move(cloud.systems); // the tree's pointers stay right
        freeze(0.5F);
    }

    void freeze(float time) {
        cloud.systems.clear();
        for (std::size_t s = 0; s < first.size(); ++s) {
            System& now = cloud.systems.emplace_back();
            auto const t0 = static_cast<float>(first[s].data.sampleTime);
            auto const t1 = static_cast<float>(cloud.later[s].data.sampleTime);
            // Of two equal times, what moves stands where it was first.
            float const lasts = t1 == t0 ? 1.0F : t1 - t0;
            float const f = (time - t0) / lasts;
            for (std::size_t i = 0; i < first[s].radii.size(); ++i) {
                Vector const& a = first[s].positions[i];
                Vector const& b = cloud.later[s].positions[i];
                Vector center{};
                bool isUsable = true;
                for (int axis = 0; axis < 3; ++axis) {
                    center[axis] = a[axis] + (b[axis] - a[axis]) * f;
                    isUsable &= std::isfinite((b[axis] - a[axis]) / lasts);
                }
                float const r0 = first[s].radii[i];
                float const r1 = cloud.later[s].radii[i];
                isUsable &= r0 >= 1e-15F && r1 >= 1e-15F && std::isfinite((r1 - r0) / lasts);
                now.add(center, isUsable ? r0 + (r1 - r0) * f : 0.0F);
            }
            bool const isThere = (time - t0) * (time - t1) <= 0.0F;
            now.data.particleType = isThere ? first[s].data.particleType : 7; // never hit
            now.seal();
        }
    }

    Tally ask(std::uint64_t seed, int perAim, float time) {
        freeze(time);
        return askRays<MovingParticlePrimitive>(*this, seed, perAim, time);
    }

    /// Expects the judge's hit but for rays along the very rim.
    void expectRight(std::uint64_t seed, int perAim) {
        Tally const tally = ask(seed, perAim, 0.4F);
        EXPECT_GT(tally.hits, perAim);
        EXPECT_EQ(tally.missed + tally.wrong, 0);
        EXPECT_LE(tally.delicate, 1);
    }

    std::vector<System> first;
};

/// Walks a tree and expects that its nodes, leaves and counters tell the same.
inline void expectSound(MovingSphereTree const& tree) {
    int nodes = 0, entries = 0, deepest = 0, bad = 0;
    forEachNode(tree.root, [&](MBSphereNode const& node, int level) {
        ++nodes;
        int const count = node.isLeaf() ? node.numLeafSpheres() : 0;
        if (!node.isLeaf() || count > 0)
            deepest = std::max(deepest, level);
        entries += count;
        bad += node.isLeaf() && count == 0 && node.link != 0;
        for (int k = 0; k < count; ++k)
            bad += static_cast<int>(node.leafSpheres()[k].sphereIndex) >= tree.numSpheres;
    });
    EXPECT_EQ(nodes, tree.nodes.getCount());
    EXPECT_EQ(entries, tree.leafSpheres.getCount());
    EXPECT_LE(deepest, tree.statMaxDepth);
    EXPECT_EQ(bad, 0);
    EXPECT_EQ(tree.numRunning, 0);
    EXPECT_EQ(tree.threads, nullptr);
}

} // namespace kelpatest
