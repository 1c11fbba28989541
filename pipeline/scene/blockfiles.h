// Where the trees of blocks lie that are not in memory.
#pragma once

#include "pipeline/scene/blockfigures.h"
#include "pipeline/scene/geometry.h"

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace pipeline {

/// The files of a scene's blocks: those of a cache, or, without one, parts of a single file that
/// has no name, so that nothing of it stays however the process ends.
///
/// In a cache each block has a file of its own, "block-000012.kelpa", which appears when it is
/// whole. It tells by a fingerprint which particles and options it is of, and by checksums whether
/// it is what was written. Everything may be called from any number of threads, for different
/// blocks.
class BlockFiles {
  public:
    /// For `blocks`, which must outlive this as their particles do. Makes the cache's folder unless
    /// it is there; without a name there is no cache. Throws `OutputError` naming it when it cannot
    /// be had.
    BlockFiles(std::vector<System> const& blocks, TreeOptions const& treeOptions);
    BlockFiles(BlockFiles const&) = delete;
    BlockFiles& operator=(BlockFiles const&) = delete;
    ~BlockFiles();

    bool isCache() const { return !folder.empty(); }

    /// Writes a tree's file, in place of one that is there; returns its bytes. Throws `OutputError`
    /// naming the file, and what making the tree compact throws.
    std::uint64_t write(std::size_t block, TreeGeometry& tree, BlockFacts const& facts);

    /// What a file was found to be.
    struct Found {
        enum class State { whole, absent, unusable };
        State state = State::absent;
        std::string why{};       ///< it is unusable
        std::uint64_t bytes = 0; ///< of a whole file
        BlockFacts facts{};      ///< of its tree
    };

    /// Looks at the beginning of a block's file, which tells all but whether its tree is whole.
    Found look(std::size_t block) const;

    /// Reads a block's file into a tree over that block, which is of no use unless the file is
    /// whole. Throws `Kelpa::ExceptionMsg` when memory runs out.
    Found read(std::size_t block, TreeGeometry& tree) const;

    /// As messages call it.
    std::string nameOf(std::size_t block) const;

  private:
    struct Part {
        std::uint64_t begin = 0;
        std::uint64_t bytes = 0; ///< 0: not written
    };

    std::uint64_t fingerprintOf(std::size_t block) const;
    Found readFrom(int file, std::uint64_t begin, std::uint64_t bytes, std::size_t block,
                   TreeGeometry* tree) const;
    Found open(std::size_t block, TreeGeometry* tree) const;
    void openNameless();

    std::vector<System> const& blocks;
    TreeOptions const options;
    std::string const folder; ///< of the cache
    mutable std::mutex mutex; ///< of the following
    int nameless = -1;        ///< the file without a name; -1: not made yet
    std::string namelessPlace;
    std::vector<Part> parts; ///< of it, by block
    std::uint64_t end = 0;   ///< of it
};

} // namespace pipeline
