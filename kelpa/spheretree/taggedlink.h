#pragma once

#include <cstdint>

namespace Kelpa {

// An address and a kind of two bits in one word. What a link leads to lies on a multiple of 4, so
// the low two bits of its address are free.

inline std::uint64_t makeLink(void const* target, int kind) {
    return reinterpret_cast<std::uintptr_t>(target) | static_cast<std::uint64_t>(kind);
}

inline int linkKind(std::uint64_t link) {
    return static_cast<int>(link & 3U);
}

template <class Target> Target* linkTarget(std::uint64_t link) {
    return reinterpret_cast<Target*>(static_cast<std::uintptr_t>(link & ~std::uint64_t{3}));
}

} // namespace Kelpa
