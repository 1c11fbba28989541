// Asks the system for aligned memory in huge pages.
#include "kelpa/foundation/optionalarray.h"

#if __has_include(<sys/mman.h>)
#include <sys/mman.h>
#endif

namespace Kelpa {

void* tryAllocateBytes(std::size_t bytes) {
    constexpr std::size_t hugePage = std::size_t{1} << 21;
    bool const isLarge = bytes >= 2 * hugePage;
    std::size_t const alignment = isLarge ? hugePage : 64;
    std::size_t const room = (bytes + alignment - 1) / alignment * alignment;
    void* const memory = room < bytes ? nullptr : std::aligned_alloc(alignment, room);
#if defined(MADV_HUGEPAGE)
    if (isLarge && memory != nullptr)
        (void)madvise(memory, room, MADV_HUGEPAGE); // a hint
#endif
    return memory;
}

} // namespace Kelpa
