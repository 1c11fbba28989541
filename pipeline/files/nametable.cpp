// Numbers for the names of a column.
#include "pipeline/files/nametable.h"

#include <algorithm>

namespace pipeline {

std::uint32_t NameTable::numberOf(std::string_view name) {
    if (last < names.size() && names[last] == name)
        return last;
    if (std::optional<std::uint32_t> const known = find(name))
        return last = *known;
    last = static_cast<std::uint32_t>(std::min(names.size(), most));
    if (last == names.size())
        numbers.emplace(names.emplace_back(name), last);
    return last;
}

std::optional<std::uint32_t> NameTable::find(std::string_view name) const {
    auto const known = numbers.find(name);
    return known == numbers.end() ? std::nullopt : std::optional(known->second);
}

} // namespace pipeline
