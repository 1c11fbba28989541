// Groups, attributes and arrays by the calls of HDF5.
#include "pipeline/readers/hdf5/h5objects.h"

#include "pipeline/files/printable.h"
#include "pipeline/readers/readersender.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <filesystem>
#include <memory>

namespace pipeline {

namespace {

/// Far more than a header's values; what tells more is no header.
constexpr hssize_t mostAttributeValues = 4096;

H5Handle openAttribute(hid_t object, char const* attribute) {
    return H5Handle(H5Aexists(object, attribute) > 0 ? H5Aopen(object, attribute, H5P_DEFAULT)
                                                     : -1);
}

/// How many values an attribute has; 0 where it is none, or has absurdly many.
std::size_t valuesIn(H5Handle const& attribute) {
    if (!attribute.isOpen())
        return 0;
    H5Handle const space(H5Aget_space(attribute));
    hssize_t const count = H5Sget_simple_extent_npoints(space);
    return count > 0 && count <= mostAttributeValues ? static_cast<std::size_t>(count) : 0;
}

/// The type that holds all numbers of one in a file; nothing for texts, records and the like.
std::optional<ScalarType> scalarOf(hid_t type) {
    std::size_t const bytes = H5Tget_size(type);
    if (H5Tget_class(type) == H5T_FLOAT)
        return bytes <= sizeof(float) ? ScalarType::float32 : ScalarType::float64;
    if (H5Tget_class(type) == H5T_ENUM) {
        H5Handle const base(H5Tget_super(type));
        return scalarOf(base);
    }
    if (H5Tget_class(type) != H5T_INTEGER || bytes > 8)
        return std::nullopt;
    constexpr ScalarType whole[4][2] = {{ScalarType::int8, ScalarType::uint8},
                                        {ScalarType::int16, ScalarType::uint16},
                                        {ScalarType::int32, ScalarType::uint32},
                                        {ScalarType::int64, ScalarType::uint64}};
    int const width = bytes == 1 ? 0 : bytes == 2 ? 1 : bytes <= 4 ? 2 : 3;
    return whole[width][H5Tget_sign(type) == H5T_SGN_NONE ? 1 : 0];
}

hid_t memoryType(ScalarType type) {
    switch (type) {
    case ScalarType::int8:
        return H5T_NATIVE_INT8;
    case ScalarType::uint8:
        return H5T_NATIVE_UINT8;
    case ScalarType::int16:
        return H5T_NATIVE_INT16;
    case ScalarType::uint16:
        return H5T_NATIVE_UINT16;
    case ScalarType::int32:
        return H5T_NATIVE_INT32;
    case ScalarType::uint32:
        return H5T_NATIVE_UINT32;
    case ScalarType::int64:
        return H5T_NATIVE_INT64;
    case ScalarType::uint64:
        return H5T_NATIVE_UINT64;
    case ScalarType::float32:
        return H5T_NATIVE_FLOAT;
    case ScalarType::float64:
        break;
    }
    return H5T_NATIVE_DOUBLE;
}

/// The names of an enumeration of whole numbers.
std::vector<std::pair<std::int64_t, std::string>> namesOf(hid_t type) {
    std::vector<std::pair<std::int64_t, std::string>> names;
    if (H5Tget_class(type) != H5T_ENUM)
        return names;
    H5Handle const base(H5Tget_super(type));
    for (unsigned member = 0; member < static_cast<unsigned>(H5Tget_nmembers(type)); ++member) {
        std::array<char, 16> value{};
        std::unique_ptr<char, herr_t (*)(void*)> const name(H5Tget_member_name(type, member),
                                                            &H5free_memory);
        if (H5Tget_size(type) > value.size() || name == nullptr ||
            H5Tget_member_value(type, member, value.data()) < 0 ||
            H5Tconvert(base, H5T_NATIVE_INT64, 1, value.data(), nullptr, H5P_DEFAULT) < 0)
            continue;
        std::int64_t number = 0;
        std::memcpy(&number, value.data(), sizeof number);
        names.emplace_back(number, name.get());
    }
    return names;
}

/// Refuses an array that other files make up, of which some are not there: their part would read
/// as zeros.
void checkVirtual(hid_t dataset, hid_t creation, std::string const& path) {
    std::size_t parts = 0;
    H5Pget_virtual_count(creation, &parts);
    std::string own(
        static_cast<std::size_t>(std::max<ssize_t>(0, H5Fget_name(dataset, nullptr, 0))), '\0');
    H5Fget_name(dataset, own.data(), own.size() + 1);
    std::filesystem::path const folder = std::filesystem::path(own).parent_path();
    for (std::size_t part = 0; part < parts; ++part) {
        std::array<char, 4096> name{};
        H5Pget_virtual_filename(creation, part, name.data(), name.size());
        std::string const file = name.data();
        std::error_code ignored;
        if (file != "." && !std::filesystem::exists(folder / file, ignored))
            throw ReaderProblem(fmt::format("{} lies in the file {}, which is not there",
                                            pipeline::quoted(path), pipeline::quoted(file)));
    }
}

/// Refuses an array that is larger than anything the file can hold of it: no way to pack saves
/// more, and what was never written reads as zeros without end.
void checkExtent(hid_t dataset, std::string const& path, std::vector<std::uint64_t> const& extents,
                 std::size_t bytesEach, std::uint64_t fileBytes) {
    H5Handle const creation(H5Dget_create_plist(dataset));
    if (H5Pget_layout(creation) == H5D_VIRTUAL)
        return checkVirtual(dataset, creation, path);
    constexpr double mostPacking = 1100.0; // of zlib, 1032
    double const stored = static_cast<double>(std::min<std::uint64_t>(
        H5Dget_storage_size(dataset), std::max<std::uint64_t>(fileBytes, 1)));
    double claimed = static_cast<double>(bytesEach);
    for (std::uint64_t const extent : extents)
        claimed *= static_cast<double>(extent);
    bool const isPacked = H5Pget_nfilters(creation) > 0;
    if (claimed > 0.0 && claimed > stored * (isPacked ? mostPacking : 1.0))
        throw ReaderProblem(fmt::format(
            "the array {} claims {:.0f} bytes, of which the file holds {:.0f}; it is incomplete "
            "or damaged",
            pipeline::quoted(path), claimed, stored));
}

/// The dataset with room for two of its chunks, so that reading a part unpacks none twice.
H5Handle openWithChunks(hid_t place, std::string const& path) {
    H5Handle plain(H5Dopen2(place, path.c_str(), H5P_DEFAULT));
    if (!plain.isOpen())
        return plain;
    H5Handle const creation(H5Dget_create_plist(plain));
    if (H5Pget_layout(creation) != H5D_CHUNKED)
        return plain;
    std::array<hsize_t, H5S_MAX_RANK> chunk{};
    int const rank = H5Pget_chunk(creation, H5S_MAX_RANK, chunk.data());
    H5Handle const type(H5Dget_type(plain));
    std::size_t bytes = H5Tget_size(type);
    for (int axis = 0; axis < rank; ++axis)
        bytes *= static_cast<std::size_t>(chunk[static_cast<std::size_t>(axis)]);
    constexpr std::size_t usualCache = 1024 * 1024;
    if (bytes <= usualCache / 2)
        return plain;
    H5Handle const access(H5Pcreate(H5P_DATASET_ACCESS));
    H5Pset_chunk_cache(access, H5D_CHUNK_CACHE_NSLOTS_DEFAULT, 2 * bytes, 1.0);
    plain = H5Handle();
    return H5Handle(H5Dopen2(place, path.c_str(), access));
}

} // namespace

H5Handle openH5File(std::string const& path) {
    H5Eset_auto2(H5E_DEFAULT, nullptr, nullptr); // nobody reads what it would print
    H5Handle file(H5Fopen(path.c_str(), H5F_ACC_RDONLY, H5P_DEFAULT));
    if (!file.isOpen())
        throw ReaderProblem("HDF5 cannot open it; it is damaged or incomplete, or still written");
    return file;
}

bool hasObject(hid_t place, std::string const& path) {
    for (std::size_t end = path.find('/'); end != std::string::npos; end = path.find('/', end + 1))
        if (end > 0 && H5Lexists(place, path.substr(0, end).c_str(), H5P_DEFAULT) <= 0)
            return false;
    return H5Lexists(place, path.c_str(), H5P_DEFAULT) > 0 &&
           H5Oexists_by_name(place, path.c_str(), H5P_DEFAULT) > 0;
}

bool isGroup(hid_t place, std::string const& path) {
    return openGroup(place, path).isOpen();
}

H5Handle openGroup(hid_t place, std::string const& path) {
    if (!hasObject(place, path))
        return {};
    H5Handle object(H5Oopen(place, path.c_str(), H5P_DEFAULT));
    return object.isOpen() && H5Iget_type(object) == H5I_GROUP ? std::move(object) : H5Handle();
}

std::vector<std::string> membersOf(hid_t group) {
    std::vector<std::string> names;
    auto const take = [](hid_t, char const* name, H5L_info_t const*, void* list) -> herr_t {
        constexpr std::size_t most = 100000;
        auto& all = *static_cast<std::vector<std::string>*>(list);
        all.emplace_back(name);
        return all.size() < most ? 0 : 1;
    };
    hsize_t place = 0;
    H5Literate(group, H5_INDEX_NAME, H5_ITER_INC, &place, take, &names);
    return names;
}

std::vector<double> numbersOf(hid_t object, char const* attribute) {
    H5Handle const found = openAttribute(object, attribute);
    std::vector<double> numbers(valuesIn(found));
    if (numbers.empty())
        return numbers;
    H5Handle const type(H5Aget_type(found));
    if (!scalarOf(type) || H5Aread(found, H5T_NATIVE_DOUBLE, numbers.data()) < 0)
        numbers.clear();
    return numbers;
}

std::string textOf(hid_t object, char const* attribute) {
    H5Handle const found = openAttribute(object, attribute);
    std::size_t const count = valuesIn(found);
    H5Handle const type(count > 0 ? H5Aget_type(found) : -1);
    if (!type.isOpen() || H5Tget_class(type) != H5T_STRING)
        return {};
    std::string text;
    auto const add = [&text](std::string_view value) {
        text += text.empty() ? "" : " ";
        text += value.substr(0, value.find('\0'));
    };
    if (H5Tis_variable_str(type) > 0) {
        std::vector<char*> values(count);
        if (H5Aread(found, type, values.data()) < 0)
            return {};
        for (char const* const value : values)
            add(value != nullptr ? value : "");
        H5Handle const space(H5Aget_space(found));
        H5Dvlen_reclaim(type, space, H5P_DEFAULT, values.data());
        return text;
    }
    constexpr std::size_t longest = 65536;
    std::size_t const length = H5Tget_size(type);
    if (length > longest)
        return {};
    std::string values(length * count, '\0');
    if (H5Aread(found, type, values.data()) < 0)
        return {};
    for (std::size_t value = 0; value < count; ++value)
        add(std::string_view(values).substr(value * length, length));
    return text;
}

std::optional<H5Array> H5Array::open(hid_t place, std::string const& path,
                                     std::uint64_t fileBytes) {
    if (!hasObject(place, path))
        return std::nullopt;
    H5Handle const object(H5Oopen(place, path.c_str(), H5P_DEFAULT));
    if (!object.isOpen() || H5Iget_type(object) != H5I_DATASET)
        return std::nullopt;
    H5Array array;
    array.name = path;
    array.dataset = std::make_shared<H5Handle const>(openWithChunks(place, path));
    if (!array.dataset->isOpen())
        throw ReaderProblem(fmt::format("the array {} cannot be opened; the file is damaged",
                                        pipeline::quoted(path)));
    H5Handle const type(H5Dget_type(*array.dataset));
    H5Handle const space(H5Dget_space(*array.dataset));
    std::optional<ScalarType> const scalar = scalarOf(type);
    int const rank = H5Sget_simple_extent_ndims(space);
    if (!scalar || rank < 0)
        return std::nullopt;
    std::array<hsize_t, H5S_MAX_RANK> extents{};
    H5Sget_simple_extent_dims(space, extents.data(), nullptr);
    array.extents.assign(extents.begin(), extents.begin() + rank);
    array.scalar = *scalar;
    array.enumNames = namesOf(type);
    checkExtent(*array.dataset, path, array.extents, H5Tget_size(type), fileBytes);
    return array;
}

void H5Array::read(std::vector<H5Range> const& ranges, ScalarType as, void* to) const {
    std::vector<hsize_t> first;
    std::vector<hsize_t> count;
    for (H5Range const& range : ranges) {
        first.push_back(range.first);
        count.push_back(range.count);
    }
    H5Handle const inFile(H5Dget_space(*dataset));
    H5Handle const inMemory(
        H5Screate_simple(static_cast<int>(count.size()), count.data(), nullptr));
    bool const isRead =
        (ranges.empty() || H5Sselect_hyperslab(inFile, H5S_SELECT_SET, first.data(), nullptr,
                                               count.data(), nullptr) >= 0) &&
        H5Dread(*dataset, memoryType(as), inMemory, inFile, H5P_DEFAULT, to) >= 0;
    if (!isRead)
        throw ReaderProblem(
            fmt::format("the array {} cannot be read; the file is damaged or incomplete, or packed "
                        "by a filter that is not installed",
                        pipeline::quoted(name)));
}

std::vector<double> H5Array::numbers() const {
    constexpr std::uint64_t most = 1 << 24;
    std::uint64_t count = 1;
    std::vector<H5Range> ranges;
    for (std::uint64_t const extent : extents) {
        count = extent > most ? most + 1 : count * extent;
        ranges.push_back({0, extent});
        if (count > most)
            throw ReaderProblem(
                fmt::format("the array {} has too many entries", pipeline::quoted(name)));
    }
    std::vector<double> values(static_cast<std::size_t>(count));
    if (count > 0)
        read(ranges, ScalarType::float64, values.data());
    return values;
}

} // namespace pipeline
