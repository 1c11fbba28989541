// Internal: how a tree answers several rays at once.
#pragma once

#include "kelpa/foundation/vector.h"
#include "kelpa/spheretree/traversal.h"

#include <cassert>
#include <cstddef>
#include <span>

namespace Kelpa {

/// Clips rays to a tree's box and has those that meet it searched together: `findMany(rays, found)`
/// tells which of them hit something. `codes[i]` becomes what `codeOf(rays[i])` says of the hit,
/// else 0.
template <class Ray, class FindMany, class CodeOf>
void intersectInBox(Box const& box, std::span<Ray> rays, int* codes, FindMany findMany,
                    CodeOf codeOf) {
    constexpr std::size_t most = 64;
    for (std::size_t begin = 0; begin < rays.size(); begin += most) {
        Ray* inBox[most];
        int* codeInBox[most];
        std::size_t count = 0;
        for (std::size_t i = begin; i < rays.size() && i < begin + most; ++i) {
            codes[i] = 0;
            inBox[count] = &rays[i];
            codeInBox[count] = &codes[i];
            count += clipToBox(rays[i], box) ? 1 : 0;
        }
        bool found[most];
        findMany(std::span<Ray*>(inBox, count), found);
        for (std::size_t i = 0; i < count; ++i)
            if (found[i])
                *codeInBox[i] = codeOf(*inBox[i]);
    }
}

/// The same for up to 64 rays each in a tree of its own: `findApart(trees, rays, found)`. Trees
/// without a root are not asked.
template <class Tree, class Ray, class BoxOf, class FindApart, class CodeOf>
void intersectInBoxes(Tree const* const* trees, std::span<Ray> rays, int* codes, BoxOf boxOf,
                      FindApart findApart, CodeOf codeOf) {
    constexpr std::size_t most = 64;
    assert(rays.size() <= most);
    Tree const* treeOf[most] = {};
    Ray* inBox[most];
    int* codeInBox[most];
    std::size_t count = 0;
    for (std::size_t i = 0; i < rays.size(); ++i) {
        codes[i] = 0;
        if (trees[i]->root == nullptr || !clipToBox(rays[i], boxOf(*trees[i])))
            continue;
        treeOf[count] = trees[i];
        inBox[count] = &rays[i];
        codeInBox[count++] = &codes[i];
    }
    bool found[most];
    findApart(treeOf, std::span<Ray*>(inBox, count), found);
    for (std::size_t i = 0; i < count; ++i)
        if (found[i])
            *codeInBox[i] = codeOf(*treeOf[i], *inBox[i]);
}

} // namespace Kelpa
