// The program kelpa-read-vdb: points of OpenVDB, as columns and rows for the one who started it.
#include "pipeline/files/textvalues.h"
#include "pipeline/readers/readersender.h"

#include <fmt/format.h>
// OpenVDB's headers are not written for our warnings, nor without exceptions to them.
#include <openvdb/openvdb.h>
#include <openvdb/points/AttributeArray.h>
#include <openvdb/points/PointDataGrid.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

namespace {

using openvdb::points::AttributeArray;
using openvdb::points::AttributeHandle;
using openvdb::points::PointDataGrid;
using pipeline::ReaderInput;
using pipeline::ReaderProblem;
using pipeline::ReaderSender;
using pipeline::ScalarType;
using Leaf = PointDataGrid::TreeType::LeafNodeType;

constexpr std::size_t mostColumns = 1000;

/// Appends one attribute of one point to a row.
using AppendValue = std::function<void(std::string& row, openvdb::Index point)>;

template <class Number> void appendBytes(std::string& row, Number value) {
    row.append(reinterpret_cast<char const*>(&value), sizeof value);
}

template <class Value, class Number> AppendValue appendScalars(AttributeArray const& array) {
    auto const handle = AttributeHandle<Value>::create(array);
    return [handle](std::string& row, openvdb::Index point) {
        for (openvdb::Index part = 0; part < handle->stride(); ++part)
            appendBytes(row, static_cast<Number>(handle->get(point, part)));
    };
}

template <class Value, class Number> AppendValue appendVectors(AttributeArray const& array) {
    auto const handle = AttributeHandle<Value>::create(array);
    return [handle](std::string& row, openvdb::Index point) {
        auto const vector = handle->get(point);
        for (int axis = 0; axis < 3; ++axis)
            appendBytes(row, static_cast<Number>(vector[axis]));
    };
}

/// A type of attribute that is read.
struct ValueType {
    std::string_view name; ///< as OpenVDB calls it
    bool isVector;
    ScalarType number;
    AppendValue (*append)(AttributeArray const& array);
};

constexpr ValueType valueTypes[] = {
    {"float", false, ScalarType::float32, appendScalars<float, float>},
    {"double", false, ScalarType::float64, appendScalars<double, double>},
    {"bool", false, ScalarType::uint8, appendScalars<bool, std::uint8_t>},
    {"int16", false, ScalarType::int16, appendScalars<std::int16_t, std::int16_t>},
    {"int32", false, ScalarType::int32, appendScalars<std::int32_t, std::int32_t>},
    {"int64", false, ScalarType::int64, appendScalars<std::int64_t, std::int64_t>},
    {"vec3s", true, ScalarType::float32, appendVectors<openvdb::Vec3f, float>},
    {"vec3d", true, ScalarType::float64, appendVectors<openvdb::Vec3d, double>},
    {"vec3i", true, ScalarType::int32, appendVectors<openvdb::Vec3i, std::int32_t>},
};

/// Those of the positions, which become places in the world.
constexpr ValueType placeTypes[] = {
    {"vec3s", true, ScalarType::float64, appendVectors<openvdb::Vec3f, double>},
    {"vec3d", true, ScalarType::float64, appendVectors<openvdb::Vec3d, double>},
};
constexpr std::string_view placeName = "P";

ValueType const* findType(std::string const& attribute, std::string const& name) {
    auto const find = [&](auto const& types) -> ValueType const* {
        auto const* const found =
            std::find_if(std::begin(types), std::end(types),
                         [&](ValueType const& type) { return type.name == name; });
        return found == std::end(types) ? nullptr : found;
    };
    return attribute == placeName ? find(placeTypes) : find(valueTypes);
}

/// An attribute of all leaves that goes into rows.
struct ReadAttribute {
    std::string name;
    std::string typeName;
    openvdb::Index stride;
    ValueType const* type;

    std::size_t numbers() const { return type->isVector ? 3 : stride; }
    std::size_t bytes() const { return numbers() * scalarBytes(type->number); }
};

/// What a file's own list says about where its grids lie, which OpenVDB does not compare with the
/// file: of a buffer that is cut off it makes numbers of its own.
class GridList : public openvdb::io::Archive {
  public:
    /// Refuses a file that ends before its grids do.
    static void checkLength(std::string const& path, std::uint64_t fileBytes) {
        std::ifstream stream(path, std::ios::binary);
        GridList list;
        list.readHeader(stream);
        list.setFormatVersion(stream);
        list.setLibraryVersion(stream);
        openvdb::MetaMap().readMeta(stream);
        std::int32_t const grids = list.inputHasGridOffsets() ? readGridCount(stream) : 0;
        for (std::int32_t grid = 0; grid < grids && stream.good(); ++grid) {
            openvdb::io::GridDescriptor descriptor;
            descriptor.read(stream);
            if (!stream.good() || descriptor.getEndPos() < 0 ||
                static_cast<std::uint64_t>(descriptor.getEndPos()) > fileBytes)
                throw ReaderProblem(
                    fmt::format("its grids end at byte {}, the file at {}; it is incomplete",
                                descriptor.getEndPos(), fileBytes));
            descriptor.seekToEnd(stream);
        }
    }
};

/// Reads the first grid of points; refuses a file that has none.
PointDataGrid::Ptr readGrid(std::string const& path, ReaderSender const& sender) {
    openvdb::io::File file(path);
    constexpr bool isDelayed = false; // all at once: the memory is bounded now, not later
    file.open(isDelayed);
    std::string present;
    PointDataGrid::Ptr points;
    for (auto name = file.beginName(); name != file.endName(); ++name) {
        openvdb::GridBase::Ptr const grid = file.readGridMetadata(name.gridName());
        present += fmt::format(" {} ({})", pipeline::quoted(name.gridName()), grid->type());
        if (!grid->isType<PointDataGrid>())
            continue;
        if (points != nullptr)
            sender.note(fmt::format("grid {} is not read: {} comes first",
                                    pipeline::quoted(name.gridName()),
                                    pipeline::quoted(points->getName())));
        else
            points = openvdb::gridPtrCast<PointDataGrid>(file.readGrid(name.gridName()));
    }
    if (points == nullptr)
        throw ReaderProblem(
            present.empty()
                ? "it holds no grid; the file is damaged or incomplete"
                : fmt::format("no grid of points; it has{}. Volumes are not read", present));
    return points;
}

/// Announces a column for each number that an attribute has per point.
void sendColumns(ReadAttribute const& attribute, ReaderSender const& sender) {
    std::size_t const parts = attribute.numbers();
    for (std::size_t part = 0; part < parts; ++part) {
        std::string const suffix = attribute.type->isVector ? std::string(".") + "xyz"[part]
                                   : parts > 1              ? "." + std::to_string(part + 1)
                                                            : "";
        sender.column(attribute.type->number, attribute.name + suffix, attribute.typeName);
    }
}

std::vector<ReadAttribute> chooseAttributes(Leaf const& leaf, ReaderSender const& sender) {
    std::vector<ReadAttribute> attributes;
    auto const& descriptor = leaf.attributeSet().descriptor();
    std::vector<std::string> names(descriptor.size());
    for (auto const& [name, position] : descriptor.map())
        names.at(position) = name;
    std::size_t columns = 0;
    for (std::size_t position = 0; position < descriptor.size(); ++position) {
        std::string const& typeName = descriptor.valueType(position);
        ReadAttribute const attribute{names[position], typeName,
                                      leaf.constAttributeArray(position).stride(),
                                      findType(names[position], typeName)};
        std::size_t const parts = attribute.stride;
        bool const isRead = attribute.type != nullptr && parts > 0 &&
                            !(attribute.type->isVector && parts > 1) &&
                            columns + parts <= mostColumns;
        if (isRead) {
            attributes.push_back(attribute);
            columns += attribute.numbers();
        } else if (!leaf.constAttributeArray(position).isHidden() && attribute.type == nullptr) {
            sender.note(fmt::format("attribute {} is not read: it is of type {}",
                                    pipeline::quoted(attribute.name), pipeline::quoted(typeName)));
        }
    }
    return attributes;
}

/// Sends the points of a leaf. Positions count in voxels from the middle of their own.
void sendLeaf(Leaf const& leaf, openvdb::math::Transform const& transform,
              std::vector<ReadAttribute> const& attributes, std::size_t place,
              ReaderSender const& sender) {
    constexpr std::size_t bytesAtOnce = 64 * 1024;
    std::vector<AppendValue> appends;
    for (ReadAttribute const& attribute : attributes) {
        AttributeArray const& array = leaf.constAttributeArray(attribute.name);
        if (array.stride() != attribute.stride || array.valueType() != attribute.typeName)
            throw ReaderProblem("leaves differ in their attributes");
        appends.push_back(attribute.type->append(array));
    }
    std::string rows;
    for (auto point = leaf.beginIndexOn(); point; ++point) {
        std::size_t const row = rows.size();
        for (AppendValue const& append : appends)
            append(rows, *point);
        openvdb::Vec3d position;
        std::memcpy(position.asPointer(), rows.data() + row + place, sizeof position);
        position = transform.indexToWorld(position + point.getCoord().asVec3d());
        std::memcpy(rows.data() + row + place, position.asPointer(), sizeof position);
        if (rows.size() >= bytesAtOnce) {
            sender.rows(rows);
            rows.clear();
        }
    }
    sender.rows(rows);
}

/// Announces the columns of all attributes; returns where in a row the position is.
std::size_t sendHeader(std::vector<ReadAttribute> const& attributes, ReaderSender const& sender) {
    std::size_t bytes = 0;
    std::optional<std::size_t> place;
    for (ReadAttribute const& attribute : attributes) {
        sendColumns(attribute, sender);
        if (attribute.name == placeName)
            place = bytes;
        bytes += attribute.bytes();
    }
    if (!place)
        throw ReaderProblem("no attribute 'P' with positions");
    return *place;
}

void sendPoints(std::string const& path, ReaderSender const& sender) {
    PointDataGrid::Ptr const grid = readGrid(path, sender);
    std::vector<ReadAttribute> attributes;
    std::size_t place = 0; // of the position in a row
    for (auto leaf = grid->tree().cbeginLeaf(); leaf; ++leaf) {
        if (attributes.empty()) {
            attributes = chooseAttributes(*leaf, sender);
            place = sendHeader(attributes, sender);
        }
        sendLeaf(*leaf, grid->transform(), attributes, place, sender);
    }
    if (attributes.empty()) // an empty grid still has positions
        sendColumns({std::string(placeName), "vec3s", 1, &placeTypes[0]}, sender);
}

void readPoints(ReaderInput const& input, ReaderSender const& sender) {
    try {
        openvdb::initialize();
        GridList::checkLength(input.path, input.bytes);
        sendPoints(input.path, sender);
    } catch (openvdb::Exception const& error) {
        throw ReaderProblem(fmt::format("{}; the file is damaged or incomplete", error.what()));
    }
}

} // namespace

int main(int argc, char** argv) {
    return pipeline::runReader(argc, argv, readPoints);
}
