// Blocks of memory that builds use again and again.
#pragma once

#include "kelpa/foundation/lock.h"

#include <cstddef>
#include <cstdint>

namespace Kelpa {

/// Blocks of one size for sequences, used again once they are given back, and returned to the
/// system together.
///
/// Many blocks are cut from slabs, which lie in huge pages where the system has such, and never in
/// the heap of `new`, which would keep what is given back. Any number of threads may take blocks
/// and give them back; the rest belongs to one thread at a time.
class BlockPool {
  public:
    /// What the blocks are made of.
    enum class Source { heap, slabs };

    /// For blocks of `blockSize` bytes, at most a slab's; nothing is taken from the system yet.
    /// While it holds memory, the bytes are added to `counter`, if there is one.
    explicit BlockPool(std::size_t blockSize, Source blockSource = Source::slabs,
                       std::int64_t* counter = nullptr)
        : size(blockSize), source(blockSource), heldBytes(counter) {}
    BlockPool(BlockPool const&) = delete;
    BlockPool& operator=(BlockPool const&) = delete;
    /// All blocks must have been given back.
    ~BlockPool() { release(); }

    /// Whether sequences give blocks back as soon as they can: slabs are made for it. Small
    /// sequences keep theirs for what comes next.
    bool isRecycled() const { return source == Source::slabs; }

    /// Bytes of a block.
    std::size_t blockBytes() const { return size; }

    /// A block with any content, aligned as `new` does; null when there is no memory.
    void* take();

    /// Gives back what `take` returned.
    void giveBack(void* block);

    /// Returns all memory to the system. All blocks must have been given back.
    void release();

  private:
    /// Lies in a block that nobody uses.
    struct FreeBlock {
        FreeBlock* next;
    };
    struct Slab {
        Slab* next;
        void* memory;
    };

    void* newBlock();
    bool addSlab();
    void count(std::size_t bytes, int sign);

    std::size_t size;
    Source source;
    std::int64_t* heldBytes;
    FreeBlock* freeBlocks = nullptr; ///< the one given back last is taken first
    Slab* slabs = nullptr;
    std::byte* unused = nullptr; ///< what is left of the newest slab
    std::size_t unusedBytes = 0;
    std::ptrdiff_t blocksInUse = 0;
    FastCriticalSection lock;
};

} // namespace Kelpa
