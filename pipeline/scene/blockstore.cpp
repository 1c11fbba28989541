// Builds, keeps, writes and loads the trees of blocks.
#include "pipeline/scene/blockstore.h"

#include "pipeline/files/errors.h"

#include <algorithm>
#include <utility>

namespace pipeline {

namespace {

/// For builds that nobody stops.
class Undisturbed final : public Kelpa::ProgressCallback {
  public:
    std::int32_t getAbort() override { return 0; }
    void info(int, int, char const*, ...) override {}
};

} // namespace

BlockStore::BlockStore(std::vector<System> const& all, TreeOptions const& treeOptions)
    : blocks(all), options(treeOptions), bound(treeOptions.keep.memory), files(all, treeOptions),
      factsByBlock(all.size()), entries(all.size()) {
    counted.blocks = static_cast<std::int64_t>(all.size());
}

/// A tree over a block that is to be built or read.
BlockStore::Pin BlockStore::emptyTree(std::size_t block) const {
    System inBlock = blocks[block];
    inBlock.base = 0;
    return makeGeometry({inBlock});
}

BlockStore::Pin BlockStore::built(std::size_t block, Kelpa::ProgressCallback& report) {
    Pin tree = emptyTree(block);
    tree->build({report}, options);
    tree->makeCompact();
    Lock const lock(mutex);
    ++counted.built;
    mostBytes = std::max(mostBytes, heldBytes + tree->statistics().peakBytes);
    return tree;
}

void BlockStore::fill(std::size_t block, Kelpa::ProgressCallback& report) {
    if (files.isCache() && takeFromCache(block))
        return;
    Pin tree = built(block, report);
    if (!tree->isWhole() && (isBounded() || files.isCache()))
        return; // a part would pass for the whole later
    factsByBlock[block] = BlockFacts::of(*tree);
    if (files.isCache())
        writeUnlessInVain(block, *tree);
    put(block, std::move(tree));
}

/// Whether the cache has the tree; one that may be needed later only is not read.
bool BlockStore::takeFromCache(std::size_t block) {
    Pin tree = isBounded() ? nullptr : emptyTree(block);
    BlockFiles::Found const found = tree != nullptr ? files.read(block, *tree) : files.look(block);
    if (found.state != BlockFiles::Found::State::whole) {
        if (found.state == BlockFiles::Found::State::unusable)
            note(block, found.why);
        return false;
    }
    factsByBlock[block] = found.facts;
    if (tree != nullptr) {
        countLoaded(found.bytes);
        put(block, std::move(tree));
    }
    Lock const lock(mutex);
    ++counted.found;
    entries[block].isFiled = true;
    entries[block].bytes = found.facts.statistics.totalBytes;
    return true;
}

/// Writes a tree to the cache. One that takes nothing is noted, and left alone from then on.
void BlockStore::writeUnlessInVain(std::size_t block, TreeGeometry& tree) {
    {
        Lock const lock(mutex);
        if (isWritingInVain)
            return;
    }
    try {
        write(block, tree);
    } catch (OutputError const& error) {
        Lock const lock(mutex);
        if (!std::exchange(isWritingInVain, true))
            faults[error.what()] = {block, 0};
    }
}

void BlockStore::write(std::size_t block, TreeGeometry& tree) {
    std::uint64_t const bytes = files.write(block, tree, factsByBlock[block]);
    Lock const lock(mutex);
    ++counted.written;
    counted.writtenBytes += bytes;
    entries[block].isFiled = true;
}

void BlockStore::put(std::size_t block, Pin tree) {
    Lock lock(mutex);
    Entry& entry = entries[block];
    entry.bytes = factsByBlock[block].statistics.totalBytes;
    makeRoom(lock, entry.bytes);
    heldBytes += entry.bytes;
    mostBytes = std::max(mostBytes, heldBytes);
    entry.tree = std::move(tree);
    entry.lastUse = ++uses;
}

/// Lets trees leave until so many bytes more fit, or all that are left are pinned.
void BlockStore::makeRoom(Lock& lock, std::uint64_t bytes) {
    while (isBounded() && heldBytes + bytes > *bound) {
        auto const block = leastUsed();
        if (!block)
            return;
        leave(lock, *block);
    }
}

/// The tree that nobody pins whose last use lies back furthest.
std::optional<std::size_t> BlockStore::leastUsed() const {
    std::optional<std::size_t> least;
    for (std::size_t block = 0; block < entries.size(); ++block) {
        Entry const& entry = entries[block];
        // Pins are made under the lock, from this one.
        bool const isFree = entry.tree != nullptr && entry.tree.use_count() == 1;
        if (isFree && (!least || entry.lastUse < entries[*least].lastUse))
            least = block;
    }
    return least;
}

/// Lets a tree leave, or writes it, so that it may.
void BlockStore::leave(Lock& lock, std::size_t block) {
    Entry& entry = entries[block];
    Pin leaving = entry.tree;
    if (entry.isFiled) {
        entry.tree = nullptr;
        heldBytes -= entry.bytes;
        lock.unlock(); // giving back memory takes its time
        leaving = nullptr;
    } else {
        lock.unlock();
        write(block, *leaving);
        leaving = nullptr;
    }
    lock.lock();
}

bool BlockStore::has(std::int32_t block) const {
    return factsByBlock[static_cast<std::size_t>(block)].hasTree;
}

bool BlockStore::isHeld(std::int32_t block) const {
    Lock const lock(mutex);
    return entries[static_cast<std::size_t>(block)].tree != nullptr;
}

BlockStore::Pin BlockStore::pin(std::int32_t number) {
    auto const block = static_cast<std::size_t>(number);
    Entry& entry = entries[block];
    Lock lock(mutex);
    came.wait(lock, [&entry] { return !entry.isComing; });
    entry.lastUse = ++uses;
    if (entry.tree != nullptr)
        return entry.tree;
    entry.isComing = true;
    std::uint64_t reserved = 0;
    Pin tree;
    try {
        makeRoom(lock, entry.bytes);
        reserved = entry.bytes;
        heldBytes += reserved;
        mostBytes = std::max(mostBytes, heldBytes);
        lock.unlock();
        tree = load(block);
        lock.lock();
    } catch (...) {
        if (!lock.owns_lock())
            lock.lock();
        heldBytes -= reserved;
        entry.isComing = false;
        came.notify_all();
        throw;
    }
    entry.tree = tree;
    entry.isComing = false;
    came.notify_all();
    return tree;
}

/// Reads a tree that has left, or builds it anew.
BlockStore::Pin BlockStore::load(std::size_t block) {
    Pin tree = emptyTree(block);
    BlockFiles::Found const found = files.read(block, *tree);
    if (found.state == BlockFiles::Found::State::whole) {
        countLoaded(found.bytes);
        return tree;
    }
    note(block, found.state == BlockFiles::Found::State::absent ? "is gone" : found.why);
    tree = nullptr; // before another takes as much
    Undisturbed report;
    tree = built(block, report);
    {
        Lock const lock(mutex);
        entries[block].isFiled = false;
    }
    if (files.isCache())
        writeUnlessInVain(block, *tree);
    return tree;
}

void BlockStore::countLoaded(std::uint64_t bytes) {
    Lock const lock(mutex);
    ++counted.loaded;
    counted.loadedBytes += bytes;
}

StoreFigures BlockStore::figures() const {
    Lock const lock(mutex);
    StoreFigures all = counted;
    all.held = std::count_if(entries.begin(), entries.end(),
                             [](Entry const& entry) { return entry.tree != nullptr; });
    all.heldBytes = heldBytes;
    return all;
}

std::uint64_t BlockStore::peakBytes() const {
    Lock const lock(mutex);
    return mostBytes;
}

void BlockStore::note(std::size_t block, std::string const& fault) {
    Lock const lock(mutex);
    auto const [at, isNew] = faults.try_emplace(fault, Fault{block, 0});
    at->second.firstBlock = std::min(at->second.firstBlock, block);
    ++at->second.count;
}

std::vector<std::string> BlockStore::takeNotes() {
    Lock const lock(mutex);
    std::vector<std::string> notes;
    for (auto const& [fault, met] : faults) {
        if (met.count == 0) { // it names the file
            notes.push_back(fault + "; the trees are built and not kept there");
            continue;
        }
        std::string& note = notes.emplace_back(files.nameOf(met.firstBlock));
        note.append(" ").append(fault);
        if (met.count > 1)
            note.append(", and so are ")
                .append(std::to_string(met.count - 1))
                .append(" other files beside it");
        note.append("; built anew");
    }
    faults.clear();
    return notes;
}

} // namespace pipeline
