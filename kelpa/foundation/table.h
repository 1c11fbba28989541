// Arrays of plain records that grow in steps.
#pragma once

#include "kelpa/foundation/exceptionmsg.h"

#include <algorithm>
#include <cstdint>
#include <limits>
#include <new>

namespace Kelpa {

/// An array of plain records that grows in steps and never shrinks.
///
/// One thread at a time. Growing moves the elements, so addresses hold only until the next growth.
template <class T, int Step> class Table {
  public:
    /// An empty table; no memory is taken.
    Table() = default;
    Table(Table const&) = delete;
    Table& operator=(Table const&) = delete;
    ~Table() { freeData(); }

    /// Sets the number of elements; those up to the old count keep their values, the rest is the
    /// caller's to fill.
    ///
    /// When the storage must grow it gets room for exactly `newCount` elements if `exact` is
    /// non-zero, else for the next multiple of `step` strictly above. Throws `ExceptionMsg` when
    /// memory runs out and is then unchanged.
    void setCount(int newCount, int exact) {
        if (newCount > capacity)
            grow(exact != 0 ? newCount : steppedCapacity(newCount));
        count = newCount;
    }

    /// Releases the storage and leaves an empty table.
    void freeData() {
        capacity = 0;
        count = 0;
        delete[] elements;
        elements = nullptr;
    }

    std::int32_t count = 0;    ///< elements in use
    std::int32_t step = Step;  ///< growth in elements; 0 or less: doubles
    std::int32_t capacity = 0; ///< slots in `elements`
    T* elements = nullptr;     ///< `capacity` slots, of which the first `count` are in use

  private:
    // Computed in 64 bits and cut to what a count can hold: the last step before 2^31 is a short
    // one.
    std::int32_t steppedCapacity(std::int32_t needed) const {
        std::int64_t room = needed;
        if (step > 0) {
            room += step - needed % step;
        } else if (capacity > 0) {
            room = capacity;
            while (room < needed)
                room *= 2;
        }
        constexpr std::int64_t most = std::numeric_limits<std::int32_t>::max();
        return static_cast<std::int32_t>(room < most ? room : most);
    }

    void grow(std::int32_t newCapacity) {
        T* const grown = new (std::nothrow) T[static_cast<std::size_t>(newCapacity)];
        if (grown == nullptr)
            throwOutOfMemory();
        std::copy_n(elements, count, grown);
        delete[] elements;
        elements = grown;
        capacity = newCapacity;
    }
};

} // namespace Kelpa
