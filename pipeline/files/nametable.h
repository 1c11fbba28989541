// The names that a column of text holds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace pipeline {

/// The different names of a column, numbered from 0 in the order in which they come, so that the
/// column itself is one of numbers.
class NameTable {
  public:
    /// All names that are more than this go by the number of the first of them: what has so many
    /// names is no category, and every number stays exact as a float.
    static constexpr std::size_t most = std::size_t{1} << 20;

    /// The number of a name, which gets the next one if it is new.
    std::uint32_t numberOf(std::string_view name);
    /// The number of a name that is there.
    std::optional<std::uint32_t> find(std::string_view name) const;
    std::vector<std::string> const& all() const { return names; }

  private:
    struct Hash : std::hash<std::string_view> {
        using is_transparent = void;
    };
    std::vector<std::string> names;
    std::unordered_map<std::string, std::uint32_t, Hash, std::equal_to<>> numbers;
    std::uint32_t last = 0; ///< rows of one name mostly stand together
};

} // namespace pipeline
