// Where sequences get their memory.
#pragma once

#include "kelpa/foundation/blockpool.h"
#include "kelpa/foundation/optionalarray.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <type_traits>

namespace Kelpa {

/// Where sequences get their memory: `new` for block records, array `new` for elements, or a pool
/// for runs of exactly its blocks' size.
///
/// All answer null when there is no memory. An element type with a default constructor is
/// constructed in every slot; one without is left uninitialised.
template <class T> struct DefaultAllocator {
    static_assert(std::is_trivially_destructible_v<T>); // a pool's blocks end without a word

    /// Memory for `count` elements, at least 1; null when there is none.
    T* newElements(std::int32_t count) const {
        auto const n = static_cast<std::size_t>(count);
        if (!isPooled(count))
            return new (std::nothrow) T[n];
        auto* const elements = static_cast<T*>(pool->take());
        if (elements != nullptr)
            std::uninitialized_default_construct_n(elements, n);
        return elements;
    }
    /// Releases what `newElements` returned for as many elements.
    void freeElements(T* elements, std::int32_t count) const {
        if (isAdopted)
            FreeMemory{}(elements);
        else if (isPooled(count))
            pool->giveBack(elements);
        else
            delete[] elements;
    }
    /// Uninitialised memory for a block's record; null when there is none.
    static void* newBlockRecord(std::size_t bytes) { return ::operator new(bytes, std::nothrow); }
    /// Releases what `newBlockRecord` returned.
    static void freeBlockRecord(void* record) { ::operator delete(record); }

    BlockPool* pool = nullptr; ///< only set while there are no blocks, and outlives them
    bool isAdopted = false;    ///< elements were made elsewhere: see `Sequence::adopt`

  private:
    bool isPooled(std::int32_t count) const {
        return pool != nullptr && static_cast<std::size_t>(count) * sizeof(T) == pool->blockBytes();
    }
};

} // namespace Kelpa
