// An address and a kind of two bits in one word. What a link leads to lies on a multiple of 4, so
// the low two bits of its address are free.
#pragma once

#include "kelpa/foundation/language.h"

#include <cstdint>

namespace Kelpa {

/// `target`, a multiple of 4 or null, with a `kind` from 0 to 3.
inline std::uint64_t makeLink(void const* target, int kind) {
    return reinterpret_cast<std::uintptr_t>(target) | static_cast<std::uint64_t>(kind);
}

/// The kind that a link was made with.
inline int linkKind(std::uint64_t link) {
    return static_cast<int>(link & 3U);
}

/// The address that a link was made with.
template <class Target> Target* linkTarget(std::uint64_t link) {
    return reinterpret_cast<Target*>(static_cast<std::uintptr_t>(link & ~std::uint64_t{3}));
}

} // namespace Kelpa
