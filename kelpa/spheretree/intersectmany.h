// Internal: how a tree answers several rays at once.
#pragma once

#include "kelpa/foundation/vector.h"
#include "kelpa/spheretree/traversal.h"

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

} // namespace Kelpa
