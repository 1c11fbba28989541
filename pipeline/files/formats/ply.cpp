// Reads PLY, text and binary.
#include "pipeline/files/columnuses.h"
#include "pipeline/files/formats/frames.h"
#include "pipeline/files/formats/plyheader.h"
#include "pipeline/files/formats/readers.h"
#include "pipeline/files/inputfile.h"
#include "pipeline/files/textvalues.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <optional>

// PLY, after Greg Turk, "The PLY Polygon File Format", 1994: a text header that lists elements and
// their properties, then all rows of the first element, all rows of the second, and so on. Only
// `vertex` is read; what stands before it is skipped and what stands behind it is left alone.

namespace pipeline {

namespace {

constexpr VectorColumns positionNames[] = {{"x y z", {"x", "y", "z"}}};
constexpr VectorColumns colorNames[] = {
    {"red green blue", {"red", "green", "blue"}},
    {"r g b", {"r", "g", "b"}},
    {"diffuse_red diffuse_green diffuse_blue", {"diffuse_red", "diffuse_green", "diffuse_blue"}}};
constexpr VectorColumns velocityNames[] = {{"vx vy vz", {"vx", "vy", "vz"}}};
constexpr ColumnNames plyNames = {"property", positionNames, colorNames, velocityNames, "element",
                                  {},         "type"};

std::size_t findVertices(InputFile const& file, PlyHeader const& header) {
    std::string present;
    for (std::size_t index = 0; index < header.elements.size(); ++index) {
        if (header.elements[index].name == "vertex")
            return index;
        present += " " + header.elements[index].name;
    }
    file.fail("no element 'vertex'; it has{}", present.empty() ? " none" : present);
}

/// The columns of the vertices as `RowConverter` will see them: lists left out, text parsed.
std::vector<Column> columnsOf(PlyElement const& vertex, PlyEncoding encoding) {
    std::vector<Column> columns;
    std::size_t offset = 0;
    for (PlyProperty const& property : vertex.properties) {
        if (property.listLength)
            continue;
        ScalarType const stored = encoding == PlyEncoding::ascii
                                      ? storedFromText(property.name, property.type)
                                      : property.type;
        columns.push_back({property.name, property.typeName, property.type, stored, offset});
        columns.back().isText = stored != property.type; // whole numbers, parsed to doubles
        offset += scalarBytes(stored);
    }
    return columns;
}

std::size_t rowBytesOf(std::vector<Column> const& columns) {
    return columns.empty() ? 0 : columns.back().offset + scalarBytes(columns.back().stored);
}

// Binary rows --------------------------------------------------------------------------------

[[noreturn]] void failShort(InputFile const& file, PlyElement const& element,
                            std::uint64_t bytesHeld) {
    std::uint64_t const rowBytes = element.rowBytes();
    std::string distance;
    if (element.count < std::uint64_t{1} << 50) { // else the product might not fit
        std::uint64_t const missing = element.count * rowBytes - bytesHeld;
        // A copy in text mode changes a few bytes all over; a broken transfer ends anywhere.
        bool const fewMissing = missing < bytesHeld / 100;
        distance = fmt::format("; it is {} bytes short ({} copy?)", missing,
                               fewMissing ? "text-mode" : "incomplete");
    }
    file.fail("header promises {} vertices of {} bytes, the file holds {}{}", element.count,
              rowBytes, bytesHeld / rowBytes, distance);
}

/// Refuses a count that the rest of a plain file cannot hold, before anything is made for it.
void checkPromise(InputFile const& file, PlyElement const& element) {
    std::optional<std::uint64_t> const left = file.bytesLeft();
    if (left && element.count > *left / element.rowBytes())
        failShort(file, element, *left);
}

/// Reads the rows of a share, with one of everything all.
void readFixedRows(InputFile& file, PlyElement const& vertex, RowShare const& share, bool swapBytes,
                   RowConverter& converter) {
    std::size_t const rowBytes = vertex.rowBytes();
    std::uint64_t const first = share.begin(vertex.count);
    std::uint64_t const count = share.end(vertex.count) - first;
    file.skip(first * rowBytes);
    while (file.particles < count) {
        std::string_view const window = file.peek(rowBytes);
        std::uint64_t const rows =
            std::min<std::uint64_t>(window.size() / rowBytes, count - file.particles);
        if (rows == 0)
            failShort(file, vertex, (first + file.particles) * rowBytes + window.size());
        converter.append(window.data(), static_cast<std::size_t>(rows), rowBytes, swapBytes);
        file.take(static_cast<std::size_t>(rows * rowBytes));
        file.particles += rows;
    }
    file.skip((vertex.count - first - count) * rowBytes);
}

std::uint64_t wholeNumber(char const* bytes, std::size_t size, bool bigEndian) {
    std::uint64_t number = 0;
    for (std::size_t i = 0; i < size; ++i)
        number = (number << 8) | static_cast<unsigned char>(bytes[bigEndian ? i : size - 1 - i]);
    return number;
}

/// Reads one row that may hold lists, which are skipped; the rest goes to `row`, one value behind
/// the other. False when the file ends before the row does.
bool gatherRow(InputFile& file, PlyElement const& element, bool bigEndian, char* row) {
    for (PlyProperty const& property : element.properties) {
        std::size_t const size = scalarBytes(property.listLength.value_or(property.type));
        std::string_view const window = file.peek(size);
        if (window.size() < size)
            return false;
        if (!property.listLength) {
            std::memcpy(row, window.data(), size);
            row += size;
            file.take(size);
            continue;
        }
        // A negative length of a signed type is a huge one here, and runs into the file's end.
        std::uint64_t const length = wholeNumber(window.data(), size, bigEndian);
        std::uint64_t const entryBytes = scalarBytes(property.type);
        file.take(size);
        if (length > ~std::uint64_t{0} / entryBytes ||
            file.skip(length * entryBytes) < length * entryBytes)
            return false;
    }
    return true;
}

void gatherRows(InputFile& file, PlyElement const& vertex, bool bigEndian, bool swapBytes,
                RowConverter& converter) {
    readRows(file, vertex.count, vertex.rowBytes(), swapBytes, converter, [&](char* row) {
        if (!gatherRow(file, vertex, bigEndian, row))
            file.fail("header promises {} vertices, the file ends inside number {}", vertex.count,
                      file.particles + 1);
        return true;
    });
}

void skipBinary(InputFile& file, PlyElement const& element, bool bigEndian) {
    std::uint64_t const rowBytes = element.rowBytes();
    if (!element.hasLists()) {
        if (rowBytes > 0 && (element.count > ~std::uint64_t{0} / rowBytes ||
                             file.skip(element.count * rowBytes) < element.count * rowBytes))
            file.fail("the file ends inside the {} elements {}", element.count,
                      quoted(element.name));
        return;
    }
    std::vector<char> ignored(static_cast<std::size_t>(rowBytes));
    for (std::uint64_t row = 0; row < element.count; ++row)
        if (!gatherRow(file, element, bigEndian, ignored.data()))
            file.fail("the file ends inside element {} number {} of {}", quoted(element.name),
                      row + 1, element.count);
}

// Text rows ----------------------------------------------------------------------------------

/// The next line with something on it.
std::optional<std::string_view> nextTextRow(InputFile& file) {
    std::optional<std::string_view> line = file.nextLine();
    while (line && line->find_first_not_of(" \t\r") == std::string_view::npos)
        line = file.nextLine();
    return line;
}

void skipText(InputFile& file, PlyElement const& element) {
    if (element.properties.empty())
        return;
    for (std::uint64_t row = 0; row < element.count; ++row)
        if (!nextTextRow(file))
            file.fail("the file ends inside element {} number {} of {}", quoted(element.name),
                      row + 1, element.count);
}

/// Passes over a list in a line; false when a word of it is no number or missing.
bool skipTextList(std::string_view& line) {
    std::uint64_t length = 0;
    if (!parseNumber(nextWord(line), length))
        return false;
    for (std::uint64_t entry = 0; entry < length; ++entry)
        if (nextWord(line).empty())
            return false;
    return true;
}

void parseTextRow(InputFile const& file, PlyElement const& vertex,
                  std::vector<Column> const& columns, std::string_view line, char* row,
                  std::uint64_t& unfitIds) {
    auto column = columns.begin();
    for (PlyProperty const& property : vertex.properties) {
        if (property.listLength) {
            if (!skipTextList(line))
                file.failHere("the list {} is incomplete", quoted(property.name));
            continue;
        }
        std::string_view const word = nextWord(line);
        if (word.empty())
            file.failHere("the line ends where a number for {} belongs", quoted(property.name));
        if (!storeWord(*column, word, row, unfitIds))
            file.failHere("{} where a number for {} belongs", quoted(word), quoted(property.name));
        ++column;
    }
    if (std::string_view const word = nextWord(line); !word.empty())
        file.failHere("{} behind the last of {} properties", quoted(word),
                      vertex.properties.size());
}

void readTextRows(InputFile& file, PlyElement const& vertex, std::vector<Column> const& columns,
                  RowConverter& converter, std::uint64_t& unfitIds) {
    readRows(file, vertex.count, rowBytesOf(columns), false, converter, [&](char* row) {
        std::optional<std::string_view> const line = nextTextRow(file);
        if (!line)
            file.fail("header promises {} vertices, the file holds {}", vertex.count,
                      file.particles);
        parseTextRow(file, vertex, columns, *line, row, unfitIds);
        return true;
    });
}

/// Lists what a file holds that is no column of particles.
void tellWhatIsLeft(PlyHeader const& header, PlyElement const& vertex, ParticleSet& particles) {
    for (PlyProperty const& property : vertex.properties)
        if (property.listLength)
            particles.leftOut.push_back("list " + quoted(property.name));
    for (PlyElement const& element : header.elements)
        if (&element != &vertex)
            particles.leftOut.push_back(
                fmt::format("{} elements {}", element.count, quoted(element.name)));
}

/// Notes what follows the last row of a file's last element, though the header promises no more.
void noteTheRest(InputFile& file, PlyElement const& vertex, bool isText, ParticleSet& particles) {
    if (isText) {
        if (nextTextRow(file))
            particles.notes.push_back(
                {fmt::format("{}:{}: rows go on behind the {} vertices that the header promises; "
                             "they are left out",
                             file.path(), file.lineNumber(), vertex.count)});
    } else if (std::uint64_t const bytes = file.skip(~std::uint64_t{0}); bytes > 0) {
        particles.notes.push_back(
            {fmt::format("{}: {} bytes follow the {} vertices that the header promises; they are "
                         "left out",
                         file.path(), bytes, vertex.count)});
    }
}

} // namespace

ParticleSet readPly(InputFile& file, ReadOptions const& options) {
    PlyHeader const header = readPlyHeader(file);
    requireOnlyFrame(file, options, "a PLY file");
    std::size_t const vertexIndex = findVertices(file, header);
    PlyElement const& vertex = header.elements[vertexIndex];
    bool const isText = header.encoding == PlyEncoding::ascii;
    bool const bigEndian = header.encoding == PlyEncoding::bigEndian;

    ParticleSet particles;
    particles.format = isText      ? "PLY ascii"
                       : bigEndian ? "PLY binary big-endian"
                                   : "PLY binary little-endian";
    std::vector<Column> columns = columnsOf(vertex, header.encoding);
    for (Column& column : columns)
        if (auto const known = header.names.find(column.name); known != header.names.end())
            column.names = known->second;
    if (auto const known = header.names.find(plyNames.type); known != header.names.end())
        particles.typeNames = known->second;
    RowConverter converter(particles, columns,
                           chooseUses(file, columns, plyNames, options, particles),
                           options.summarise);

    tellWhatIsLeft(header, vertex, particles);
    for (std::size_t index = 0; index < vertexIndex; ++index) {
        if (isText)
            skipText(file, header.elements[index]);
        else
            skipBinary(file, header.elements[index], bigEndian);
    }

    bool const swapBytes = bigEndian != (std::endian::native == std::endian::big);
    if (!isText)
        checkPromise(file, vertex);
    particles.isShare =
        options.rows.of > 1 && !isText && !vertex.hasLists() && file.bytesLeft().has_value();
    RowShare const share = particles.isShare ? options.rows : RowShare{};
    std::size_t const leastRow = isText ? 2 * columns.size() : vertex.rowBytes();
    converter.reserve(
        plausibleRows(file, share.end(vertex.count) - share.begin(vertex.count), leastRow));
    if (isText)
        readTextRows(file, vertex, columns, converter, particles.unfitIds);
    else if (vertex.hasLists())
        gatherRows(file, vertex, bigEndian, swapBytes, converter);
    else
        readFixedRows(file, vertex, share, swapBytes, converter);
    if (vertexIndex + 1 == header.elements.size())
        noteTheRest(file, vertex, isText, particles);
    file.verifyChecksum();
    return particles;
}

} // namespace pipeline
