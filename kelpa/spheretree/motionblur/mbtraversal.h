#pragma once
// Internal: the moving tree's traversal, once for each kind of processor.

#include "kelpa/spheretree/motionblur/mbspheretree.h"

#include <span>

namespace Kelpa {

using MBTree = MBSphereTree<MBSphere, 20000, 20000>;

/// Visits the leaves that a ray, already clipped to the tree's box, passes at its time, front to
/// back, until none can hold a nearer hit. Fills in the ray's hit record and returns true if there
/// is one.
using MBFindClosest = bool(MBTree const& tree, MBSphereRay& ray);

/// The same for several rays; `found[i]` tells what `findClosest` would have returned for
/// `rays[i]`.
using MBFindClosestOfMany = void(MBTree const& tree, std::span<MBSphereRay*> rays, bool* found);

namespace scalar {
MBFindClosest findClosest;
MBFindClosestOfMany findClosestOfMany;
} // namespace scalar
namespace sse2 {
MBFindClosest findClosest;
MBFindClosestOfMany findClosestOfMany;
} // namespace sse2
namespace avx2 {
MBFindClosest findClosest;
MBFindClosestOfMany findClosestOfMany;
} // namespace avx2
namespace avx512 {
MBFindClosest findClosest;
MBFindClosestOfMany findClosestOfMany;
} // namespace avx512

} // namespace Kelpa
