#pragma once
// Internal: the static tree's traversal, once for each kind of processor.

#include "kelpa/spheretree/static/sdspheretree.h"

#include <span>

namespace Kelpa {

using SDTree = SDSphereTree<SDSphere, 20000, 20000>;

/// Visits the leaves that a ray, already clipped to the tree's box, passes, front to back, until
/// none can hold a nearer hit. Fills in the ray's hit record and returns true if there is one.
using SDFindClosest = bool(SDTree const& tree, SDSphereRay& ray);

/// The same for several rays; `found[i]` tells what `findClosest` would have returned for
/// `rays[i]`.
using SDFindClosestOfMany = void(SDTree const& tree, std::span<SDSphereRay*> rays, bool* found);

namespace scalar {
SDFindClosest findClosest;
SDFindClosestOfMany findClosestOfMany;
} // namespace scalar
namespace sse2 {
SDFindClosest findClosest;
SDFindClosestOfMany findClosestOfMany;
} // namespace sse2
namespace avx2 {
SDFindClosest findClosest;
SDFindClosestOfMany findClosestOfMany;
} // namespace avx2
namespace avx512 {
SDFindClosest findClosest;
SDFindClosestOfMany findClosestOfMany;
} // namespace avx512

} // namespace Kelpa
