// Internal: memory straight from the system, which gets all of it back.
#pragma once

#include <cstddef>

namespace Kelpa {

/// The size of the large pages that the system is asked for.
inline constexpr std::size_t hugePageBytes = std::size_t{1} << 21;

/// `bytes`, a multiple of `hugePageBytes` and aligned to it, in huge pages where the system has
/// such; null when there is no memory.
void* mapPages(std::size_t bytes);

/// Gives back what `mapPages` returned for as many bytes.
void unmapPages(void* memory, std::size_t bytes);

} // namespace Kelpa
