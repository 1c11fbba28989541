// Internal: several rays on their way through a tree at the same time.
#pragma once

#include "kelpa/foundation/fixedlist.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace Kelpa {

/// 0 or 1, computed, not branched on: the compiler does not see that it is a truth.
[[gnu::always_inline]] inline std::uint64_t flag(bool is) {
    auto value = static_cast<std::uint64_t>(is);
    asm("" : "+r"(value));
    return value;
}

/// `ifSet` where `which` is 1, `ifClear` where it is 0; without a branch.
[[gnu::always_inline]] inline std::uint64_t select(std::uint64_t which, std::uint64_t ifSet,
                                                   std::uint64_t ifClear) {
    return ifClear ^ ((ifSet ^ ifClear) & (0 - which));
}
[[gnu::always_inline]] inline double select(std::uint64_t which, double ifSet, double ifClear) {
    return __builtin_bit_cast(double, select(which, __builtin_bit_cast(std::uint64_t, ifSet),
                                             __builtin_bit_cast(std::uint64_t, ifClear)));
}

/// The address of child 0 or 1 of a pair. By number: where a ray waits in an empty leaf there
/// is no pair, and no pointer into it may be formed, though nothing follows it.
template <class Node>
[[gnu::always_inline]] inline Node const* childAt(Node const* pair, std::uint64_t child) {
    return reinterpret_cast<Node const*>(reinterpret_cast<std::uintptr_t>(pair) +
                                         sizeof(Node) * child);
}

namespace {

/// How many rays travel at a time: enough to fill the wait for memory, few enough for their states
/// to stay near the processor.
inline constexpr int mostInFlight = 16;

/// Leads rays to the end of their ways, a step of each in turn. While one waits for its node from
/// memory, the processor works on the others; none takes notice of another (O. Kocberber, B.
/// Falsafi and B. Grot, "Asynchronous Memory Access Chaining", PVLDB 9(4), 2015, of lookups in
/// databases).
///
/// A ray in flight has `step()`, which goes one node down and returns 0 in a leaf, else 1;
/// `prefetchLeaf()`; and `visitLeaf()`, which returns whether the ray goes on from there.
template <class RayInFlight>
[[gnu::always_inline]] inline void advanceInTurn(FixedList<RayInFlight, mostInFlight>& inFlight) {
    int walking[mostInFlight];
    int atLeaf[mostInFlight];
    int numWalking = 0;
    for (; numWalking < static_cast<int>(inFlight.size()); ++numWalking)
        walking[numWalking] = numWalking;
    while (numWalking > 0) {
        int numAtLeaf = 0;
        while (numWalking > 0) {
            int stillWalking = 0;
            for (int k = 0; k < numWalking; ++k) {
                int const i = walking[k];
                int const isInner = inFlight[static_cast<unsigned>(i)].step();
                walking[stillWalking] = i;
                stillWalking += isInner;
                atLeaf[numAtLeaf] = i;
                numAtLeaf += 1 - isInner;
            }
            numWalking = stillWalking;
        }
        for (int k = 0; k < numAtLeaf; ++k)
            inFlight[static_cast<unsigned>(atLeaf[k])].prefetchLeaf();
        for (int k = 0; k < numAtLeaf; ++k)
            if (inFlight[static_cast<unsigned>(atLeaf[k])].visitLeaf())
                walking[numWalking++] = atLeaf[k];
    }
}

/// Searches trees for several rays at a time, tree `treeOf(i)` for `rays[i]`; `found[i]` tells
/// whether that has hit something.
template <class RayInFlight, class TreeOf, class Ray>
[[gnu::always_inline]] inline void searchTogether(TreeOf const& treeOf, std::span<Ray*> rays,
                                                  bool* found) {
    for (std::size_t i = 0; i < rays.size();) {
        FixedList<RayInFlight, mostInFlight> inFlight;
        for (std::size_t k = i; k < rays.size() && !inFlight.isFull(); ++k)
            inFlight.add([&] { return RayInFlight(treeOf(k), *rays[k]); });
        advanceInTurn(inFlight);
        for (RayInFlight& ray : inFlight)
            found[i++] = ray.finish();
    }
}

} // namespace

} // namespace Kelpa
