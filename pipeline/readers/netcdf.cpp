// The program kelpa-read-netcdf: trajectories and restarts of AMBER, as columns and rows for the
// one who started it.
#include "pipeline/files/printable.h"
#include "pipeline/readers/particlegroups.h"

#include <fmt/format.h>
#include <netcdf.h>
#include <netcdf_mem.h>
#include <sys/mman.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <new>
#include <optional>
#include <utility>

// AMBER NetCDF, its conventions 1.0 (trajectories) and AMBERRESTART 1.0 (one frame, in double
// precision): variables over the dimensions frame, atom and spatial. Lengths are in Angstrom, times
// in picoseconds, velocities in units that their scale_factor tells.

namespace {

using pipeline::quoted;
using pipeline::ReaderInput;
using pipeline::ReaderProblem;
using pipeline::ReaderSender;
using pipeline::ScalarType;

void check(int status, char const* what) {
    if (status != NC_NOERR)
        throw ReaderProblem(
            fmt::format("{}: {}; the file is damaged or incomplete", what,
                        status == EPERM ? "the file ends before it" : nc_strerror(status)));
}

/// An open file; closes with this object.
///
/// The library takes what lies behind the end of a file of the classic kinds for zeros; within
/// memory it knows where the end is. So the file is mapped, which copies nothing.
class NetcdfFile {
  public:
    explicit NetcdfFile(ReaderInput const& input) : bytes(static_cast<std::size_t>(input.bytes)) {
        int status = nc_open(input.namedPath.c_str(), NC_NOWRITE, &id);
        check(status, "it cannot be opened");
        int format = 0;
        nc_inq_format(id, &format);
        if (format == NC_FORMAT_NETCDF4 || format == NC_FORMAT_NETCDF4_CLASSIC)
            return;
        nc_close(std::exchange(id, -1));
        image = mmap(nullptr, bytes, PROT_READ, MAP_PRIVATE, pipeline::readerFileDescriptor, 0);
        if (image == MAP_FAILED)
            throw std::bad_alloc();
        status = nc_open_mem(input.namedPath.c_str(), NC_NOWRITE, bytes, image, &id);
        check(status, "it cannot be opened");
    }
    ~NetcdfFile() {
        if (id >= 0)
            nc_close(id);
    }
    NetcdfFile(NetcdfFile const&) = delete;
    NetcdfFile& operator=(NetcdfFile const&) = delete;

    int id = -1;

  private:
    std::size_t bytes;
    void* image = nullptr; ///< mapped as long as the program runs
};

std::size_t lengthOf(int file, char const* dimension) {
    int id = 0;
    std::size_t length = 0;
    if (nc_inq_dimid(file, dimension, &id) != NC_NOERR ||
        nc_inq_dimlen(file, id, &length) != NC_NOERR)
        return 0;
    return length;
}

std::string textOf(int file, char const* attribute) {
    std::size_t length = 0;
    nc_type type = NC_NAT;
    if (nc_inq_att(file, NC_GLOBAL, attribute, &type, &length) != NC_NOERR || type != NC_CHAR ||
        length > 4096)
        return {};
    std::string text(length, '\0');
    nc_get_att_text(file, NC_GLOBAL, attribute, text.data());
    return text;
}

/// A variable of numbers, perhaps one more dimension of which are the frames.
struct Variable {
    int file = -1;
    int id = -1;
    bool hasFrames = false;
    nc_type type = NC_FLOAT;
    double scale = 1.0;

    ScalarType scalar() const {
        return type == NC_FLOAT ? ScalarType::float32 : ScalarType::float64;
    }
    /// Reads rows of three numbers of a frame.
    void read(std::size_t frame, std::uint64_t first, std::uint64_t count, ScalarType as,
              char* to) const {
        std::array<std::size_t, 3> start = {frame, static_cast<std::size_t>(first), 0};
        std::array<std::size_t, 3> counts = {1, static_cast<std::size_t>(count), 3};
        std::size_t const begin = hasFrames ? 0 : 1;
        auto const numbers = static_cast<std::size_t>(count) * 3;
        if (as == ScalarType::float32 && scale == 1.0)
            return check(nc_get_vara_float(file, id, start.data() + begin, counts.data() + begin,
                                           reinterpret_cast<float*>(to)),
                         "its rows cannot be read");
        std::vector<double> values(numbers);
        check(nc_get_vara_double(file, id, start.data() + begin, counts.data() + begin,
                                 values.data()),
              "its rows cannot be read");
        pipeline::withType(as, [&]<class Number>(Number value) {
            for (double const number : values) {
                value = static_cast<Number>(number * scale);
                std::memcpy(to, &value, sizeof value);
                to += sizeof value;
            }
        });
    }
};

/// A variable whose last dimensions are of these lengths, behind one of frames or none.
std::optional<Variable> findVariable(int file, char const* name,
                                     std::vector<std::size_t> const& lengths) {
    Variable variable{file};
    int dimensions = 0;
    std::array<int, NC_MAX_VAR_DIMS> ids{};
    if (nc_inq_varid(file, name, &variable.id) != NC_NOERR ||
        nc_inq_var(file, variable.id, nullptr, &variable.type, &dimensions, ids.data(), nullptr) !=
            NC_NOERR ||
        (variable.type != NC_FLOAT && variable.type != NC_DOUBLE))
        return std::nullopt;
    std::size_t const count = static_cast<std::size_t>(dimensions);
    variable.hasFrames = count == lengths.size() + 1;
    if (count != lengths.size() && !variable.hasFrames)
        throw ReaderProblem(fmt::format("{} has {} dimensions", quoted(name), count));
    for (std::size_t i = 0; i < lengths.size(); ++i) {
        std::size_t length = 0;
        nc_inq_dimlen(file, ids[i + (variable.hasFrames ? 1 : 0)], &length);
        if (length != lengths[i])
            throw ReaderProblem(fmt::format("{} has {} entries where there are {}", quoted(name),
                                            length, lengths[i]));
    }
    nc_get_att_double(file, variable.id, "scale_factor", &variable.scale);
    return variable;
}

/// Sends the time and the cell of a frame.
void sendFrameFacts(int file, std::size_t frame, ReaderSender const& sender) {
    double time = 0.0;
    if (auto const variable = findVariable(file, "time", {})) {
        std::size_t const start[] = {frame};
        check(nc_get_var1_double(file, variable->id, variable->hasFrames ? start : nullptr, &time),
              "its time cannot be read");
        sender.fact("time", fmt::format("{}", time * variable->scale));
    }
    std::string lattice;
    for (char const* const name : {"cell_lengths", "cell_angles"}) {
        auto const variable = findVariable(file, name, {3});
        if (!variable)
            return;
        std::size_t const start[] = {frame, 0};
        std::size_t const count[] = {1, 3};
        std::array<double, 3> values{};
        std::size_t const begin = variable->hasFrames ? 0 : 1;
        check(nc_get_vara_double(file, variable->id, start + begin, count + begin, values.data()),
              "its cell cannot be read");
        lattice += fmt::format("{} ", fmt::join(values, " "));
    }
    sender.fact("lattice", lattice);
}

void readAmber(ReaderInput const& input, ReaderSender const& sender) {
    NetcdfFile const file(input);
    if (textOf(file.id, "Conventions").find("AMBER") == std::string::npos)
        throw ReaderProblem("it is NetCDF, and its attribute Conventions does not say AMBER or "
                            "AMBERRESTART");
    std::size_t const atoms = lengthOf(file.id, "atom");
    auto const places = findVariable(file.id, "coordinates", {atoms, 3});
    if (atoms == 0 || !places)
        throw ReaderProblem("it holds no coordinates");
    std::size_t const frames = places->hasFrames ? lengthOf(file.id, "frame") : 1;
    auto const frame = static_cast<std::size_t>(input.frameOf(frames));
    sender.fact("format", places->hasFrames ? "AMBER NetCDF" : "AMBER NetCDF restart");
    sender.fact("frames", fmt::format("{}", frames));
    if (input.findOnly)
        return;
    sendFrameFacts(file.id, frame, sender);
    pipeline::ParticleGroup group;
    group.count = atoms;
    for (char const* const name : {"coordinates", "velocities", "forces"})
        if (auto const variable = findVariable(file.id, name, {atoms, 3}))
            group.columns.push_back(
                {name,
                 pipeline::endingsOf(3),
                 variable->scalar(),
                 scalarName(variable->scalar()),
                 [variable, frame](std::uint64_t first, std::uint64_t count, ScalarType as,
                                   char* to) { variable->read(frame, first, count, as, to); },
                 {}});
    sendGroups({group}, input, sender);
}

} // namespace

int main(int argc, char** argv) {
    return pipeline::runReader(argc, argv, readAmber);
}
