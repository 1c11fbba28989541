// Internal: the moving tree's queries, once for each kind of processor.
#pragma once

#include "kelpa/spheretree/motionblur/mbspheretree.h"
#include "kelpa/spheretree/rayrun.h"

#include <cstdint>
#include <optional>
#include <span>

namespace Kelpa {

using MBTree = MBSphereTree<MBSphere, 20000, 20000>;

/// What can be asked of a tree. Single rays are already clipped to its box.
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
    /// The same for rays each in a tree of its own, `*trees[i]` for `rays[i]`.
    void (*findClosestApart)(MBTree const* const* trees, std::span<MBSphereRay*> rays, bool* found);
    /// See `findClosestApart`.
    void (*findAnyApart)(MBTree const* const* trees, std::span<MBSphereRay*> rays, bool* found);

    /// Finds what `findClosest` finds for every ray of a run, on one walk for all that go together,
    /// in a tree with packed spheres that is no deeper than usual. Enters the hits into `result`
    /// and returns a bit for each. Null where vectors are too short for it to pay.
    std::uint64_t (*findClosestTogether)(MBTree const& tree, RayRun const& run,
                                         PrimitiveIntersections& result);
    /// Returns the same bits.
    std::uint64_t (*findAnyTogether)(MBTree const& tree, RayRun const& run);
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

/// As `MBTree::intersectMany` for rays each in a tree of its own, `*trees[i]` for `rays[i]`, which
/// may be without a root.
void intersectApart(MBTree const* const* trees, std::span<MBSphereRay> rays, int* codes);
/// As `MBTree::areOccluded`, likewise.
void areOccludedApart(MBTree const* const* trees, std::span<MBSphereRay> rays, int* occluded);

/// Asks about all rays of a run on one walk if that pays; else asks nothing and returns nothing.
/// The bits of those that hit something, and the hits in `result`.
std::optional<std::uint64_t> findClosestTogether(MBTree const& tree, RayRun const& run,
                                                 PrimitiveIntersections& result);
/// The same without the hits.
std::optional<std::uint64_t> findAnyTogether(MBTree const& tree, RayRun const& run);

} // namespace Kelpa
