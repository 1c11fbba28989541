// Reads classic BGEO (version 5).
#include "pipeline/files/columnuses.h"
#include "pipeline/files/formats/frames.h"
#include "pipeline/files/formats/readers.h"
#include "pipeline/files/inputfile.h"
#include "pipeline/files/textvalues.h"

#include <algorithm>
#include <bit>
#include <cstring>

// Classic BGEO, version 5, as particle tools write it: big-endian; counts, the attributes of points
// with their default values, and a row per point: a homogeneous position and the attributes, four
// bytes a number. Groups and primitives stand behind the points and are left alone.

namespace pipeline {

namespace {

constexpr std::size_t numberBytes = 4; // of every number but the lengths of names

struct Header {
    std::uint32_t points = 0;
    std::uint32_t attributes = 0;
};

struct RowLayout {
    std::vector<Column> columns;
    std::size_t rowBytes = 0;
};

constexpr VectorColumns positionNames[] = {
    {"position", {"position.x", "position.y", "position.z"}}};
constexpr VectorColumns colorNames[] = {{"Cd", {"Cd.x", "Cd.y", "Cd.z"}},
                                        {"color", {"color.x", "color.y", "color.z"}}};
constexpr VectorColumns velocityNames[] = {{"velocity", {"velocity.x", "velocity.y", "velocity.z"}},
                                           {"v", {"v.x", "v.y", "v.z"}}};
constexpr ColumnNames bgeoNames = {"attribute", positionNames, colorNames, velocityNames, {}};

/// What an attribute's numbers are, as the file numbers it.
enum AttributeType : std::uint32_t { floats = 0, integers = 1, indices = 4, vector = 5 };

// Numbers -------------------------------------------------------------------------------------

template <class Number> Number takeNumber(InputFile& file, std::string_view what) {
    std::string_view const bytes = file.peek(sizeof(Number));
    if (bytes.size() < sizeof(Number))
        file.fail("the file ends where {} belongs; it is incomplete", what);
    std::uint32_t number = 0;
    for (std::size_t i = 0; i < sizeof(Number); ++i)
        number = (number << 8) | static_cast<unsigned char>(bytes[i]);
    file.take(sizeof(Number));
    return static_cast<Number>(number);
}

void skipBytes(InputFile& file, std::uint64_t count, std::string_view what) {
    if (file.skip(count) < count)
        file.fail("the file ends inside {}; it is incomplete", what);
}

// The header ----------------------------------------------------------------------------------

Header readHeader(InputFile& file) {
    constexpr std::string_view magic = "BgeoV";
    if (file.peek(magic.size()).substr(0, magic.size()) != magic)
        file.fail("a classic BGEO file starts with {}", magic);
    file.take(magic.size());
    constexpr std::uint32_t readVersion = 5;
    if (auto const version = takeNumber<std::uint32_t>(file, "the version"); version != readVersion)
        file.fail("version {} of classic BGEO; only version {} is read. Export as that or as PLY",
                  version, readVersion);
    Header header;
    header.points = takeNumber<std::uint32_t>(file, "the number of points");
    skipBytes(file, 3 * numberBytes, "the header"); // primitives, groups of points, of primitives
    header.attributes = takeNumber<std::uint32_t>(file, "the number of attributes");
    skipBytes(file, 3 * numberBytes, "the header"); // attributes of vertices, primitives, the whole
    return header;
}

std::string takeName(InputFile& file) {
    auto const length = takeNumber<std::uint16_t>(file, "the length of an attribute's name");
    std::string_view const bytes = file.peek(length);
    if (bytes.size() < length)
        file.fail("the file ends inside an attribute's name; it is incomplete");
    std::string name(bytes.substr(0, length));
    file.take(length);
    return name;
}

/// Passes over the words that an attribute's indices stand for.
void skipWords(InputFile& file, std::string const& name) {
    auto const count = takeNumber<std::uint32_t>(file, "the number of words of " + quoted(name));
    for (std::uint32_t word = 0; word < count; ++word) {
        auto const length = takeNumber<std::uint16_t>(file, "a word of " + quoted(name));
        skipBytes(file, length, "a word of " + quoted(name));
    }
}

/// Names the columns of an attribute: `id`, `v.x` to `v.z`, `weights.1` to `weights.9`.
void addColumns(RowLayout& layout, std::string const& name, std::size_t size, bool isFloat) {
    ScalarType const type = isFloat ? ScalarType::float32 : ScalarType::int32;
    for (std::size_t part = 0; part < size; ++part) {
        std::string suffix;
        if (size == 3 || size == 4)
            suffix = std::string(".") + "xyzw"[part];
        else if (size > 1)
            suffix = "." + std::to_string(part + 1);
        layout.columns.push_back(
            {name + suffix, isFloat ? "float" : "int", type, type, layout.rowBytes});
        layout.rowBytes += numberBytes;
    }
}

void readAttribute(InputFile& file, RowLayout& layout) {
    constexpr std::size_t mostColumns = 1000;
    std::string const name = takeName(file);
    auto const size = takeNumber<std::uint16_t>(file, "the size of attribute " + quoted(name));
    auto const type = takeNumber<std::uint32_t>(file, "the type of attribute " + quoted(name));
    if (size > mostColumns - layout.columns.size())
        file.fail("attribute {} has {} numbers a point; up to {} in all attributes are read",
                  quoted(name), size, mostColumns);
    if (type == AttributeType::indices)
        skipWords(file, name);
    else if (type == AttributeType::floats || type == AttributeType::integers ||
             type == AttributeType::vector)
        skipBytes(file, size * numberBytes, "the default values of attribute " + quoted(name));
    else
        file.fail("attribute {} is of type {}; 0 (float), 1 (int), 4 (index) and 5 (vector) are "
                  "read. Leave it out of the export, or export as PLY",
                  quoted(name), type);
    addColumns(layout, name, size, type == AttributeType::floats || type == AttributeType::vector);
}

RowLayout readLayout(InputFile& file, Header const& header) {
    RowLayout layout;
    addColumns(layout, "position", 3, true);
    layout.rowBytes += numberBytes; // the position's w, 1 in all files known
    for (std::uint32_t attribute = 0; attribute < header.attributes; ++attribute)
        readAttribute(file, layout);
    return layout;
}

// Rows ----------------------------------------------------------------------------------------

void readRows(InputFile& file, Header const& header, std::size_t rowBytes,
              RowConverter& converter) {
    while (file.particles < header.points) {
        std::string_view const window = file.peek(rowBytes);
        std::uint64_t const rows =
            std::min<std::uint64_t>(window.size() / rowBytes, header.points - file.particles);
        if (rows == 0)
            file.fail("header promises {} points of {} bytes, the file holds {}; it is incomplete",
                      header.points, rowBytes, file.particles);
        converter.append(window.data(), static_cast<std::size_t>(rows), rowBytes,
                         std::endian::native == std::endian::little);
        file.take(static_cast<std::size_t>(rows * rowBytes));
        file.particles += rows;
    }
}

} // namespace

ParticleSet readBgeo(InputFile& file, ReadOptions const& options) {
    Header const header = readHeader(file);
    requireOnlyFrame(file, options, "a BGEO file");
    RowLayout const layout = readLayout(file, header);
    ParticleSet particles;
    particles.format = "classic BGEO";
    particles.upAxis = 'y';
    RowConverter converter(particles, layout.columns,
                           chooseUses(file, layout.columns, bgeoNames, options, particles),
                           options.summarise);
    converter.reserve(plausibleRows(file, header.points, layout.rowBytes));
    readRows(file, header, layout.rowBytes, converter);
    file.verifyChecksum();
    return particles;
}

} // namespace pipeline
