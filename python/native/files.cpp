// Reads frames with the interpreter's lock given away, and lends their arrays to numpy.
#include "python/native/files.h"

#include "pipeline/files/errors.h"
#include "pipeline/files/formattable.h"
#include "pipeline/files/framesource.h"
#include "pipeline/files/nameelements.h"
#include "pipeline/scene/scene.h"
#include "pipeline/scene/secondsnapshot.h"

#include "python/native/arrays.h"
#include "python/native/wanted.h"
#include "python/native/watch.h"

#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace py = pybind11;

namespace kelpapython {

std::string hintText(pipeline::Hint const& hint) {
    using To = pipeline::Hint::To;
    switch (hint.to) {
    case To::nothing:
        return "";
    case To::nameFormat:
        return "; if it is one of them, name it with format=; what ASE or MDAnalysis read, "
               "from_ase and from_mdanalysis take, and Particles takes arrays of yt and others";
    case To::askNoAssembly:
        return "; leave assembly= away";
    case To::askElsewhere:
        return "; assembly= is for PDB and mmCIF";
    case To::readEarlierFrame:
        return "; use frame=" + std::to_string(hint.frame) + " or an earlier one";
    case To::moveByVelocity:
        return " for motion=\"velocity\"";
    case To::standStill:
        return "; use motion=\"none\"";
    case To::setRadius:
        return "; set radius=";
    case To::setRange:
        return "; set range=";
    case To::nameElements:
        return " for elements=";
    case To::nameMoreElements:
        return ", and elements= names " + std::to_string(hint.count);
    case To::renderTiles:
        return "; render(tile=(k, n)) makes some";
    }
    return "";
}

namespace {

using pipeline::ParticleSet;
using pipeline::PhaseProgress;

/// A particle set as a scene, and what of it no scene keeps.
struct Snapshot {
    pipeline::Scene scene;
    std::vector<pipeline::TypedColumn> columns;
    std::vector<pipeline::Attribute> attributes; ///< further columns, which were asked for by name
    std::vector<Kelpa::Vector> velocities;
    std::vector<std::uint8_t> elements;
    std::vector<std::int64_t> types;
    std::optional<pipeline::PeriodicCell> cell;
    std::array<int, 3> copies{}; ///< of the cell
    std::vector<pipeline::Remark> notes;
    std::string name;
    std::string format;
    int frame = 0;
    std::optional<std::int64_t> step;
    std::optional<double> time;
};

Snapshot makeSnapshot(Wanted const& wanted, ParticleSet particles,
                      std::optional<ParticleSet> second, PhaseProgress const& progress) {
    Snapshot result;
    result.notes = particles.notes;
    auto const note = [&result](pipeline::Remark const& n) { result.notes.push_back(n); };
    auto const look = [&result](ParticleSet& selected) {
        result.name = selected.name;
        result.format = selected.format;
        result.frame = selected.frame;
        result.step = selected.step;
        result.time = selected.time;
        result.cell = selected.cell;
        result.copies = selected.copies;
        result.elements = selected.elements;
        result.types = selected.types;
        result.velocities = selected.velocities;
        result.columns = std::move(selected.typed);
        result.attributes = selected.attributes;
    };
    result.scene = pipeline::makeSelectedScene(
        wanted.scene, std::move(particles), second ? &*second : nullptr, {}, note, progress, look);
    return result;
}

/// The vector's own memory as an array of rows of `width` numbers, or flat if that is 0.
template <class T, class Number>
py::array ownedArray(std::vector<T>&& values, Number const*, py::ssize_t width) {
    auto kept = std::make_unique<std::vector<T>>(std::move(values));
    auto const count = static_cast<py::ssize_t>(kept->size());
    auto const* const data = reinterpret_cast<Number const*>(kept->data());
    py::capsule const owner(kept.release(),
                            [](void* p) { delete static_cast<std::vector<T>*>(p); });
    if (width == 0)
        return py::array_t<Number>(count, data, owner);
    return py::array_t<Number>({count, width}, data, owner);
}
template <class T> py::array ownedArray(std::vector<T>&& values) {
    return ownedArray(std::move(values), static_cast<T const*>(nullptr), 0);
}
py::array ownedArray(std::vector<Kelpa::Vector>&& values) {
    return ownedArray(std::move(values), static_cast<float const*>(nullptr), 3);
}

py::array ownedArray(pipeline::TypedColumn&& column) {
    auto const bytes = static_cast<py::ssize_t>(scalarBytes(column.type));
    py::array const kept = ownedArray(std::move(column.bytes));
    py::dtype const type{std::string(scalarName(column.type))};
    return py::array(type, {kept.size() / bytes}, {bytes}, kept.data(), kept);
}

/// Names in place of the numbers that count entries of a table.
py::array namesOf(py::array const& numbers, pipeline::NameTable const& names) {
    py::module_ const numpy = py::module_::import("numpy");
    py::object const table = numpy.attr("array")(py::cast(names.all()), py::dtype("U"));
    return table.attr("take")(numbers.attr("astype")("int64"));
}

/// Positions and radii of a system, which stays alive with them. What a scene has subtracted from
/// the positions is added again, which is exact.
std::pair<py::array, py::array> systemArrays(std::unique_ptr<pipeline::Snapshot> system,
                                             pipeline::Vec const& origin) {
    pipeline::Snapshot* const kept = system.release();
    py::capsule const owner(kept, [](void* p) { delete static_cast<pipeline::Snapshot*>(p); });
    auto const count = static_cast<py::ssize_t>(kept->radii.size());
    py::array const radii = py::array_t<float>(count, kept->radii.data(), owner);
    if (origin.x == 0.0 && origin.y == 0.0 && origin.z == 0.0)
        return {py::array_t<float>({count, py::ssize_t{3}},
                                   reinterpret_cast<float const*>(kept->positions.data()), owner),
                radii};
    std::vector<Kelpa::Vector> positions = kept->positions;
    for (Kelpa::Vector& p : positions)
        p = {static_cast<float>(static_cast<double>(p.x) + origin.x),
             static_cast<float>(static_cast<double>(p.y) + origin.y),
             static_cast<float>(static_cast<double>(p.z) + origin.z)};
    return {ownedArray(std::move(positions)), radii};
}

py::object cellOf(Snapshot const& snapshot) {
    auto const& cell = snapshot.cell;
    if (!cell)
        return py::none();
    return py::make_tuple(cell->edges, cell->origin, py::tuple(py::cast(cell->isPeriodic)),
                          py::tuple(py::cast(snapshot.copies)));
}

/// The further columns that are wanted, by name.
py::dict columnsOf(Snapshot& snapshot, Wanted const& wanted, std::size_t count) {
    py::dict columns;
    // Particles that only a second snapshot has stand behind the first one's and are in no column.
    auto const keep = [&](char const* name, auto& values) {
        if (!values.empty() && values.size() == count)
            columns[name] = ownedArray(std::move(values));
    };
    auto const name = [&](std::string const& column,
                          std::shared_ptr<pipeline::NameTable const> const& names) {
        if (py::str const key(column); names != nullptr && columns.contains(key))
            columns[key] = namesOf(columns[key], *names);
    };
    for (pipeline::TypedColumn& column : snapshot.columns) {
        if (!wanted.keeps(column.name) || column.bytes.size() != count * scalarBytes(column.type))
            continue;
        std::string const key = column.name;
        auto const names = column.names;
        columns[key.c_str()] = ownedArray(std::move(column));
        name(key, names);
    }
    for (pipeline::Attribute& attribute : snapshot.attributes)
        if (wanted.keeps(attribute.name)) {
            keep(attribute.name.c_str(), attribute.values);
            name(attribute.name, attribute.names);
        }
    keep("velocity", snapshot.velocities);
    keep("element", snapshot.elements);
    keep("type", snapshot.types);
    return columns;
}

/// In names of `Particles`, as far as it has them.
py::dict dictOf(Snapshot snapshot, Wanted const& wanted) {
    pipeline::Scene& scene = snapshot.scene;
    auto const count = scene.first->positions.size();
    py::dict result;
    bool const isMoving = scene.second != nullptr;
    auto const [positions, radii] = systemArrays(std::move(scene.first), scene.origin);
    result["positions"] = positions;
    result["radii"] = radii;
    if (isMoving) {
        auto const [positions1, radii1] = systemArrays(std::move(scene.second), scene.origin);
        result["positions1"] = positions1;
        result["radii1"] = radii1;
    }
    if (scene.colors.empty() && wanted.scene.color.color)
        scene.colors.assign(count, *wanted.scene.color.color);
    if (!scene.colors.empty())
        result["colors"] = ownedArray(std::move(scene.colors));
    if (!scene.ids.empty())
        result["ids"] = ownedArray(std::move(scene.ids));
    if (wanted.scene.points)
        result["type"] = "point";
    result["columns"] = columnsOf(snapshot, wanted, count);
    result["cell"] = cellOf(snapshot);
    result["up_axis"] = std::string(1, scene.upAxis);
    std::vector<std::string> notes;
    for (pipeline::Remark const& note : snapshot.notes)
        notes.push_back(note.text + hintText(note.hint));
    result["notes"] = notes;
    result["name"] = snapshot.name;
    result["format"] = snapshot.format;
    result["frame"] = snapshot.frame;
    result["step"] = snapshot.step;
    result["time"] = snapshot.time;
    return result;
}

/// The frames of a file or of a sequence. Safe from several threads, which wait for each other.
class Frames {
  public:
    explicit Frames(std::vector<std::string> const& paths)
        : source(paths.at(0), {paths.begin() + 1, paths.end()}) {}

    std::vector<int> numbers(Wanted const& wanted, py::object const& progress) {
        std::vector<int> result;
        runWatched(progress, "Counting frames", [&](PhaseProgress const& report) {
            std::lock_guard const hold(mutex);
            pipeline::FrameNumbers const found =
                source.framesIn({{0, -1, 1}}, wanted.readOptions(report));
            for (auto frame = found.after(std::nullopt); frame; frame = found.after(frame))
                result.push_back(*frame);
        });
        return result;
    }

    py::dict read(std::optional<int> frame, Wanted const& wanted, py::object const& progress) {
        std::optional<Snapshot> snapshot;
        runWatched(progress, "Reading", [&](PhaseProgress const& report) {
            std::lock_guard const hold(mutex);
            pipeline::ReadOptions const options = wanted.readOptions(report);
            ParticleSet first = source.read(frame, options);
            pipeline::nameElements(first, wanted.elements);
            pipeline::SecondSnapshot second = pipeline::readSecond(
                wanted.scene.motion.motion, source, first, frame, wanted.elements, options);
            if (!second.gap.empty())
                first.notes.emplace_back(second.gap + "; the motion is that of one");
            first.notes.insert(first.notes.end(), second.notes.begin(), second.notes.end());
            snapshot = makeSnapshot(wanted, std::move(first), std::move(second.particles), report);
        });
        return dictOf(std::move(*snapshot), wanted);
    }

  private:
    std::mutex mutex;
    pipeline::FrameSource source;
};

/// Errors as Python's, with the way on in Python's words.
void defineErrors(py::module_& module) {
    static py::exception<pipeline::InputError> const readError(module, "ReadError",
                                                               PyExc_ValueError);
    static py::exception<pipeline::NoSuchFrame> const noSuchFrame(module, "NoSuchFrame",
                                                                  readError.ptr());
    // pybind11 hands it over as a copy. NOLINTNEXTLINE(performance-unnecessary-value-param)
    py::register_exception_translator([](std::exception_ptr thrown) {
        try {
            if (thrown)
                std::rethrow_exception(thrown);
        } catch (pipeline::NoSuchFrame const& error) {
            PyErr_SetString(noSuchFrame.ptr(), (error.what() + hintText(error.hint)).c_str());
        } catch (pipeline::InputError const& error) {
            PyErr_SetString(readError.ptr(), (error.what() + hintText(error.hint)).c_str());
        }
    });
}

} // namespace

void defineFiles(py::module_& module) {
    defineErrors(module);
    module.def("format_names", &pipeline::formatNames);
    defineWanted(module);
    py::class_<Frames>(module, "Frames")
        .def(py::init<std::vector<std::string> const&>())
        .def("numbers", &Frames::numbers)
        .def("read", &Frames::read);
}

} // namespace kelpapython
