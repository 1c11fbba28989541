// Internal: the static tree's queries, once for each kind of processor.
#pragma once

#include "kelpa/spheretree/rayrun.h"
#include "kelpa/spheretree/static/sdspheretree.h"

#include <cstdint>
#include <optional>
#include <span>

namespace Kelpa {

using SDTree = SDSphereTree<SDSphere, 20000, 20000>;

/// What can be asked of a tree. Single rays are already clipped to its box.
struct SDQueries {
    /// Visits the leaves that a ray passes, front to back, until none can hold a nearer hit. Fills
    /// in the ray's hit record and returns true if there is one.
    bool (*findClosest)(SDTree const& tree, SDSphereRay& ray);

    /// Returns what `findClosest` would, but stops at the first hit and describes none.
    bool (*findAny)(SDTree const& tree, SDSphereRay& ray);

    /// The same for several rays; `found[i]` tells what is returned for `rays[i]`.
    void (*findClosestOfMany)(SDTree const& tree, std::span<SDSphereRay*> rays, bool* found);
    /// See `findClosestOfMany`.
    void (*findAnyOfMany)(SDTree const& tree, std::span<SDSphereRay*> rays, bool* found);
    /// The same for rays each in a tree of its own, `*trees[i]` for `rays[i]`.
    void (*findClosestApart)(SDTree const* const* trees, std::span<SDSphereRay*> rays, bool* found);
    /// See `findClosestApart`.
    void (*findAnyApart)(SDTree const* const* trees, std::span<SDSphereRay*> rays, bool* found);

    /// Finds what `findClosest` finds for every ray of a run, on one walk for all that go together,
    /// in a tree with packed leaves that is no deeper than usual. Enters the hits into `result` and
    /// returns a bit for each. Null where vectors are too short for it to pay.
    std::uint64_t (*findClosestTogether)(SDTree const& tree, RayRun const& run,
                                         PrimitiveIntersections& result);
    /// Returns the same bits.
    std::uint64_t (*findAnyTogether)(SDTree const& tree, RayRun const& run);
};

namespace scalar {
extern SDQueries const sdQueries;
}
namespace sse2 {
extern SDQueries const sdQueries;
}
namespace avx2 {
extern SDQueries const sdQueries;
}
namespace avx512 {
extern SDQueries const sdQueries;
}

/// As `SDTree::intersectMany` for rays each in a tree of its own, `*trees[i]` for `rays[i]`, which
/// may be without a root.
void intersectApart(SDTree const* const* trees, std::span<SDSphereRay> rays, int* codes);
/// As `SDTree::areOccluded`, likewise.
void areOccludedApart(SDTree const* const* trees, std::span<SDSphereRay> rays, int* occluded);

/// Asks about all rays of a run on one walk if that pays; else asks nothing and returns nothing.
/// The bits of those that hit something, and the hits in `result`.
std::optional<std::uint64_t> findClosestTogether(SDTree const& tree, RayRun const& run,
                                                 PrimitiveIntersections& result);
/// The same without the hits.
std::optional<std::uint64_t> findAnyTogether(SDTree const& tree, RayRun const& run);

} // namespace Kelpa
