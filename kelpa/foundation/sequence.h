#pragma once

#include "kelpa/foundation/exceptionmsg.h"
#include "kelpa/foundation/lock.h"
#include "kelpa/foundation/sharedcounters.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <span>

namespace Kelpa {

/// Where sequences get their memory: array `new` for elements, `new` for block records.
///
/// Both answer null when there is no memory. An element type with a default constructor is
/// constructed in every slot; one without is left uninitialised.
template <class T> struct DefaultAllocator {
    /// Memory for `count` elements, at least 1; null when there is none.
    static T* newElements(std::int32_t count) {
        return new (std::nothrow) T[static_cast<std::size_t>(count)];
    }
    /// Releases what `newElements` returned; null is allowed.
    static void freeElements(T* elements) { delete[] elements; }
    /// Uninitialised memory for a block's record; null when there is none.
    static void* newBlockRecord(std::size_t bytes) { return ::operator new(bytes, std::nothrow); }
    /// Releases what `newBlockRecord` returned.
    static void freeBlockRecord(void* record) { ::operator delete(record); }
};

// `_SequenceBlock` and `_Sequence` keep the names that hosts know them by, although the language
// reserves identifiers of this form.

/// One block of a sequence: a run of slots that never moves.
template <class T, bool flag, class Alloc> struct _SequenceBlock {
    /// Makes a block with room for `slots` elements, linked to nothing; throws `ExceptionMsg` when
    /// memory runs out.
    explicit _SequenceBlock(int slots)
        : next(nullptr), prev(nullptr), count(0), capacity(slots),
          elements(Alloc::newElements(slots)) {
        if (elements == nullptr)
            throwOutOfMemory();
    }
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
    /// What the chain is made of.
    using Block = _SequenceBlock<T, flag, Alloc>;

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
            Alloc::freeElements(block->elements);
            block->~Block();
            Alloc::freeBlockRecord(block);
        }
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
            block = new (record) Block(slots);
        } catch (...) {
            Alloc::freeBlockRecord(record);
            throw;
        }
        block->prev = current;
        (current != nullptr ? current->next : first) = block;
        memUsage += static_cast<std::uint64_t>(slots) * sizeof(T) + sizeof(Block);
        return block;
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

  private:
    typename SequenceType::Block* block;
    decltype(block->elements) at;
};

} // namespace Kelpa
