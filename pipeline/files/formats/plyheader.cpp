// A header read line by line, every word of it judged.
#include "pipeline/files/formats/plyheader.h"

#include "pipeline/files/textvalues.h"

#include <string_view>

namespace pipeline {

namespace {

ScalarType scalarType(InputFile const& file, std::string_view name) {
    struct Name {
        std::string_view text;
        ScalarType type;
    };
    static constexpr Name names[] = {
        {"char", ScalarType::int8},      {"int8", ScalarType::int8},
        {"uchar", ScalarType::uint8},    {"uint8", ScalarType::uint8},
        {"short", ScalarType::int16},    {"int16", ScalarType::int16},
        {"ushort", ScalarType::uint16},  {"uint16", ScalarType::uint16},
        {"int", ScalarType::int32},      {"int32", ScalarType::int32},
        {"uint", ScalarType::uint32},    {"uint32", ScalarType::uint32},
        {"long", ScalarType::int64},     {"int64", ScalarType::int64},
        {"ulong", ScalarType::uint64},   {"uint64", ScalarType::uint64},
        {"float", ScalarType::float32},  {"float32", ScalarType::float32},
        {"double", ScalarType::float64}, {"float64", ScalarType::float64},
    };
    for (Name const& known : names)
        if (known.text == name)
            return known.type;
    file.failHere("no PLY type {}", quoted(name));
}

PlyEncoding encodingOf(InputFile const& file, std::string_view name) {
    if (name == "ascii")
        return PlyEncoding::ascii;
    if (name == "binary_little_endian")
        return PlyEncoding::littleEndian;
    if (name == "binary_big_endian")
        return PlyEncoding::bigEndian;
    file.failHere("no PLY format {}; it is ascii, binary_little_endian or binary_big_endian",
                  quoted(name));
}

PlyElement parseElement(InputFile const& file, std::string_view line) {
    PlyElement element;
    element.name = nextWord(line);
    std::string_view const count = nextWord(line);
    if (element.name.empty() || !parseNumber(count, element.count))
        file.failHere("{} where the number of elements {} belongs", quoted(count),
                      quoted(element.name));
    return element;
}

PlyProperty parseProperty(InputFile const& file, std::string_view line) {
    PlyProperty property;
    std::string_view type = nextWord(line);
    if (type == "list") {
        property.listLength = scalarType(file, nextWord(line));
        if (isFloating(*property.listLength))
            file.failHere("a list cannot be counted in floating-point numbers");
        type = nextWord(line);
    }
    property.type = scalarType(file, type);
    property.typeName = type;
    property.name = nextWord(line);
    if (property.name.empty())
        file.failHere("a property without a name");
    return property;
}

/// Takes a comment that may tell names; whoever writes others than distinct ones means none.
void takeComment(std::string_view line, PlyHeader& header) {
    std::string_view const mark = nextWord(line);
    std::string_view const column = nextWord(line);
    if (mark != plyNamesMark || column.empty())
        return;
    std::shared_ptr<NameTable>& names = header.names[std::string(column)];
    if (names == nullptr)
        names = std::make_shared<NameTable>();
    for (std::string_view name = nextWord(line); !name.empty(); name = nextWord(line))
        names->numberOf(name);
}

} // namespace

PlyHeader readPlyHeader(InputFile& file) {
    constexpr std::size_t mostProperties = 1000;
    PlyHeader header;
    bool knowsEncoding = false;
    std::size_t propertyCount = 0;
    if (file.nextLine() != "ply")
        file.failHere("a PLY file starts with a line that says ply");
    while (std::optional<std::string_view> line = file.nextLine()) {
        std::string_view const keyword = nextWord(*line);
        if (keyword == "end_header") {
            if (!knowsEncoding)
                file.fail("the header names no format");
            return header;
        }
        if (keyword == "format") {
            header.encoding = encodingOf(file, nextWord(*line));
            knowsEncoding = true;
        } else if (keyword == "element") {
            header.elements.push_back(parseElement(file, *line));
        } else if (keyword == "property") {
            if (header.elements.empty())
                file.failHere("a property before the first element");
            if (++propertyCount > mostProperties)
                file.failHere("more than {} properties", mostProperties);
            header.elements.back().properties.push_back(parseProperty(file, *line));
        } else if (keyword == "comment") {
            takeComment(*line, header);
        } else if (keyword != "obj_info" && !keyword.empty()) {
            file.failHere("{} in the header; format, element, property, comment or end_header "
                          "belong there",
                          quoted(keyword));
        }
    }
    file.fail("the header does not end: no line says end_header");
}

} // namespace pipeline
