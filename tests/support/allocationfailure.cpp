// Replaces operator new of the test program by one that can be told to fail. Nothing tested needs
// the forms for stricter alignment, so these stay as they are.

#include "tests/support/allocationfailure.h"

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <new>

namespace {

constexpr long off = -1;
std::atomic<long> firstFailing = off;
std::atomic<long> numFailing = 0;
std::atomic<long> seen = 0;
std::atomic<bool> failed = false;

void* allocate(std::size_t size) {
    long const first = firstFailing.load(std::memory_order_relaxed);
    if (first != off) {
        long const number = seen.fetch_add(1, std::memory_order_relaxed);
        if (number >= first && number - first < numFailing.load(std::memory_order_relaxed)) {
            failed = true;
            return nullptr;
        }
    }
    return std::malloc(size > 0 ? size : 1);
}

void* allocateOrThrow(std::size_t size) {
    void* const memory = allocate(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}

} // namespace

namespace kelpatest {

FailingAllocations::FailingAllocations(long first, long howMany) {
    seen = 0;
    failed = false;
    numFailing = howMany;
    firstFailing = first;
}

FailingAllocations::~FailingAllocations() {
    firstFailing = off;
}

bool FailingAllocations::happened() const {
    return failed;
}

} // namespace kelpatest

// clang-format off
void* operator new(std::size_t size) { return allocateOrThrow(size); }
void* operator new[](std::size_t size) { return allocateOrThrow(size); }
void* operator new(std::size_t size, std::nothrow_t const&) noexcept { return allocate(size); }
void* operator new[](std::size_t size, std::nothrow_t const&) noexcept { return allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
void operator delete(void* memory, std::nothrow_t const&) noexcept { std::free(memory); }
void operator delete[](void* memory, std::nothrow_t const&) noexcept { std::free(memory); }
// clang-format on
