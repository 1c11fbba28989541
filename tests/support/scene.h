// Clouds in trees, asked through primitives, and what the answers are worth.
#pragma once

#include "kelpa/particleprimitives/particleprimitives.h"

#include "tests/support/bruteforce.h"
#include "tests/support/rays.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

namespace kelpatest {

inline void registerSystem(StaticSphereTree& tree, Cloud& cloud, std::size_t s,
                           GenericPrimitive* primitive, std::int32_t indexOffset) {
    auto& table = tree.particleSystems;
    table.setCount(table.count + 1, 0);
    System& system = cloud.systems[s];
    table.elements[table.count - 1] = {&system.data, primitive, indexOffset,
                                       system.positions.data(), system.radii.data()};
}

inline void registerSystem(MovingSphereTree& tree, Cloud& cloud, std::size_t s,
                           GenericPrimitive* primitive, std::int32_t indexOffset) {
    auto& table = tree.particleSystems;
    table.setCount(table.count + 1, 0);
    ParticleData& first = cloud.systems[s].data;
    ParticleData& second = cloud.later[s].data;
    table.elements[table.count - 1] = {&first,
                                       &second,
                                       primitive,
                                       indexOffset,
                                       first.positions,
                                       second.positions,
                                       first.radii,
                                       second.radii,
                                       static_cast<float>(first.sampleTime),
                                       static_cast<float>(second.sampleTime)};
}

/// What hits on a system are reported to be on.
class Shape final : public GenericPrimitive {};

/// A cloud in the tree of one primitive. Several systems share the tree with offsets that tell
/// their particles apart, and each system has a shape of its own.
template <class Primitive> class Scene {
  public:
    static constexpr std::int32_t usualBase = 1000;

    explicit Scene(Cloud content, std::int32_t baseIndex = usualBase)
        : base(baseIndex), cloud(std::move(content)), shapes(cloud.systems.size()),
          owner(base, nullptr, nullptr, true), tree(*owner.tree) {
        for (std::size_t s = 0; s < shapes.size(); ++s)
            registerSystem(tree, cloud, s, &shapes[s],
                           isAlone() ? -1 : offsetStep * static_cast<int>(s));
    }

    bool isAlone() const { return cloud.systems.size() == 1; }

    std::int64_t reportedIndex(ParticleId id) const {
        return isAlone() ? wrapped(std::int64_t{base} + id.index)
                         : offsetStep * id.system + id.index;
    }

    static std::int64_t wrapped(std::int64_t number) { return static_cast<std::int32_t>(number); }

    /// The ray of a query. The interval that must not be read is not a number.
    RSRay makeRay(Query const& query) const {
        constexpr double nan = std::numeric_limits<double>::quiet_NaN();
        RSRay ray{};
        static_cast<TraceRay&>(ray) = query.ray;
        ray.time = query.time;
        ray.intervalMin = isAlone() ? query.tMin : nan;
        ray.intervalMax = isAlone() ? query.tMax : nan;
        ray.clipMin = isAlone() ? nan : query.tMin;
        ray.clipMax = isAlone() ? nan : query.tMax;
        ray.hitT = isAlone() ? nan : std::numeric_limits<double>::infinity();
        ray.skipIndex = std::int64_t{base} - 1;
        if (query.start.index >= 0)
            ray.skipIndex = reportedIndex(query.start) + (isAlone() ? 0 : base);
        return ray;
    }

    static constexpr std::int32_t offsetStep = 100000;

    std::int32_t base; ///< particles are numbered from here, in 32 bits

    Cloud cloud;
    std::vector<Shape> shapes;
    Primitive owner;
    std::remove_pointer_t<decltype(Primitive::tree)>& tree;
};

using StillScene = Scene<StaticParticlePrimitive>;

/// What answers are worth beside the judge's.
struct Tally {
    int hits = 0;
    int delicate = 0; ///< closest hits missed that hang on the last bits, see `isDelicate`
    int missed = 0;   ///< other closest hits missed, whether or not a farther one was found
    int wrong = 0;    ///< nearer than any hit, not a hit at all, or not described as it is

    void operator+=(Tally const& other) {
        hits += other.hits;
        delicate += other.delicate;
        missed += other.missed;
        wrong += other.wrong;
    }
};

/// Whether a hit hangs on the last bits: planes and intervals are rounded, so a tree may miss a
/// particle that the ray touches no deeper than 2^-10 of its radius and 2^-20 of the coordinates of
/// either.
inline bool isDelicate(Cloud const& cloud, ParticleId id, Query const& query) {
    auto const [center, radius] = sphereAt(cloud, id);
    double toCenter[3], dir[3], along = 0.0, squaredLength = 0.0, squaredDistance = 0.0;
    double coarsest = 0.0;
    for (int axis = 0; axis < 3; ++axis) {
        double const c = static_cast<double>(center[axis]);
        dir[axis] = static_cast<double>(query.ray.dir[axis]);
        toCenter[axis] = c - query.ray.origin[axis];
        along += toCenter[axis] * dir[axis];
        squaredLength += dir[axis] * dir[axis];
        coarsest = std::max({coarsest, std::fabs(c), std::fabs(query.ray.origin[axis])});
    }
    for (int axis = 0; axis < 3; ++axis) {
        double const offset = toCenter[axis] - dir[axis] * along / squaredLength;
        squaredDistance += offset * offset;
    }
    double const r = static_cast<double>(radius);
    return r - std::sqrt(squaredDistance) < 0x1p-10 * r + 0x1p-20 * coarsest;
}

template <class Float> bool isSame(Float a, Float b) {
    return a == b || (std::isnan(a) && std::isnan(b));
}
inline bool isSame(Vector const& a, Vector const& b) {
    return isSame(a.x, b.x) && isSame(a.y, b.y) && isSame(a.z, b.z);
}

/// Whether two rays hold the same hit, or none alike.
inline bool isSameHit(RSRay const& a, RSRay const& b) {
    return isSame(a.hitT, b.hitT) && a.hitPrimitive == b.hitPrimitive && a.hitIndex == b.hitIndex &&
           a.hitLocalIndex == b.hitLocalIndex && isSame(a.hitNormal, b.hitNormal);
}

/// Whether all that a hit reports belongs to a particle that the ray meets there.
template <class Primitive>
bool isTrueHit(Scene<Primitive> const& scene, Query const& query, int code, RSRay const& ray) {
    auto const shape =
        std::find_if(scene.shapes.begin(), scene.shapes.end(),
                     [&ray](Shape const& candidate) { return &candidate == ray.hitPrimitive; });
    ParticleId const id{static_cast<int>(shape - scene.shapes.begin()), ray.hitLocalIndex};
    if (shape == scene.shapes.end() || ray.hitIndex != scene.reportedIndex(id))
        return false;
    Answer alone = askParticle(scene.cloud, id, query);
    if (alone.t < ray.hitT) { // the entry was missed, so the exit counts
        Query beyondEntry = query;
        beyondEntry.tMin = std::nextafter(alone.t, ray.hitT);
        alone = askParticle(scene.cloud, id, beyondEntry);
    }
    Vector normal = scaled(ray.dir, -1.0F);
    auto const [center, radius] = sphereAt(scene.cloud, id);
    for (int axis = 0; axis < 3 && code == 1; ++axis)
        normal[axis] = (static_cast<float>(ray.origin[axis]) - center[axis]) +
                       ray.dir[axis] * static_cast<float>(ray.hitT);
    return alone.code == code && alone.t == ray.hitT && isSame(ray.hitNormal, normal);
}

inline void setLane(RayBunchExtParams& params, std::size_t lane, RSRay const& ray) {
    params.originX[lane] = ray.origin[0];
    params.originY[lane] = ray.origin[1];
    params.originZ[lane] = ray.origin[2];
    params.dirX[lane] = ray.dir.x;
    params.dirY[lane] = ray.dir.y;
    params.dirZ[lane] = ray.dir.z;
    params.time[lane] = ray.time;
    params.skipIndex[lane] = ray.skipIndex;
}

/// Whether rays with origins of single precision, asked as one list of up to 64, get the answers
/// that they got singly.
template <class Primitive>
bool isSameAsList(Scene<Primitive>& scene, std::vector<RSRay> const& rays,
                  std::vector<RSRay> const& answers, std::vector<int> const& codes) {
    RayBunchExtParams params{};
    RayBunchCommonResult result{};
    double tMins[64] = {}, tMaxs[64] = {};
    unsigned char lanes[64] = {};
    result.noHits = true;
    auto const laneOf = [&rays](std::size_t i) { return 64 - rays.size() + i; };
    for (std::size_t i = 0; i < rays.size(); ++i) {
        RSRay const& ray = rays[i];
        std::size_t const lane = laneOf(i);
        setLane(params, lane, ray);
        tMins[lane] = scene.isAlone() ? ray.intervalMin : ray.clipMin;
        tMaxs[i] = scene.isAlone() ? ray.intervalMax : ray.clipMax;
        result.hitT[lane] = std::numeric_limits<double>::infinity();
        lanes[i] = static_cast<unsigned char>(lane);
    }
    scene.owner.bunchIntersect(params, result, tMins, tMaxs, lanes, rays.size());
    bool isSameAsSingle = true;
    for (std::size_t i = 0; i < rays.size(); ++i) {
        std::size_t const lane = laneOf(i);
        isSameAsSingle &= result.hit[lane] == codes[i];
        isSameAsSingle &=
            codes[i] == 0 || (isSame(result.hitT[lane], answers[i].hitT) &&
                              result.hitIndex[lane] == answers[i].hitIndex &&
                              result.hitPrimitive[lane] == answers[i].hitPrimitive &&
                              isSame(result.hitNormalX[lane], answers[i].hitNormal.x) &&
                              isSame(result.hitNormalZ[lane], answers[i].hitNormal.z));
    }
    return isSameAsSingle;
}

/// Asks `perAim` seeded rays of every kind and compares the answers with the judge's. Moving scenes
/// are asked at `time`, and their cloud must be as it is then.
template <class Primitive>
Tally askRays(Scene<Primitive>& scene, std::uint64_t seed, int perAim, float time = 0.0F) {
    Tally tally;
    RaySource rays(scene.cloud, seed);
    for (int i = 0; i < perAim * numAims; ++i) {
        Query query = rays.make(static_cast<Aim>(i % numAims));
        query.time = time;
        RSRay ray = scene.makeRay(query);
        int const code = scene.owner.intersect(ray);
        Answer const expected = bruteForce(scene.cloud, query);
        tally.hits += expected.code != 0;
        if (code != 0 &&
            (expected.code == 0 || ray.hitT < expected.t || !isTrueHit(scene, query, code, ray)))
            ++tally.wrong;
        else if (expected.code != 0 && (code == 0 || ray.hitT > expected.t))
            ++(isDelicate(scene.cloud, expected.on, query) ? tally.delicate : tally.missed);
    }
    return tally;
}

/// Expects the judge's hit for every ray; for scenes without coarse coordinates.
template <class Primitive>
void expectRightAnswers(Scene<Primitive>& scene, std::uint64_t seed, int perAim) {
    Tally const tally = askRays(scene, seed, perAim);
    EXPECT_GT(tally.hits, perAim);
    EXPECT_EQ(tally.delicate + tally.missed + tally.wrong, 0);
}

inline int leafCount(SDSphereNode<SDSphere> const& node) {
    return node.numLeafSpheres;
}
inline int leafCount(MBSphereNode const& node) {
    return node.numLeafSpheres();
}
/// FNV-1a (G. Fowler, L. C. Noll, K.-P. Vo) over all nodes and leaf entries, lower sides first.
template <class Tree> std::uint64_t hashOf(Tree const& tree) {
    std::uint64_t hash = 0xCBF29CE484222325U;
    auto const add = [&hash](auto word) {
        hash = (hash ^ std::bit_cast<std::uint32_t>(word)) * 0x100000001B3U;
    };
    std::vector<decltype(tree.root)> open{tree.root};
    while (!open.empty()) {
        auto* const node = open.back();
        open.pop_back();
        add(node->kind());
        if constexpr (requires { node->velocity; })
            for (int axis = 0; axis < 3; ++axis)
                add(node->velocity[axis]);
        if (node->isLeaf()) {
            for (int k = 0; k < leafCount(*node); ++k)
                add(node->leafSpheres()[k].sphereIndex);
        } else {
            add(node->splitPos);
            open.insert(open.end(), {node->children() + 1, node->children()});
        }
    }
    return hash;
}

/// Calls `visit(node, level)` for all nodes of a tree; the root's level is 1.
template <class Node, class Visit> void forEachNode(Node const* root, Visit visit) {
    std::vector<std::pair<Node const*, int>> open{{root, 1}};
    while (!open.empty()) {
        auto const [node, level] = open.back();
        open.pop_back();
        visit(*node, level);
        for (int side = 0; !node->isLeaf() && side < 2; ++side)
            open.push_back({node->children() + side, level + 1});
    }
}

/// Walks a tree and expects that its nodes, leaves and counters tell the same.
inline void expectSound(StaticSphereTree const& tree) {
    int nodes = 0, leaves = 0, entries = 0, deepest = 0, badEntries = 0;
    forEachNode(tree.root, [&](SDSphereNode<SDSphere> const& node, int level) {
        ++nodes;
        if (!node.isLeaf()) {
            deepest = std::max(deepest, level);
            return;
        }
        leaves += node.numLeafSpheres > 0;
        entries += node.numLeafSpheres;
        for (int k = 0; k < node.numLeafSpheres; ++k)
            badEntries += static_cast<int>(node.leafSpheres()[k].sphereIndex) >= tree.numSpheres;
    });
    EXPECT_EQ(nodes, tree.nodes.getCount());
    EXPECT_EQ(leaves, tree.statNumLeaves);
    EXPECT_EQ(entries, tree.leafSpheres.getCount());
    EXPECT_EQ(deepest, tree.innerLevels);
    EXPECT_EQ(badEntries, 0);
    EXPECT_EQ(tree.numRunning, 0);
}

} // namespace kelpatest
