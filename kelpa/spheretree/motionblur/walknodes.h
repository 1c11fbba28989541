// Internal: lays a moving tree's nodes out once more, for the queries.
#pragma once

#include "kelpa/foundation/optionalarray.h"
#include "kelpa/spheretree/motionblur/mbspheretree.h"
#include "kelpa/spheretree/splitchoice.h"

#include <cstdint>

namespace Kelpa {

/// Lays out a tree's nodes as `MBWalkNode`s.
///
/// A line of memory takes two pairs of nodes: one, and the pair below one of its nodes, so that a
/// ray takes three steps on two lines. Pairs of leaves share lines with each other. Lines follow
/// one another as the tree goes down, along the lower sides first.
class WalkNodeLayout {
  public:
    /// Bytes for a tree of so many nodes: the root stands where a pair could, and another such
    /// place may be left over.
    static std::uint64_t bytesFor(std::int32_t numNodes) {
        return sizeof(MBWalkNode) * (static_cast<std::uint64_t>(numNodes) + 3);
    }

    /// Fills `room`, which is aligned to 64 bytes, with `root` and the nodes below it.
    WalkNodeLayout(MBSphereNode const& root, MBWalkNode* room)
        : freeHalf(room + pairLength), freeLine(room + 2 * pairLength) {
        place(root, *room);
        while (used > 0) {
            Waiting const above = waiting[--used];
            MBSphereNode const* const children = above.source->children();
            if (children[0].isLeaf() && children[1].isLeaf()) {
                placeChildren(above, takeHalfLine());
                continue;
            }
            MBWalkNode* const line = takeLine();
            placeChildren(above, line);
            placeChildren(waiting[--used], line + pairLength); // below one of those just placed
        }
    }

  private:
    static constexpr int pairLength = 2;

    /// An inner node whose children have no place yet.
    struct Waiting {
        MBSphereNode const* source;
        MBWalkNode* node;
    };

    void place(MBSphereNode const& source, MBWalkNode& node) {
        if (source.isLeaf()) {
            node.becomeLeaf(source.leafSpheres(), source.numLeafSpheres());
            return;
        }
        int const kind = source.kind();
        node.splitPos = source.splitPos;
        node.velocity = kind == MBSphereNode::timeKind ? 0.0F : source.velocity[kind];
        waiting[used++] = {&source, &node};
    }

    void placeChildren(Waiting const& above, MBWalkNode* pair) {
        above.node->link = makeLink(pair, above.source->kind());
        MBSphereNode const* const children = above.source->children();
        place(children[1], pair[1]);
        place(children[0], pair[0]);
    }

    MBWalkNode* takeLine() {
        MBWalkNode* const line = freeLine;
        freeLine += 2 * pairLength;
        return line;
    }

    MBWalkNode* takeHalfLine() {
        MBWalkNode* const half = freeHalf != nullptr ? freeHalf : takeLine();
        freeHalf = freeHalf != nullptr ? nullptr : half + pairLength;
        return half;
    }

    MBWalkNode* freeHalf; ///< where a pair of leaves goes; null: to a new line
    MBWalkNode* freeLine;
    // On each level of a path two nodes may wait beside the one that has come off.
    Waiting waiting[2 * levelLimit + 3];
    int used = 0;
};

/// Lays out a tree's nodes for its queries. Does nothing when memory is short.
template <class Tree> void layOutWalkNodes(Tree& tree) {
    std::uint64_t const bytes = WalkNodeLayout::bytesFor(tree.nodes.getCount());
    MBWalkNode* const room = tryAllocate<MBWalkNode>(bytes / sizeof(MBWalkNode)).release();
    if (room == nullptr)
        return;
    WalkNodeLayout(*tree.root, room);
    tree.walkNodes = room;
    tree.walkNodeBytes = bytes;
}

} // namespace Kelpa
