// Sequences that grow by blocks, so that elements stay where they are.
#pragma once

#include "kelpa/foundation/defaultallocator.h"
#include "kelpa/foundation/exceptionmsg.h"
#include "kelpa/foundation/lock.h"
#include "kelpa/foundation/optionalarray.h"
#include "kelpa/foundation/sharedcounters.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <span>

namespace Kelpa {

// `_SequenceBlock` and `_Sequence` keep the names that hosts know them by, although the language
// reserves identifiers of this form.

/// One block of a sequence: a run of slots that never moves.
template <class T, bool flag, class Alloc> struct _SequenceBlock {
    /// Makes a block with room for `slots` elements, linked to nothing; throws `ExceptionMsg` when
    /// memory runs out.
    explicit _SequenceBlock(int slots, Alloc const& allocator = {})
        : next(nullptr), prev(nullptr), count(0), capacity(slots),
          elements(allocator.newElements(slots)) {
        if (elements == nullptr)
            throwOutOfMemory();
    }
    /// Makes a full block of elements that exist.
    _SequenceBlock(T* run, std::int32_t n)
        : next(nullptr), prev(nullptr), count(n), capacity(n), elements(run) {}
    _SequenceBlock(_SequenceBlock const&) = delete;
    _SequenceBlock& operator=(_SequenceBlock const&) = delete;

    /// Whether `n` more elements fit behind those handed out.
    bool hasRoomFor(std::int32_t n) const { return n <= capacity - count; }

    _SequenceBlock* next;  ///< null in the last block
    _SequenceBlock* prev;  ///< null in the first block
    std::int32_t count;    ///< elements handed out
    std::int32_t capacity; ///< slots in `elements`
    T* elements;           ///< `capacity` slots; owned by the sequence
};

/// Takes the lock of a locked sequence and does nothing for an unlocked one.
template <bool locked> class SequenceLock {
  public:
    /// Takes the lock until the end of the scope. It is held for a few steps only, but by threads
    /// that append all the time: falling asleep would cost more than waiting awake.
    explicit SequenceLock(FastCriticalSection& section) : scope(section, LockScope::awake) {}

  private:
    LockScope scope;
};
/// The form that takes no lock.
template <> class SequenceLock<false> {
  public:
    /// Takes nothing.
    explicit SequenceLock(FastCriticalSection&) {}
};

/// Elements in a chain of blocks: appended at the end, never moved, released as a whole.
///
/// The address of an element stays valid until `freeData` or destruction. In the locked form,
/// `newElement`, `newElements`, `freeData` and the counters may be used by several threads at once;
/// everything else, and the unlocked form altogether, belongs to one thread at a time.
/// When memory runs out, appending throws `ExceptionMsg`, holds no lock, and leaves the sequence as
/// it was. So it does when the sequence would hold more than 2^31 - 1 elements.
template <class T, int BlockSize, bool flag, bool locked, class Alloc = DefaultAllocator<T>>
class _Sequence {
  public:
    using Element = T;
    /// What the chain is made of.
    using Block = _SequenceBlock<T, flag, Alloc>;
    /// Bytes of the elements of an ordinary block.
    static constexpr std::size_t blockBytes = sizeof(T) * static_cast<std::size_t>(BlockSize);

    /// An empty sequence; no memory is taken.
    _Sequence() = default;
    _Sequence(_Sequence const&) = delete;
    _Sequence& operator=(_Sequence const&) = delete;
    ~_Sequence() { freeData(); }

    /// Appends one slot and returns it; it holds whatever its block's making left there.
    T* newElement() { return newElements(1); }

    /// Appends `n` slots that lie consecutively in one block and returns the first; `n` is at
    /// least 1. Room that a longer run leaves at the end of a block is not used again.
    T* newElements(int n) {
        SequenceLock<locked> const scope(lock);
        if (n > std::numeric_limits<std::int32_t>::max() - count)
            throwOutOfMemory();
        Block* const block = blockWithRoomFor(n);
        T* const run = block->elements + block->count;
        block->count += n;
        writeShared(count, count + n);
        return run;
    }

    /// Where the next elements will be appended, at least one, in one block.
    std::span<T> freeSlots() {
        SequenceLock<locked> const scope(lock);
        std::int32_t const most = std::numeric_limits<std::int32_t>::max() - count;
        if (most == 0)
            throwOutOfMemory();
        Block* const block = blockWithRoomFor(1);
        std::int32_t const room = block->capacity - block->count;
        return {block->elements + block->count,
                static_cast<std::size_t>(room < most ? room : most)};
    }

    /// Appends the first `n` of the `freeSlots`, which hold what was written there.
    void useSlots(std::int32_t n) {
        SequenceLock<locked> const scope(lock);
        current->count += n;
        writeShared(count, count + n);
    }

    /// Counts `n` elements no more, which stay in their block, wherever that is: slots that were
    /// appended and that nobody uses.
    void uncount(std::int32_t n) {
        SequenceLock<locked> const scope(lock);
        writeShared(count, count - n);
    }

    /// Sets the iteration to the first element.
    void rewind() {
        iterBlock = first;
        iterIndex = 0;
    }

    /// The next element in the order of appending, or null at the end; it may be overwritten.
    T* nextElement() {
        if (iterBlock == nullptr)
            return nullptr;
        if (iterIndex >= iterBlock->count) {
            do
                iterBlock = iterBlock->next;
            while (iterBlock != nullptr && iterBlock->count < 1);
            if (iterBlock == nullptr)
                return nullptr;
            iterIndex = 0;
        }
        return iterBlock->elements + iterIndex++;
    }

    /// Removes the last element and returns its slot, readable until the slot is appended again;
    /// null when there is none.
    T* removeLast() {
        std::span<T> const last = lastInBlock();
        if (last.empty())
            return nullptr;
        removeLast(1);
        return &last.back();
    }

    /// The elements that lie in one block with the last element; none when there is none.
    std::span<T> lastInBlock() {
        if (count == 0)
            return {};
        // Appending fills each block before it moves on, so one step back finds an element.
        if (current->count == 0)
            current = current->prev;
        return {current->elements, static_cast<std::size_t>(current->count)};
    }

    /// Removes the last `n` elements, all from `lastInBlock`; their slots are readable until they
    /// are appended again.
    void removeLast(std::int32_t n) {
        current->count -= n;
        count -= n;
    }

    /// Removes a block's elements and releases it; neither an iteration nor the last element may be
    /// in it.
    void releaseBlock(Block* block) {
        (block->prev != nullptr ? block->prev->next : first) = block->next;
        if (block->next != nullptr)
            block->next->prev = block->prev;
        count -= block->count;
        memUsage -= bytesOf(*block);
        destroy(block);
    }

    /// Removes a block's elements, and releases it if others are to have its memory: see
    /// `releaseBlock`.
    void retireBlock(Block* block) {
        if (allocator.pool != nullptr && allocator.pool->isRecycled())
            return releaseBlock(block);
        count -= block->count;
        block->count = 0;
    }

    /// Releases the empty blocks behind the one that receives the next append, except the first: an
    /// end that moves to and fro between two blocks would need it again and again.
    void releaseSpareBlocks() {
        while (current != nullptr && current->next != nullptr && current->next->next != nullptr)
            releaseBlock(current->next->next);
    }

    /// Leaves of one block the first `kept` elements, and nothing of what follows it.
    void cutBehind(Block* block, std::int32_t kept) {
        for (Block* next = block->next; next != nullptr;) {
            Block* const behind = next;
            next = next->next;
            retireBlock(behind);
        }
        current = block;
        count -= block->count - kept;
        block->count = kept;
    }

    /// Takes over `n` elements, at least 1, as all that it holds until `freeData`; for sequences
    /// without blocks and without a pool.
    void adopt(OptionalArray<T> run, std::int32_t n) {
        SequenceLock<locked> const scope(lock);
        void* const record = Alloc::newBlockRecord(sizeof(Block));
        if (record == nullptr)
            throwOutOfMemory();
        first = current = new (record) Block(run.release(), n);
        allocator.isAdopted = true;
        memUsage = bytesOf(*first);
        writeShared(count, n);
    }

    /// Empties the sequence and keeps its blocks, so that appending starts over in them.
    void clear() {
        for (Block* block = first; block != nullptr; block = block->next)
            block->count = 0;
        current = first;
        rewind();
        count = 0;
    }

    /// Empties the sequence and releases its blocks.
    void freeData() {
        SequenceLock<locked> const scope(lock);
        while (first != nullptr) {
            Block* const block = first;
            first = block->next;
            destroy(block);
        }
        allocator.isAdopted = false;
        current = nullptr;
        iterBlock = nullptr;
        iterIndex = 0;
        count = 0;
        memUsage = 0;
    }

    /// Elements appended and not removed.
    std::int32_t getCount() const {
        SequenceLock<locked> const scope(lock);
        return count;
    }

    /// As `getCount`, without the lock: while others append, how many there were a moment ago.
    std::int32_t recentCount() const { return readShared(count); }

    /// Bytes held by the blocks: their element storage and their records.
    std::uint64_t getMemUsage() const {
        SequenceLock<locked> const scope(lock);
        return memUsage;
    }

    Block* first = nullptr;     ///< owned, with all that follow; null before the first append
    Block* current = nullptr;   ///< receives the next append
    Block* iterBlock = nullptr; ///< where `nextElement` reads ...
    std::int32_t iterIndex = 0; ///< ... and its next index there
    std::int32_t count = 0;     ///< elements appended since the last `clear` or `freeData`
    std::int32_t blockSize = BlockSize; ///< slots of a block, unless a run needs more
    std::uint64_t memUsage = 0;         ///< bytes, as `getMemUsage` tells
    mutable FastCriticalSection lock;   ///< taken by the locked form only
    Alloc allocator;                    ///< see there

  private:
    // Blocks passed over on the way are not revisited. The search ends on the last block of the
    // chain at the latest, so a failed allocation leaves `current` on a block.
    Block* blockWithRoomFor(std::int32_t n) {
        while (current != nullptr && !current->hasRoomFor(n)) {
            if (current->next == nullptr)
                return current = appendBlock(n);
            current = current->next;
        }
        return current != nullptr ? current : current = appendBlock(n);
    }

    Block* appendBlock(std::int32_t n) {
        std::int32_t const slots = n > blockSize ? n : blockSize;
        void* const record = Alloc::newBlockRecord(sizeof(Block));
        if (record == nullptr)
            throwOutOfMemory();
        Block* block = nullptr;
        try {
            block = new (record) Block(slots, allocator);
        } catch (...) {
            Alloc::freeBlockRecord(record);
            throw;
        }
        block->prev = current;
        (current != nullptr ? current->next : first) = block;
        memUsage += bytesOf(*block);
        return block;
    }

    static std::uint64_t bytesOf(Block const& block) {
        return static_cast<std::uint64_t>(block.capacity) * sizeof(T) + sizeof(Block);
    }

    void destroy(Block* block) {
        allocator.freeElements(block->elements, block->capacity);
        block->~Block();
        Alloc::freeBlockRecord(block);
    }
};

/// The form that several threads may append to at once.
template <class T, int BlockSize, bool flag = false, class Alloc = DefaultAllocator<T>>
class Sequence : public _Sequence<T, BlockSize, flag, true, Alloc> {
  public:
    ~Sequence() { this->freeData(); }
};

/// The form that belongs to a single thread at a time.
template <class T, int BlockSize, bool flag = false, class Alloc = DefaultAllocator<T>>
class SequenceST : public _Sequence<T, BlockSize, flag, false, Alloc> {
  public:
    ~SequenceST() { this->freeData(); }
};

/// Walks a sequence's elements from the first, apart from the sequence's own iteration.
///
/// Elements may be overwritten, appended and removed behind the cursor's back as long as those it
/// has yet to reach stay.
template <class SequenceType> class SequenceCursor {
  public:
    /// Starts before the first element; `sequence` must outlive the cursor.
    explicit SequenceCursor(SequenceType const& sequence)
        : block(sequence.first), at(block != nullptr ? block->elements : nullptr) {}

    /// The next elements, as many as lie in one block; none at the end of the sequence.
    auto rest() {
        while (block != nullptr && at == block->elements + block->count) {
            block = block->next;
            at = block != nullptr ? block->elements : nullptr;
        }
        std::size_t const left =
            block != nullptr ? static_cast<std::size_t>(block->elements + block->count - at) : 0;
        return std::span(at, left);
    }

    /// Passes over as many elements, all from one `rest`.
    void skip(std::size_t elements) { at += elements; }

    /// The block that the next elements lie in, or the one that they ended in; null at the end.
    auto* currentBlock() const { return block; }
    /// How many elements of that block lie behind the cursor.
    std::int32_t passedInBlock() const { return static_cast<std::int32_t>(at - block->elements); }

  private:
    typename SequenceType::Block* block;
    decltype(block->elements) at;
};

} // namespace Kelpa
