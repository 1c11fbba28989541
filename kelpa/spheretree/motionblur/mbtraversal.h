#pragma once
// Internal: the moving tree's queries, once for each kind of processor.

#include "kelpa/spheretree/motionblur/mbspheretree.h"

#include <span>

namespace Kelpa {

using MBTree = MBSphereTree<MBSphere, 20000, 20000>;

/// What can be asked of a tree, of rays that are already clipped to its box.
struct MBQueries {
    /// Visits the leaves that a ray passes at its time, front to back, until none can hold a nearer
    /// hit. Fills in the ray's hit record and returns true if there is one.
    bool (*findClosest)(MBTree const& tree, MBSphereRay& ray);

    /// Returns what `findClosest` would, but stops at the first hit and describes none.
    bool (*findAny)(MBTree const& tree, MBSphereRay& ray);

    /// The same for several rays; `found[i]` tells what is returned for `rays[i]`.
    void (*findClosestOfMany)(MBTree const& tree, std::span<MBSphereRay*> rays, bool* found);
    /// See `findClosestOfMany`.
    void (*findAnyOfMany)(MBTree const& tree, std::span<MBSphereRay*> rays, bool* found);
};

namespace scalar {
extern MBQueries const mbQueries;
}
namespace sse2 {
extern MBQueries const mbQueries;
}
namespace avx2 {
extern MBQueries const mbQueries;
}
namespace avx512 {
extern MBQueries const mbQueries;
}

} // namespace Kelpa
