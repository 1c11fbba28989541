// What a PLY file says of itself before its rows.
#pragma once

#include "pipeline/files/inputfile.h"
#include "pipeline/files/nametable.h"
#include "pipeline/files/scalartype.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pipeline {

enum class PlyEncoding { ascii, littleEndian, bigEndian };

struct PlyProperty {
    std::string name;
    std::string typeName;
    ScalarType type;                      ///< of the value, or of a list's entries
    std::optional<ScalarType> listLength; ///< the type of a list's length; empty: one value
};

struct PlyElement {
    std::string name;
    std::uint64_t count = 0;
    std::vector<PlyProperty> properties;

    bool hasLists() const {
        return std::any_of(properties.begin(), properties.end(), [](PlyProperty const& property) {
            return property.listLength.has_value();
        });
    }
    /// Bytes of a binary row, its lists left out.
    std::size_t rowBytes() const {
        std::size_t bytes = 0;
        for (PlyProperty const& property : properties)
            bytes += property.listLength ? 0 : scalarBytes(property.type);
        return bytes;
    }
};

struct PlyHeader {
    PlyEncoding encoding = PlyEncoding::ascii;
    std::vector<PlyElement> elements;
    std::map<std::string, std::shared_ptr<NameTable>, std::less<>> names; ///< by column
};

/// What comments start with that tell the names of a column: then follow its own name and names,
/// and perhaps another such line.
constexpr std::string_view plyNamesMark = "kelpa-names";

/// Reads the header up to the line that ends it. Refuses what is none.
PlyHeader readPlyHeader(InputFile& file);

} // namespace pipeline
