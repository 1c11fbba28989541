#include "pipeline/files/columns.h"
#include "pipeline/files/formats/frames.h"
#include "pipeline/files/inputfile.h"
#include "pipeline/files/textvalues.h"

// OpenVDB's headers are not written for our warnings, nor without exceptions to them.
#include <openvdb/openvdb.h>
#include <openvdb/points/AttributeArray.h>
#include <openvdb/points/PointDataGrid.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>

// VDB points, through OpenVDB. The library believes what a file says of itself: damaged ones make
// it crash or ask for any amount of memory. So a child process reads, with bounded memory, and
// sends columns and rows through a pipe; what happens to it happens to the file only.

namespace kelpatool {

namespace {

using openvdb::points::AttributeArray;
using openvdb::points::AttributeHandle;
using openvdb::points::PointDataGrid;
using Leaf = PointDataGrid::TreeType::LeafNodeType;

constexpr std::size_t valueBytes = 8; // of every column: a double or a 64-bit integer
constexpr std::size_t mostColumns = 1000;

constexpr VectorColumns positionNames[] = {{"P", {"P.x", "P.y", "P.z"}}};
constexpr VectorColumns colorNames[] = {{"Cd", {"Cd.x", "Cd.y", "Cd.z"}},
                                        {"color", {"color.x", "color.y", "color.z"}}};
constexpr VectorColumns velocityNames[] = {
    {"v", {"v.x", "v.y", "v.z"}}, {"velocity", {"velocity.x", "velocity.y", "velocity.z"}}};
constexpr ColumnNames vdbNames = {"attribute", positionNames, colorNames, velocityNames, {}};

// The child -------------------------------------------------------------------------------------

/// What the child says: each message is a kind, a length and so many bytes.
enum class Message : char { note = 'n', column = 'c', rows = 'r', problem = 'p', end = 'e' };

/// Sends messages; ends the child when nobody listens any more.
class Sender {
  public:
    explicit Sender(int pipe) : descriptor(pipe) {}

    void send(Message kind, std::string_view bytes) const {
        std::uint64_t const length = bytes.size();
        write(&kind, sizeof kind);
        write(&length, sizeof length);
        write(bytes.data(), bytes.size());
    }

  private:
    void write(void const* bytes, std::size_t count) const {
        char const* at = static_cast<char const*>(bytes);
        while (count > 0) {
            ssize_t const written = ::write(descriptor, at, count);
            if (written < 0 && errno == EINTR)
                continue;
            if (written <= 0)
                _exit(0);
            at += written;
            count -= static_cast<std::size_t>(written);
        }
    }

    int descriptor;
};

/// Appends one attribute of one point to a row.
using AppendValue = std::function<void(std::string& row, openvdb::Index point)>;

void appendBytes(std::string& row, auto value) {
    static_assert(sizeof value == valueBytes);
    row.append(reinterpret_cast<char const*>(&value), sizeof value);
}

template <class Value, class Number> AppendValue appendScalars(AttributeArray const& array) {
    auto const handle = AttributeHandle<Value>::create(array);
    return [handle](std::string& row, openvdb::Index point) {
        for (openvdb::Index part = 0; part < handle->stride(); ++part)
            appendBytes(row, static_cast<Number>(handle->get(point, part)));
    };
}

template <class Value> AppendValue appendVectors(AttributeArray const& array) {
    auto const handle = AttributeHandle<Value>::create(array);
    return [handle](std::string& row, openvdb::Index point) {
        auto const vector = handle->get(point);
        for (int axis = 0; axis < 3; ++axis)
            appendBytes(row, static_cast<double>(vector[axis]));
    };
}

/// A type of attribute that is read.
struct ValueType {
    std::string_view name; ///< as OpenVDB calls it
    bool isVector;
    bool isWhole;
    AppendValue (*append)(AttributeArray const& array);
};

constexpr ValueType valueTypes[] = {
    {"float", false, false, appendScalars<float, double>},
    {"double", false, false, appendScalars<double, double>},
    {"bool", false, true, appendScalars<bool, std::int64_t>},
    {"int16", false, true, appendScalars<std::int16_t, std::int64_t>},
    {"int32", false, true, appendScalars<std::int32_t, std::int64_t>},
    {"int64", false, true, appendScalars<std::int64_t, std::int64_t>},
    {"vec3s", true, false, appendVectors<openvdb::Vec3f>},
    {"vec3d", true, false, appendVectors<openvdb::Vec3d>},
    {"vec3i", true, false, appendVectors<openvdb::Vec3i>},
};

ValueType const* findType(std::string const& name) {
    auto const* const found =
        std::find_if(std::begin(valueTypes), std::end(valueTypes),
                     [&](ValueType const& type) { return type.name == name; });
    return found == std::end(valueTypes) ? nullptr : found;
}

/// An attribute of all leaves that goes into rows.
struct ReadAttribute {
    std::string name;
    std::string typeName;
    openvdb::Index stride;
    ValueType const* type;
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
                throw std::runtime_error(
                    fmt::format("its grids end at byte {}, the file at {}; it is incomplete",
                                descriptor.getEndPos(), fileBytes));
            descriptor.seekToEnd(stream);
        }
    }
};

/// Reads the first grid of points; refuses a file that has none.
PointDataGrid::Ptr readGrid(std::string const& path, Sender const& sender) {
    openvdb::io::File file(path);
    constexpr bool isDelayed = false; // all at once: the memory is bounded now, not later
    file.open(isDelayed);
    std::string present;
    PointDataGrid::Ptr points;
    for (auto name = file.beginName(); name != file.endName(); ++name) {
        openvdb::GridBase::Ptr const grid = file.readGridMetadata(name.gridName());
        present += fmt::format(" {} ({})", kelpatool::quoted(name.gridName()), grid->type());
        if (!grid->isType<PointDataGrid>())
            continue;
        if (points != nullptr)
            sender.send(Message::note, fmt::format("grid {} is not read: {} comes first",
                                                   kelpatool::quoted(name.gridName()),
                                                   kelpatool::quoted(points->getName())));
        else
            points = openvdb::gridPtrCast<PointDataGrid>(file.readGrid(name.gridName()));
    }
    if (points == nullptr)
        throw std::runtime_error(
            present.empty()
                ? "it holds no grid; the file is damaged or incomplete"
                : fmt::format("no grid of points; it has{}. Volumes are not read", present));
    return points;
}

/// Announces a column for each number that an attribute has per point.
void sendColumns(ReadAttribute const& attribute, Sender const& sender) {
    std::size_t const parts = attribute.type->isVector ? 3 : attribute.stride;
    for (std::size_t part = 0; part < parts; ++part) {
        std::string const suffix = attribute.type->isVector ? std::string(".") + "xyz"[part]
                                   : parts > 1              ? "." + std::to_string(part + 1)
                                                            : "";
        sender.send(Message::column, fmt::format("{}{}{}\n{}", attribute.type->isWhole ? 'i' : 'f',
                                                 attribute.name, suffix, attribute.typeName));
    }
}

std::vector<ReadAttribute> chooseAttributes(Leaf const& leaf, Sender const& sender) {
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
                                      findType(typeName)};
        std::size_t const parts = attribute.stride;
        bool const isRead = attribute.type != nullptr && parts > 0 &&
                            !(attribute.type->isVector && parts > 1) &&
                            columns + parts <= mostColumns;
        if (isRead) {
            attributes.push_back(attribute);
            columns += attribute.type->isVector ? 3 : parts;
        } else if (!leaf.constAttributeArray(position).isHidden() && attribute.type == nullptr) {
            sender.send(Message::note, fmt::format("attribute {} is not read: it is of type {}",
                                                   kelpatool::quoted(attribute.name),
                                                   kelpatool::quoted(typeName)));
        }
    }
    return attributes;
}

/// Sends the points of a leaf. Positions count in voxels from the middle of their own.
void sendLeaf(Leaf const& leaf, openvdb::math::Transform const& transform,
              std::vector<ReadAttribute> const& attributes, std::size_t place,
              Sender const& sender) {
    constexpr std::size_t bytesAtOnce = 64 * 1024;
    std::vector<AppendValue> appends;
    for (ReadAttribute const& attribute : attributes) {
        AttributeArray const& array = leaf.constAttributeArray(attribute.name);
        if (array.stride() != attribute.stride || array.valueType() != attribute.typeName)
            throw std::runtime_error("leaves differ in their attributes");
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
            sender.send(Message::rows, rows);
            rows.clear();
        }
    }
    sender.send(Message::rows, rows);
}

void sendPoints(std::string const& path, Sender const& sender) {
    PointDataGrid::Ptr const grid = readGrid(path, sender);
    std::vector<ReadAttribute> attributes;
    std::size_t place = 0; // of the position in a row
    for (auto leaf = grid->tree().cbeginLeaf(); leaf; ++leaf) {
        if (attributes.empty()) {
            attributes = chooseAttributes(*leaf, sender);
            std::size_t bytes = 0;
            bool hasPosition = false;
            for (ReadAttribute const& attribute : attributes) {
                sendColumns(attribute, sender);
                if (attribute.name == "P" && attribute.type->isVector) {
                    place = bytes;
                    hasPosition = true;
                }
                bytes += valueBytes * (attribute.type->isVector ? 3 : attribute.stride);
            }
            if (!hasPosition)
                throw std::runtime_error("no attribute 'P' with positions");
        }
        sendLeaf(*leaf, grid->transform(), attributes, place, sender);
    }
    if (attributes.empty()) // an empty grid still has positions
        for (char const* const column : {"fP.x\nvec3s", "fP.y\nvec3s", "fP.z\nvec3s"})
            sender.send(Message::column, column);
}

/// Bounds how far this process may grow: a damaged file asks for anything.
void boundMemory(std::uint64_t fileBytes) {
    constexpr std::uint64_t pages = 4096;
    constexpr std::uint64_t base = 256 * 1024 * 1024; // OpenVDB itself, its tables, a thread or two
    constexpr std::uint64_t perByte = 64;             // packed points grow about so much at most
    std::uint64_t present = 0;
    std::ifstream("/proc/self/statm") >> present;
    rlimit const limit{present * pages + base + perByte * fileBytes, RLIM_INFINITY};
    rlimit old{};
    getrlimit(RLIMIT_AS, &old);
    if (rlimit const bounded{std::min(limit.rlim_cur, old.rlim_max), old.rlim_max};
        bounded.rlim_cur < old.rlim_cur)
        setrlimit(RLIMIT_AS, &bounded);
    rlimit const noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
}

[[noreturn]] void runChild(std::string const& path, std::uint64_t fileBytes, int pipe) {
    Sender const sender(pipe);
    try {
        signal(SIGPIPE, SIG_IGN);
        for (int const fatal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT})
            signal(fatal, SIG_DFL);
        boundMemory(fileBytes);
        openvdb::initialize();
        GridList::checkLength(path, fileBytes);
        sendPoints(path, sender);
        sender.send(Message::end, {});
    } catch (openvdb::Exception const& error) {
        sender.send(Message::problem,
                    fmt::format("{}; the file is damaged or incomplete", error.what()));
    } catch (std::bad_alloc const&) {
        sender.send(Message::problem, "it asks for far more memory than its size; it is damaged");
    } catch (std::exception const& error) {
        sender.send(Message::problem, error.what());
    }
    _exit(0);
}

// The parent ------------------------------------------------------------------------------------

/// The child and the pipe from it; both go with this object.
class Reader {
  public:
    Reader(InputFile& input, PhaseProgress const& phase) : file(input), progress(phase) {
        int ends[2];
        if (pipe(ends) != 0)
            file.fail("cannot be read: {}", std::strerror(errno));
        child = fork();
        if (child == 0) {
            close(ends[0]);
            runChild(file.path(), file.sizeOnDisk(), ends[1]);
        }
        close(ends[1]);
        descriptor = ends[0];
        if (child < 0) {
            close(descriptor);
            file.fail("cannot be read: {}", std::strerror(errno));
        }
    }
    ~Reader() {
        close(descriptor);
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    Reader(Reader const&) = delete;
    Reader& operator=(Reader const&) = delete;

    /// The next message; what it is about is in `bytes`. Problems are thrown.
    Message next() {
        Message kind{};
        std::uint64_t length = 0;
        constexpr std::uint64_t longest = 16 * 1024 * 1024;
        read(&kind, sizeof kind);
        read(&length, sizeof length);
        if (length > longest)
            failDamaged();
        bytes.resize(static_cast<std::size_t>(length));
        read(bytes.data(), bytes.size());
        if (kind == Message::problem)
            file.fail("{}", cleaned(bytes));
        return kind;
    }

    std::string bytes;

  private:
    void read(void* to, std::size_t count) {
        char* at = static_cast<char*>(to);
        while (count > 0) {
            if (progress)
                progress(0.0, file.particles);
            ssize_t const got = ::read(descriptor, at, count);
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0)
                failDamaged();
            at += got;
            count -= static_cast<std::size_t>(got);
        }
    }
    [[noreturn]] void failDamaged() const {
        file.fail("OpenVDB ends while it reads this file; it is damaged or incomplete");
    }
    static std::string cleaned(std::string_view text) {
        constexpr std::size_t longest = 300;
        std::string line(text.substr(0, longest));
        std::replace_if(
            line.begin(), line.end(), [](char c) { return c < ' ' || c > '~'; }, ' ');
        return line;
    }

    InputFile& file;
    PhaseProgress const& progress;
    pid_t child = -1;
    int descriptor = -1;
};

Column columnOf(std::string_view message, std::size_t offset) {
    ScalarType const type = message.front() == 'i' ? ScalarType::int64 : ScalarType::float64;
    std::size_t const line = message.find('\n');
    return {std::string(message.substr(1, line - 1)), std::string(message.substr(line + 1)), type,
            type, offset};
}

} // namespace

ParticleSet readVdb(InputFile& file, ReadOptions const& options) {
    if (file.isGzip() || !file.canBeReadAgain())
        file.fail("VDB is read from plain files only, not from {}; unpack it first",
                  file.isGzip() ? "gzipped ones" : "a pipe");
    requireOnlyFrame(file, options, "a VDB file");
    ParticleSet particles;
    particles.format = "OpenVDB points";
    particles.upAxis = 'y';
    std::vector<Column> columns;
    Reader reader(file, options.progress);
    Message kind = reader.next();
    for (; kind == Message::column || kind == Message::note; kind = reader.next()) {
        if (kind == Message::column)
            columns.push_back(columnOf(reader.bytes, columns.size() * valueBytes));
        else
            particles.notes.push_back(fmt::format("{}: {}", file.path(), reader.bytes));
    }
    std::size_t const rowBytes = columns.size() * valueBytes;
    RowConverter converter(particles, columns,
                           chooseUses(file, columns, vdbNames, options, particles),
                           options.summarise);
    for (; kind == Message::rows; kind = reader.next()) {
        std::size_t const rows = reader.bytes.size() / rowBytes;
        converter.append(reader.bytes.data(), rows, rowBytes, false);
        file.particles += rows;
    }
    return particles;
}

} // namespace kelpatool
