// Packed bytes and their unpacking: gzip, and zstd, xz and bzip2 where the build found them.
#pragma once

#include <memory>
#include <span>
#include <string_view>

namespace pipeline {

/// Unpacks one stream after the other.
class Unpacking {
  public:
    virtual ~Unpacking() = default;

    /// Makes ready for a stream that begins.
    virtual void begin() = 0;
    /// Unpacks what it can from `in` to `out` and moves both on; true at the stream's end. Throws
    /// `std::runtime_error` when the data is damaged, without naming any file.
    virtual bool unpack(std::span<char const>& in, std::span<char>& out) = 0;
};

/// A way to pack bytes.
struct Packing {
    std::string_view name;                ///< for messages
    std::string_view suffix;              ///< that packed files end with
    std::string_view magic;               ///< what packed bytes start with; ? is any
    std::unique_ptr<Unpacking> (*make)(); ///< null: this build cannot unpack it
};

/// The packing that these first bytes tell of, or null. So many bytes tell it.
Packing const* packingOf(std::string_view head);
constexpr std::size_t longestPackingMagic = 10;

/// A path without the suffix of a packing.
std::string_view withoutPacking(std::string_view path);

} // namespace pipeline
