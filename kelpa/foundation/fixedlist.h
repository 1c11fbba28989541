// Internal: a short list on the call stack.
#pragma once

#include <cassert>
#include <cstddef>
#include <new>
#include <span>
#include <type_traits>

namespace Kelpa {

/// Up to `Capacity` elements, none of which exists before it is added.
template <class T, std::size_t Capacity> class FixedList {
    static_assert(std::is_trivially_destructible_v<T>);

  public:
    static constexpr std::size_t capacity = Capacity;

    FixedList() : used(0) {} // and leaves the room as it is
    FixedList(FixedList const&) = delete;
    FixedList& operator=(FixedList const&) = delete;

    /// Adds what `make` returns behind the other elements, constructed in its place. The list must
    /// not be full.
    template <class Make> [[gnu::always_inline]] T& add(Make const& make) {
        assert(!isFull());
        return *::new (static_cast<void*>(room + sizeof(T) * used++)) T(make());
    }

    std::size_t size() const { return used; }
    bool isFull() const { return used == Capacity; }
    T& operator[](std::size_t i) { return elements()[i]; }
    T* begin() { return elements(); }
    T* end() { return elements() + used; }
    operator std::span<T>() { return {elements(), used}; }

  private:
    T* elements() { return std::launder(reinterpret_cast<T*>(room)); }

    alignas(T) std::byte room[Capacity * sizeof(T)];
    std::size_t used;
};

} // namespace Kelpa
