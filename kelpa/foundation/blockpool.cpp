// Keeps blocks that were given back, and where their memory comes from.
#include "kelpa/foundation/blockpool.h"

#include "kelpa/foundation/pages.h"
#include "kelpa/foundation/sharedcounters.h"

#include <algorithm>
#include <cassert>
#include <new>

namespace Kelpa {

namespace {

// Two huge pages: the blocks of 20000 nodes, entries or records fill more than nine tenths.
constexpr std::size_t slabBytes = std::size_t{1} << 22;

constexpr std::size_t alignment = 64;

std::size_t roundedUp(std::size_t bytes) {
    return (bytes + alignment - 1) / alignment * alignment;
}

} // namespace

void* BlockPool::take() {
    LockScope const scope(lock);
    void* block = freeBlocks;
    if (block != nullptr)
        freeBlocks = freeBlocks->next;
    else
        block = newBlock();
    if (block != nullptr)
        ++blocksInUse;
    return block;
}

void BlockPool::giveBack(void* block) {
    LockScope const scope(lock);
    assert(blocksInUse > 0);
    --blocksInUse;
    freeBlocks = new (block) FreeBlock{freeBlocks};
}

void BlockPool::release() {
    assert(blocksInUse == 0);
    while (source == Source::heap && freeBlocks != nullptr) {
        FreeBlock* const block = freeBlocks;
        freeBlocks = block->next;
        ::operator delete(block);
        count(size, -1);
    }
    while (slabs != nullptr) {
        Slab* const slab = slabs;
        slabs = slab->next;
        unmapPages(slab->memory, slabBytes);
        delete slab;
        count(slabBytes, -1);
    }
    freeBlocks = nullptr;
    unused = nullptr;
    unusedBytes = 0;
}

void* BlockPool::newBlock() {
    assert(size >= sizeof(FreeBlock) && size <= slabBytes);
    if (source == Source::heap) {
        void* const block = ::operator new(size, std::nothrow);
        if (block != nullptr)
            count(size, 1);
        return block;
    }
    if (unusedBytes < size && !addSlab())
        return nullptr;
    void* const block = unused;
    std::size_t const step = std::min(roundedUp(size), unusedBytes);
    unused += step;
    unusedBytes -= step;
    return block;
}

bool BlockPool::addSlab() {
    auto* const slab = new (std::nothrow) Slab{slabs, nullptr};
    if (slab == nullptr)
        return false;
    slab->memory = mapPages(slabBytes);
    if (slab->memory == nullptr) {
        delete slab;
        return false;
    }
    slabs = slab;
    unused = static_cast<std::byte*>(slab->memory);
    unusedBytes = slabBytes;
    count(slabBytes, 1);
    return true;
}

void BlockPool::count(std::size_t bytes, int sign) {
    if (heldBytes != nullptr)
        addShared(*heldBytes, sign * static_cast<std::int64_t>(bytes));
}

} // namespace Kelpa
