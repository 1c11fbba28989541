// Maps memory, and gives it back.
#include "kelpa/foundation/pages.h"

#if __has_include(<sys/mman.h>)
#include <sys/mman.h>
#endif

#include <cstdint>
#include <cstdlib>

namespace Kelpa {

#if defined(MAP_ANONYMOUS)

void* mapPages(std::size_t bytes) {
    // One huge page more than asked for holds as many that are aligned; the rest goes back.
    std::size_t const room = bytes + hugePageBytes;
    void* const mapped =
        mmap(nullptr, room, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED)
        return nullptr;
    auto* const begin = static_cast<char*>(mapped);
    std::size_t const before =
        (hugePageBytes - reinterpret_cast<std::uintptr_t>(begin)) % hugePageBytes;
    std::size_t const behind = hugePageBytes - before;
    if (before > 0)
        (void)munmap(begin, before);
    if (behind > 0)
        (void)munmap(begin + before + bytes, behind);
#if defined(MADV_HUGEPAGE)
    (void)madvise(begin + before, bytes, MADV_HUGEPAGE); // a hint
#endif
    return begin + before;
}

void unmapPages(void* memory, std::size_t bytes) {
    (void)munmap(memory, bytes);
}

#else

void* mapPages(std::size_t bytes) {
    return std::aligned_alloc(hugePageBytes, bytes);
}

void unmapPages(void* memory, std::size_t) {
    std::free(memory);
}

#endif

} // namespace Kelpa
