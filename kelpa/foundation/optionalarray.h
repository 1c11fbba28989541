// Memory for what makes things faster and can be done without.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace Kelpa {

/// Memory from `std::malloc`'s family, aligned to 64 bytes, in huge pages where it is large and the
/// system has such; null when there is none. A large tree's arrays are written once: the system
/// would take longer to hand them out in small pages than they take to write.
void* tryAllocateBytes(std::size_t bytes);

/// Gives back what `tryAllocateBytes` or `std::realloc` returned.
struct FreeMemory {
    void operator()(void* memory) const { std::free(memory); }
};

/// Plain elements that are not made yet, or null.
template <class T> using OptionalArray = std::unique_ptr<T[], FreeMemory>;

/// Room for `count` elements; null when memory is short.
template <class T> OptionalArray<T> tryAllocate(std::size_t count) {
    return OptionalArray<T>(static_cast<T*>(tryAllocateBytes(count * sizeof(T))));
}

} // namespace Kelpa
