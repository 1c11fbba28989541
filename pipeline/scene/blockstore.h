// The trees of blocks, as many as memory may hold; the others lie in files.
#pragma once

#include "pipeline/scene/blockfiles.h"
#include "pipeline/scene/geometry.h"

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace pipeline {

/// Holds the trees of blocks up to a bound of bytes, and keeps the rest in files.
///
/// A tree is built once, by `fill`. Where there is a bound and all trees together are larger, those
/// that were used least lately leave memory: each is written when it leaves for the first time, and
/// read again when it is asked for. A file that is damaged, foreign or gone by then is noted and
/// its tree built anew, so whoever asks gets the tree that was built, or an exception.
class BlockStore {
  public:
    /// A tree that stays where it is for as long as this is held; null pins nothing. May be copied,
    /// and given up on another thread. Outlives the store.
    using Pin = std::shared_ptr<TreeGeometry>;

    /// For trees over `blocks`, which must outlive the store as their particles do. Throws
    /// `OutputError` for a cache that is none.
    BlockStore(std::vector<System> const& blocks, TreeOptions const& options);
    BlockStore(BlockStore const&) = delete;
    BlockStore& operator=(BlockStore const&) = delete;

    /// Whether trees come and go. If not, pins of one block all give the same tree, which stays for
    /// as long as the store: it may be asked without.
    bool isBounded() const { return bound.has_value(); }
    /// Whether there are files, or can be.
    bool isKeeping() const { return isBounded() || files.isCache(); }

    /// Makes the tree of a block, each once before it is pinned: reads it from the cache, or finds
    /// it there to be read later, or builds it. A build that `report` stops leaves no tree in a
    /// store that is bounded or has a cache. From any number of threads, for different blocks.
    /// Throws `OutputError` when files that are needed cannot be written, what the build throws,
    /// and `std::bad_alloc`; the block has no tree then.
    void fill(std::size_t block, Kelpa::ProgressCallback& report);

    /// Whether the block has a tree, in memory or not.
    bool has(std::int32_t block) const;

    /// The tree of a block that `has` one, loaded if need be, from any number of threads at a time.
    ///
    /// - It answers as the tree that was built does, bit for bit, particles counted from 0 within
    ///   the block (add `System::base`, and take it from `skipIndex`). What hits call their
    ///   primitive is good for as long as the pin.
    /// - While a pin of a block exists its tree is in memory and any further pin of that block
    ///   costs a lock and no more.
    /// - Room is made before a tree is loaded: of trees that nobody pins those go first whose last
    ///   `pin` lies back furthest. What is pinned stays. So trees take at most the bound, or what
    ///   is pinned and the one that comes if that is more: whoever pins one block at a time, on
    ///   each of n threads, exceeds the bound by no more than n trees, and a block larger than the
    ///   bound is there alone.
    /// - It never waits for a pin to be given up, so a thread may hold several. It waits while
    ///   another thread loads the same block; loads of different blocks go on at the same time.
    /// - Throws `OutputError` when a tree that has to leave cannot be written,
    ///   `Kelpa::ExceptionMsg` or `std::bad_alloc` when memory runs out. Nothing is held then, and
    ///   it may be asked again.
    Pin pin(std::int32_t block);

    /// Whether `pin` would find the tree in memory now: what to ask first when the order is free.
    bool isHeld(std::int32_t block) const;

    /// What the trees tell of themselves, by block. Not to be asked while blocks are filled.
    std::vector<BlockFacts> const& facts() const { return factsByBlock; }

    StoreFigures figures() const;
    /// The most that trees and their builds held at a time.
    std::uint64_t peakBytes() const;

    /// What the user should know since it was last asked: files that were made anew, and why.
    std::vector<std::string> takeNotes();

  private:
    struct Entry {
        Pin tree;                  ///< null: not in memory
        std::uint64_t bytes = 0;   ///< that it takes there
        std::uint64_t lastUse = 0; ///< rises with every pin
        bool isComing = false;     ///< some thread loads it
        bool isFiled = false;      ///< a file holds it
    };
    struct Fault {
        std::size_t firstBlock = 0; ///< that was met with it
        std::int64_t count = 0;
    };
    using Lock = std::unique_lock<std::mutex>;

    Pin emptyTree(std::size_t block) const;
    Pin built(std::size_t block, Kelpa::ProgressCallback& report);
    bool takeFromCache(std::size_t block);
    void writeUnlessInVain(std::size_t block, TreeGeometry& tree);
    void put(std::size_t block, Pin tree);
    void makeRoom(Lock& lock, std::uint64_t bytes);
    std::optional<std::size_t> leastUsed() const;
    void leave(Lock& lock, std::size_t block);
    void write(std::size_t block, TreeGeometry& tree);
    Pin load(std::size_t block);
    void countLoaded(std::uint64_t bytes);
    void note(std::size_t block, std::string const& fault);

    std::vector<System> const& blocks;
    TreeOptions const options;
    std::optional<std::uint64_t> const bound;
    BlockFiles files;
    std::vector<BlockFacts> factsByBlock;
    mutable std::mutex mutex;     ///< of all that follows
    std::condition_variable came; ///< a tree that was coming, or it will not
    std::vector<Entry> entries;   ///< by block
    std::uint64_t heldBytes = 0;  ///< of trees in memory, and of those that come
    std::uint64_t mostBytes = 0;  ///< see `peakBytes`
    std::uint64_t uses = 0;
    bool isWritingInVain = false; ///< the cache takes nothing
    StoreFigures counted;         ///< but for what is held
    std::map<std::string, Fault> faults;
};

} // namespace pipeline
