// What a block's file begins with, and how its bytes are checked.
#pragma once

#include "pipeline/scene/blockfiles.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace pipeline {

/// Bytes become one number, by which damage is told: all of XXH3 (Y. Collet), 64 bits.
class Checksum {
  public:
    Checksum();
    ~Checksum();
    Checksum(Checksum const&) = delete;
    Checksum& operator=(Checksum const&) = delete;

    void add(std::span<std::byte const> bytes);
    template <class Number> void addNumber(Number const& number) {
        static_assert(std::is_arithmetic_v<Number>);
        add(std::as_bytes(std::span(&number, 1)));
    }
    std::uint64_t result() const;

  private:
    struct State;
    std::unique_ptr<State> state;
};

/// The beginning of a block's file; its tree's bytes follow, and their checksum. All members are
/// eight bytes, none between them, in the byte order of the machine that wrote it.
struct BlockHead {
    char magic[8];
    std::uint32_t byteOrder;
    std::uint32_t format;
    std::uint64_t fingerprint; ///< of the particles, the options and the program's version
    std::uint64_t treeBytes;
    std::int64_t flags; ///< which of the following are there
    std::int64_t counts[7];
    std::uint64_t bytes[4];
    std::int64_t leaves;
    double leafAverages[2];
    double boxes[3][6];     ///< in which the tree lies, its bounds, and how they move
    std::uint64_t checksum; ///< of all before

    static BlockHead of(BlockFacts const& facts, std::uint64_t fingerprint,
                        std::uint64_t treeBytes);

    BlockFacts facts() const;
    /// Why it is not the head of a file with that fingerprint and size; nothing if it is.
    std::optional<std::string> fault(std::uint64_t expected, std::uint64_t fileBytes) const;
};
static_assert(sizeof(BlockHead) == 8 * (5 + 7 + 4 + 1 + 2 + 18 + 1));

/// A number of a block's particles, of what its tree is built with, and of the program's version.
std::uint64_t fingerprintOf(System const& block, TreeOptions const& options);

} // namespace pipeline
