// Snapshots of cosmology in HDF5.
#include "pipeline/files/printable.h"
#include "pipeline/readers/hdf5/dialects.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <vector>

// Snapshots of Gadget, GIZMO, AREPO, SWIFT and EAGLE. A group PartTypeN holds an array for each
// quantity, the group Header counts, the box and the time. A snapshot may lie in several files of
// the same name but for a number before the suffix; any of them stands for all.

namespace pipeline {

namespace {

struct Kind {
    int number;
    std::vector<std::string> names; ///< the first is what it is called, the others are known too
};

std::vector<Kind> const& allKinds() {
    static std::vector<Kind> const kinds = {
        {0, {"gas"}},
        {1, {"dm", "dark_matter", "dark", "halo"}},
        {2, {"disk"}},
        {3, {"bulge"}},
        {4, {"stars", "star"}},
        {5, {"bh", "black_holes", "black_hole"}},
        {6, {"neutrinos", "neutrino"}},
    };
    return kinds;
}

std::string groupOf(Kind const& kind) {
    return fmt::format("PartType{}", kind.number);
}

bool isNamed(Kind const& kind, std::string const& name) {
    return name == std::to_string(kind.number) || name == groupOf(kind) ||
           std::find(kind.names.begin(), kind.names.end(), name) != kind.names.end();
}

/// One file of a snapshot.
struct SnapshotFile {
    std::string path;
    std::uint64_t bytes = 0;
    H5Handle file;
    H5Handle header;
};

SnapshotFile openFile(std::string const& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0)
        throw ReaderProblem(
            fmt::format("it is one of several files, and {} is not there",
                        pipeline::quoted(std::filesystem::path(path).filename().string())));
    SnapshotFile opened{path, static_cast<std::uint64_t>(status.st_size), openH5File(path), {}};
    opened.header = openGroup(opened.file, "Header");
    return opened;
}

double numberOf(hid_t object, char const* attribute, double otherwise) {
    std::vector<double> const numbers = numbersOf(object, attribute);
    return numbers.empty() ? otherwise : numbers[0];
}

/// Where in a path the number is that tells the files of a snapshot apart: "snap_028.3.hdf5".
std::pair<std::size_t, std::size_t> findFileNumber(std::string const& path) {
    std::size_t const end = path.rfind('.');
    std::size_t const dot = end == std::string::npos || end == 0 ? end : path.rfind('.', end - 1);
    bool const isNumber = dot != std::string::npos && end > dot + 1 &&
                          std::all_of(path.begin() + static_cast<std::ptrdiff_t>(dot) + 1,
                                      path.begin() + static_cast<std::ptrdiff_t>(end),
                                      [](char c) { return c >= '0' && c <= '9'; });
    return isNumber ? std::pair(dot + 1, end) : std::pair(std::string::npos, std::string::npos);
}

/// All files of the snapshot that one of them is of.
std::vector<SnapshotFile> openFiles(ReaderInput const& input, ReaderSender const& sender) {
    std::vector<SnapshotFile> files;
    files.push_back(openFile(input.namedPath));
    constexpr double mostFiles = 4096;
    double const count = numberOf(files[0].header, "NumFilesPerSnapshot", 1.0);
    if (!(count > 1.0))
        return files;
    auto const [begin, end] = findFileNumber(input.namedPath);
    if (begin == std::string::npos || count > mostFiles) {
        sender.note(fmt::format("it is one of {:.0f} files of a snapshot, and its name does not "
                                "tell the others; it is read alone",
                                count));
        return files;
    }
    files.clear();
    for (int number = 0; number < static_cast<int>(count); ++number)
        files.push_back(openFile(
            std::string(input.namedPath).replace(begin, end - begin, std::to_string(number))));
    return files;
}

/// The kinds that are wanted and there. Refuses names that no kind has.
std::vector<Kind> chooseKinds(std::vector<SnapshotFile> const& files, ReaderInput const& input) {
    std::vector<Kind> present;
    std::string names;
    for (Kind const& kind : allKinds())
        if (std::any_of(files.begin(), files.end(), [&](SnapshotFile const& file) {
                return isGroup(file.file, groupOf(kind)) &&
                       hasObject(file.file, groupOf(kind) + "/Coordinates");
            })) {
            present.push_back(kind);
            names += (names.empty() ? "" : ", ") + kind.names[0];
        }
    if (present.empty())
        throw ReaderProblem("none of its groups PartType0 to PartType6 has Coordinates");
    if (input.kinds.empty())
        return present;
    std::vector<Kind> chosen;
    for (std::string const& name : input.kinds) {
        auto const kind = std::find_if(present.begin(), present.end(),
                                       [&](Kind const& each) { return isNamed(each, name); });
        if (kind == present.end())
            throw ReaderProblem(
                fmt::format("no particles of kind {}; it has {}", pipeline::quoted(name), names));
        if (std::none_of(chosen.begin(), chosen.end(),
                         [&](Kind const& each) { return each.number == kind->number; }))
            chosen.push_back(*kind);
    }
    return chosen;
}

/// The particles of a kind in one file. Refuses counts that disagree.
ParticleGroup groupIn(SnapshotFile const& file, Kind const& kind, ReaderSender const& sender) {
    ParticleGroup particles;
    std::string const name = groupOf(kind);
    H5Handle const group = openGroup(file.file, name);
    std::vector<double> const counts = numbersOf(file.header, "NumPart_ThisFile");
    auto const number = static_cast<std::size_t>(kind.number);
    double const told = number < counts.size() ? counts[number] : -1.0;
    std::optional<H5Array> const places =
        group.isOpen() ? H5Array::open(group, "Coordinates", file.bytes) : std::nullopt;
    if (places && (places->rank() != 2 || places->shape()[1] != 3))
        throw ReaderProblem(
            fmt::format("{}/Coordinates is no array of three numbers a particle", name));
    particles.count = places ? places->shape()[0] : 0;
    if (told >= 0.0 && static_cast<double>(particles.count) != told)
        throw ReaderProblem(fmt::format("{}/Coordinates has {} rows, and the header tells of {:.0f}"
                                        " particles",
                                        name, particles.count, told));
    for (std::string const& member :
         group.isOpen() ? membersOf(group) : std::vector<std::string>{}) {
        std::optional<H5Array> const array = H5Array::open(group, member, file.bytes);
        if (!array)
            continue;
        bool const isTable = array->rank() == 1 || array->rank() == 2;
        if (!isTable || array->shape()[0] != particles.count) {
            sender.note(fmt::format("{}/{} is not read: it is no array of {} rows", name, member,
                                    particles.count));
            continue;
        }
        particles.columns.push_back(arraySource(member == "ParticleIDs" ? "id" : member, *array));
    }
    return particles;
}

/// Adds what the header tells of all particles of a kind: their mass.
void addMass(ParticleGroup& particles, SnapshotFile const& file, Kind const& kind) {
    std::vector<double> const masses = numbersOf(file.header, "MassTable");
    auto const number = static_cast<std::size_t>(kind.number);
    bool const isThere =
        std::any_of(particles.columns.begin(), particles.columns.end(),
                    [](ColumnSource const& source) { return source.name == "Masses"; });
    if (!isThere && number < masses.size() && masses[number] > 0.0)
        particles.columns.push_back(constantSource("Masses", std::vector{masses[number]}));
}

/// Refuses files that together hold another number of particles than the header says.
void checkTotal(std::vector<SnapshotFile> const& files, Kind const& kind, std::uint64_t found) {
    std::vector<double> const low = numbersOf(files[0].header, "NumPart_Total");
    std::vector<double> const high = numbersOf(files[0].header, "NumPart_Total_HighWord");
    auto const number = static_cast<std::size_t>(kind.number);
    double const told = number < low.size() ? low[number] : -1.0;
    double const above = number < high.size() ? high[number] * 4294967296.0 : 0.0;
    bool const isWhole =
        numberOf(files[0].header, "NumFilesPerSnapshot", 1.0) == static_cast<double>(files.size());
    double const count = static_cast<double>(found);
    // Counts of 64 bits need no high words, and some programs write both.
    if (isWhole && told >= 0.0 && count != told && count != told + above)
        throw ReaderProblem(fmt::format("its files hold {} particles of kind {}, and the header "
                                        "tells of {:.0f}",
                                        found, kind.names[0], told + above));
}

std::string titleOf(SnapshotFile const& file) {
    if (textOf(file.header, "Code") == "SWIFT")
        return "HDF5 (SWIFT)";
    if (!numbersOf(file.header, "GIZMO_version").empty())
        return "HDF5 (GIZMO)";
    H5Handle const config = openGroup(file.file, "Config");
    if (config.isOpen() && H5Aexists(config, "VORONOI") > 0)
        return "HDF5 (AREPO)";
    return isGroup(file.file, "RuntimePars") ? "HDF5 (EAGLE)" : "HDF5 (Gadget and kin)";
}

void sendFacts(SnapshotFile const& file, ReaderSender const& sender) {
    sender.fact("format", titleOf(file));
    sender.fact("frames", "1");
    std::vector<double> const time = numbersOf(file.header, "Time");
    if (!time.empty())
        sender.fact("time", fmt::format("{}", time[0]));
    std::vector<double> box = numbersOf(file.header, "BoxSize");
    if (box.size() == 1)
        box.assign(3, box[0]);
    if (box.size() == 3 && std::all_of(box.begin(), box.end(), [](double length) {
            return length > 0.0 && std::isfinite(length);
        }))
        sender.fact("cell", cellText({}, {{{box[0], 0, 0}, {0, box[1], 0}, {0, 0, box[2]}}},
                                     {true, true, true}));
}

bool isGadget(hid_t file) {
    return isGroup(file, "Header") &&
           std::any_of(allKinds().begin(), allKinds().end(),
                       [file](Kind const& kind) { return isGroup(file, groupOf(kind)); });
}

void sendSnapshot(hid_t, ReaderInput const& input, ReaderSender const& sender) {
    input.frameOf(1);
    std::vector<SnapshotFile> const files = openFiles(input, sender);
    sendFacts(files[0], sender);
    if (input.findOnly)
        return;
    std::vector<Kind> const kinds = chooseKinds(files, input);
    std::vector<std::pair<std::int64_t, std::string>> names;
    for (Kind const& kind : allKinds())
        names.emplace_back(kind.number, kind.names[0]);
    std::vector<ParticleGroup> groups;
    for (Kind const& kind : kinds) {
        std::uint64_t count = 0;
        for (SnapshotFile const& file : files) {
            groups.push_back(groupIn(file, kind, sender));
            addMass(groups.back(), file, kind);
            count += groups.back().count;
            if (kinds.size() > 1) {
                groups.back().columns.push_back(constantSource("species", kind.number));
                groups.back().columns.back().names = names;
            }
        }
        checkTotal(files, kind, count);
    }
    std::erase_if(groups, [](ParticleGroup const& group) { return group.columns.empty(); });
    sendGroups(groups, input, sender);
}

} // namespace

H5Dialect const gadget = {isGadget, sendSnapshot};

} // namespace pipeline
