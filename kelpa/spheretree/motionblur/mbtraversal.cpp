#include "kelpa/foundation/hitkernels.h"
#include "kelpa/spheretree/motionblur/mbspheretree.h"
#include "kelpa/spheretree/splitchoice.h"
#include "kelpa/spheretree/traversal.h"

#include <algorithm>

namespace Kelpa {

namespace {

/// A particle at one instant.
struct PlacedSphere {
    Vector center;
    float radius;
};

// A system whose snapshots were taken at one time stands where the first has it.
PlacedSphere placeAt(MovingParticleDataWithPrimitive const& system, std::uint32_t i, float time) {
    float const f =
        system.time1 == system.time0 ? 0.0F : (time - system.time0) / (system.time1 - system.time0);
    Vector const& p0 = system.positions0[i];
    Vector const& p1 = system.positions1[i];
    return {{p0.x + (p1.x - p0.x) * f, p0.y + (p1.y - p0.y) * f, p0.z + (p1.z - p0.z) * f},
            system.radii0[i] + (system.radii1[i] - system.radii0[i]) * f};
}

bool isCovered(MovingParticleDataWithPrimitive const& system, float time) {
    return !((time - system.time1) * (time - system.time0) > 0.0F);
}

/// Puts a ray into the frame of a node: the node stands still there, and the origin is where it
/// would have been at time 0.
void moveToFrame(IRay& ray, double const (&worldOrigin)[3], Vector const& velocity, float time) {
    for (int axis = 0; axis < 3; ++axis)
        ray.origin[axis] =
            worldOrigin[axis] - static_cast<double>(velocity[axis]) * static_cast<double>(time);
}

void moveToWorld(IRay& ray, double const (&worldOrigin)[3]) {
    std::copy(worldOrigin, worldOrigin + 3, ray.origin);
}

/// Offers a leaf's particles to the ray, first to last; true when one of them was hit.
///
/// Each hit lowers the ray's end, so later ones can only be nearer; of equally near ones the first
/// that is asked stays.
template <class Tree>
bool intersectLeaf(Tree const& tree, MBSphereNode const& leaf, MBSphereRay& ray) {
    MBLeafSphere const* const entries = leaf.leafSpheres();
    std::int32_t const count = leaf.numLeafSpheres();
    bool found = false;
    for (std::int32_t k = 0; k < count; ++k) {
        MBSphere& sphere = tree.spheres[entries[k].sphereIndex];
        auto const& system = tree.particleSystems.elements[sphere.systemIndex];
        if (!isCovered(system, ray.rayTime))
            continue;
        bool const isOrigin =
            skipNumber(tree.singleSystem, static_cast<std::int32_t>(sphere.particleIndex),
                       system.indexOffset) == ray.skipIndex;
        PlacedSphere const placed = placeAt(system, sphere.particleIndex, ray.rayTime);
        switch (static_cast<ParticleType>(system.particles0->particleType)) {
        case ParticleType::sphere:
            if (hitSphere(placed.center, placed.radius, ray, isOrigin) == 0)
                continue;
            ray.hitRecord->hitVector =
                sphereNormal(ray, placed.center, static_cast<float>(ray.tMax));
            break;
        case ParticleType::point:
            if (isOrigin || hitPoint(placed.center, placed.radius, ray) == 0)
                continue;
            ray.hitRecord->hitVector = {-ray.dir.x, -ray.dir.y, -ray.dir.z};
            break;
        default:
            continue;
        }
        ray.hitRecord->hitT = ray.tMax;
        ray.hitRecord->hitSphere = &sphere;
        found = true;
    }
    return found;
}

/// Visits the leaves that the ray passes at its time, front to back, until none can hold a nearer
/// hit.
template <int Capacity, class Tree> bool findClosest(Tree const& tree, MBSphereRay& ray) {
    double const worldOrigin[3] = {ray.origin[0], ray.origin[1], ray.origin[2]};
    PostponedChildren<MBSphereNode, Capacity> postponed;
    MBSphereNode const* node = tree.root;
    bool found = false;
    for (;;) {
        while (!node->isLeaf()) {
            int const axis = node->kind();
            MBSphereNode const* const children = node->children();
            if (axis == MBSphereNode::timeKind) {
                node = children + (ray.rayTime > node->splitPos ? 1 : 0);
                continue;
            }
            moveToFrame(ray, worldOrigin, node->velocity, ray.rayTime);
            int const nearChild = ray.dirSign[axis];
            double const tSplit = planeParameter(ray, axis, node->splitPos);
            if ((tSplit - ray.tMin) * (tSplit - ray.tMax) > 0.0) {
                // The plane lies before or behind the interval: one side holds all of it.
                node = children + (nearChild ^ (tSplit < ray.tMin ? 1 : 0));
            } else {
                // Also where the product is not a number: then both sides are visited.
                postponed.push(children + (1 - nearChild), tSplit, ray.tMax);
                ray.tMax = tSplit;
                node = children + nearChild;
            }
        }
        moveToWorld(ray, worldOrigin);
        if (intersectLeaf(tree, *node, ray))
            found = true;
        if (postponed.isEmpty())
            return found;
        // What waits deeper in the stack starts even later.
        auto const& next = postponed.pop();
        ray.tMin = next.tMin;
        ray.tMax = std::min(ray.hitRecord->hitT, next.tMax);
        if (next.tMin > ray.hitRecord->hitT)
            return found;
        node = next.node;
    }
}

} // namespace

template <class Sphere, int NodeBlock, int LeafBlock>
int MBSphereTree<Sphere, NodeBlock, LeafBlock>::intersectNode(MBSphereRay& ray) const {
    if (!clipToBox(ray, rootBox.box))
        return 0;
    bool const found = statMaxDepth <= usualInnerLevels ? findClosest<usualInnerLevels>(*this, ray)
                                                        : findClosest<levelLimit>(*this, ray);
    if (!found)
        return 0;
    auto const& system = particleSystems.elements[ray.hitRecord->hitSphere->systemIndex];
    return hitCode(system.particles0->particleType);
}

template int MBSphereTree<MBSphere, 20000, 20000>::intersectNode(MBSphereRay&) const;

} // namespace Kelpa
