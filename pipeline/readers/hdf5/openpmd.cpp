// openPMD particles.
#include "pipeline/files/printable.h"
#include "pipeline/readers/hdf5/dialects.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <iterator>
#include <map>

// openPMD: iterations of a simulation are groups, by number, each with species of particles. A
// record of a species is an array or, of vectors, a group of arrays "x", "y" and "z"; what all
// particles share is a group with the attributes "value" and "shape". Places in metres are those in
// "position" and in "positionOffset" together, each times its own unit.

namespace pipeline {

namespace {

constexpr char const* axes[] = {"x", "y", "z"};

/// An array of numbers, or one number that all particles share.
struct Component {
    std::optional<H5Array> array;
    double value = 0.0;
    std::uint64_t count = 0;
    double unit = 1.0; ///< in that of the SI

    void read(std::uint64_t first, std::uint64_t number, ScalarType as, char* to) const {
        if (array)
            return array->read({{first, number}}, as, to);
        constantSource("", std::vector{value}).read(first, number, as, to);
    }
    ScalarType type() const { return array ? array->type() : ScalarType::float64; }
};

std::optional<Component> componentAt(hid_t place, std::string const& path,
                                     std::uint64_t fileBytes) {
    Component component;
    auto const takeUnit = [&component](hid_t object) {
        std::vector<double> const unit = numbersOf(object, "unitSI");
        component.unit = unit.empty() ? 1.0 : unit[0];
    };
    component.array = H5Array::open(place, path, fileBytes);
    if (component.array) {
        if (component.array->rank() != 1)
            return std::nullopt;
        component.count = component.array->shape()[0];
        takeUnit(component.array->id());
        return component;
    }
    H5Handle const group = openGroup(place, path);
    std::vector<double> const value =
        group.isOpen() ? numbersOf(group, "value") : std::vector<double>{};
    std::vector<double> const shape = value.empty() ? value : numbersOf(group, "shape");
    if (value.size() != 1 || shape.size() != 1 || !(shape[0] >= 0.0 && shape[0] < 1e18))
        return std::nullopt;
    component.value = value[0];
    component.count = static_cast<std::uint64_t>(shape[0]);
    takeUnit(group);
    return component;
}

/// A source of one column of places: both parts of them, in metres.
ColumnSource placeSource(char const* axis, std::optional<Component> const& position,
                         std::optional<Component> const& offset) {
    auto const read = [=](std::uint64_t first, std::uint64_t count, ScalarType as, char* to) {
        auto const numbers = static_cast<std::size_t>(count);
        std::vector<double> sum(numbers);
        std::vector<double> part(numbers);
        for (std::optional<Component> const& each : {position, offset})
            if (each) {
                each->read(first, count, ScalarType::float64, reinterpret_cast<char*>(part.data()));
                for (std::size_t i = 0; i < numbers; ++i)
                    sum[i] += part[i] * each->unit;
            }
        withType(as, [&]<class Number>(Number value) {
            for (double const number : sum) {
                value = static_cast<Number>(number);
                std::memcpy(to, &value, sizeof value);
                to += sizeof value;
            }
        });
    };
    return {"position", {std::string(".") + axis}, ScalarType::float64, "metres", read, {}};
}

ColumnSource componentSource(std::string name, Component const& component) {
    auto const read = [component](std::uint64_t first, std::uint64_t count, ScalarType as,
                                  char* to) { component.read(first, count, as, to); };
    return {std::move(name), {""}, component.type(), scalarName(component.type()), read, {}};
}

/// Adds the columns of a species' record that is no place. Notes what has other rows.
void addRecord(hid_t species, std::string const& record, std::uint64_t fileBytes,
               ParticleGroup& group, ReaderSender const& sender) {
    auto const add = [&](std::string const& path, std::string name) {
        std::optional<Component> const component = componentAt(species, path, fileBytes);
        if (!component)
            return false;
        if (component->count == group.count)
            group.columns.push_back(componentSource(std::move(name), *component));
        else
            sender.note(fmt::format("{} is not read: it has {} rows, and there are {} particles",
                                    quoted(path), component->count, group.count));
        return true;
    };
    H5Handle const parts = openGroup(species, record);
    if (add(record, record) || !parts.isOpen())
        return;
    for (std::string const& part : membersOf(parts))
        add(fmt::format("{}/{}", record, part), fmt::format("{}.{}", record, part));
}

/// The particles of a species; nothing where it has no places.
std::optional<ParticleGroup> groupOf(hid_t species, std::string const& name,
                                     std::uint64_t fileBytes, ReaderSender const& sender) {
    ParticleGroup group;
    bool hasPlaces = false;
    for (char const* const axis : axes) {
        std::optional<Component> const position =
            componentAt(species, std::string("position/") + axis, fileBytes);
        std::optional<Component> const offset =
            componentAt(species, std::string("positionOffset/") + axis, fileBytes);
        if (position && hasPlaces && position->count != group.count)
            throw ReaderProblem(fmt::format("the positions of {} have {} rows along x and {} along "
                                            "{}",
                                            quoted(name), group.count, position->count, axis));
        if (position && offset && offset->count != position->count)
            throw ReaderProblem(fmt::format("{} has {} positions and {} offsets of them along {}",
                                            quoted(name), position->count, offset->count, axis));
        if (position && !hasPlaces)
            group.count = position->count;
        hasPlaces = hasPlaces || position;
        group.columns.push_back(placeSource(axis, position, offset));
    }
    if (!hasPlaces)
        return std::nullopt;
    for (std::string const& record : membersOf(species))
        if (record != "position" && record != "positionOffset")
            addRecord(species, record, fileBytes, group, sender);
    return group;
}

/// The iterations in a file by their numbers, rising, with the names of their groups.
std::map<std::int64_t, std::string> iterationsOf(hid_t data) {
    std::map<std::int64_t, std::string> iterations;
    for (std::string const& name : membersOf(data)) {
        std::int64_t number = 0;
        auto const [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
        if (error == std::errc{} && end == name.data() + name.size())
            iterations.emplace(number, name);
    }
    return iterations;
}

/// The species that are wanted, by name. Refuses names that none has.
std::vector<std::string> chooseSpecies(hid_t particles, ReaderInput const& input) {
    std::vector<std::string> present =
        particles >= 0 ? membersOf(particles) : std::vector<std::string>{};
    if (input.kinds.empty())
        return present;
    for (std::string const& name : input.kinds)
        if (std::find(present.begin(), present.end(), name) == present.end())
            throw ReaderProblem(
                fmt::format("no species {}; it has {}", quoted(name), fmt::join(present, ", ")));
    return input.kinds;
}

void sendTime(hid_t iteration, ReaderSender const& sender) {
    std::vector<double> const time = numbersOf(iteration, "time");
    std::vector<double> const unit = numbersOf(iteration, "timeUnitSI");
    if (!time.empty())
        sender.fact("time", fmt::format("{}", time[0] * (unit.empty() ? 1.0 : unit[0])));
}

bool isOpenPmd(hid_t file) {
    return !textOf(file, "openPMD").empty();
}

void sendIteration(hid_t file, ReaderInput const& input, ReaderSender const& sender) {
    H5Handle const data = openGroup(file, "data");
    std::map<std::int64_t, std::string> const iterations =
        data.isOpen() ? iterationsOf(data) : std::map<std::int64_t, std::string>{};
    if (iterations.empty())
        throw ReaderProblem("it holds no iteration below 'data'");
    auto const& [number, name] = *std::next(iterations.begin(), input.frameOf(iterations.size()));
    sender.fact("format", "HDF5 (openPMD)");
    sender.fact("frames", fmt::format("{}", iterations.size()));
    sender.fact("step", fmt::format("{}", number));
    if (input.findOnly)
        return;
    H5Handle const iteration = openGroup(data, name);
    if (!iteration.isOpen())
        throw ReaderProblem(
            fmt::format("iteration {} cannot be opened; the file is damaged", number));
    sendTime(iteration, sender);
    std::string path = textOf(file, "particlesPath");
    path = path.substr(0, path.find_last_not_of('/') + 1);
    H5Handle const particles = openGroup(iteration, path.empty() ? "particles" : path);
    std::vector<std::string> const species = chooseSpecies(particles, input);
    std::vector<ParticleGroup> groups;
    std::vector<std::pair<std::int64_t, std::string>> names;
    for (std::string const& kind : species) {
        H5Handle const each = openGroup(particles, kind);
        std::optional<ParticleGroup> group =
            each.isOpen() ? groupOf(each, kind, input.bytes, sender) : std::nullopt;
        if (!group)
            continue;
        group->columns.push_back(
            constantSource("species", static_cast<std::int64_t>(names.size())));
        names.emplace_back(names.size(), kind);
        groups.push_back(std::move(*group));
    }
    if (groups.empty())
        throw ReaderProblem(fmt::format("iteration {} holds no particles with positions; meshes "
                                        "are not read",
                                        number));
    for (ParticleGroup& group : groups)
        group.columns.back().names = names;
    sendGroups(groups, input, sender);
}

} // namespace

H5Dialect const openPmd = {isOpenPmd, sendIteration};

} // namespace pipeline
