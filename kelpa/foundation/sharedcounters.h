// Internal: counters of a tree that several threads read and raise.
#pragma once

#include <atomic>
#include <concepts>
#include <cstdint>
#include <type_traits>

namespace Kelpa {

// The tree's counters are plain integers that hosts may read. While threads share them they are
// reached through atomic references only. Relaxed order suffices: the lock, or the end of the
// build, orders everything that hangs on them.

template <std::integral Counter> Counter readShared(Counter const& shared) {
    // An atomic reference to a constant comes with C++26; loading changes nothing.
    return std::atomic_ref(const_cast<Counter&>(shared)).load(std::memory_order_relaxed);
}

inline void writeShared(std::int32_t& shared, std::int32_t value) {
    std::atomic_ref(shared).store(value, std::memory_order_relaxed);
}

template <std::integral Counter>
void addShared(Counter& shared, std::type_identity_t<Counter> amount) {
    std::atomic_ref(shared).fetch_add(amount, std::memory_order_relaxed);
}

template <std::integral Counter>
void raiseShared(Counter& shared, std::type_identity_t<Counter> atLeast) {
    std::atomic_ref const counter(shared);
    Counter seen = counter.load(std::memory_order_relaxed);
    while (seen < atLeast &&
           !counter.compare_exchange_weak(seen, atLeast, std::memory_order_relaxed))
        continue;
}

} // namespace Kelpa
