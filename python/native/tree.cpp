// Builds trees over arrays where they lie, and answers for them.
#include "python/native/tree.h"

#include "kelpa/foundation/exceptionmsg.h"

#include "pipeline/picture/render.h"

#include "python/native/rays.h"
#include "python/native/scene.h"
#include "python/native/watch.h"

#include <pybind11/stl.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <limits>
#include <tuple>
#include <utility>

namespace py = pybind11;

namespace kelpapython {

namespace {

constexpr std::size_t raysPerPiece = 1024; // about a millisecond

Kelpa::ParticleData snapshot(Arrays const& arrays, Array<float> const& positions,
                             Array<float> const& radii, double time) {
    auto const count = static_cast<std::int32_t>(radii.size());
    auto const* const colors = arrays.colors ? vectorsOf(*arrays.colors) : nullptr;
    return {time,  arrays.type, vectorsOf(positions),         count, radii.data(),
            count, colors,      colors != nullptr ? count : 0};
}

System systemOf(Arrays const& arrays) {
    System system{snapshot(arrays, arrays.positions, arrays.radii, arrays.time0), std::nullopt,
                  arrays.base};
    if (arrays.positions1)
        system.second = snapshot(arrays, *arrays.positions1, *arrays.radii1, arrays.time1);
    return system;
}

template <class T> PerRay<T> perRay(Array<T> const& values, std::size_t rays) {
    return {values.data(), static_cast<std::size_t>(values.size()) != rays};
}
PerRay<Kelpa::Vector> perRayVector(Array<float> const& values, std::size_t rays) {
    return {vectorsOf(values), static_cast<std::size_t>(values.size()) != 3 * rays};
}

bool isZero(pipeline::Vec const& v) {
    return v.x == 0.0 && v.y == 0.0 && v.z == 0.0;
}

/// The nearest number of single precision, on the side of `direction` where it has to be rounded.
float rounded(double value, double direction) {
    auto const nearest = static_cast<float>(value);
    bool const isInside = direction < 0.0 ? static_cast<double>(nearest) > value
                                          : static_cast<double>(nearest) < value;
    return isInside ? std::nextafter(nearest, static_cast<float>(direction)) : nearest;
}

} // namespace

Tree::Tree(std::vector<Arrays> given, pipeline::TreeOptions const& options, int threads,
           py::object const& progress)
    : arrays(std::move(given)) {
    for (Arrays const& one : arrays)
        systems.push_back(systemOf(one));
    auto const begin = std::chrono::steady_clock::now();
    runBuild(progress, [&](Kelpa::ProgressCallback& report) {
        moveToOrigin();
        build({report, threads}, options);
    });
    buildSeconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

void Tree::build(pipeline::BuildRun const& run, pipeline::TreeOptions const& options) {
    std::int64_t total = 0;
    for (System const& system : systems)
        total += system.first.numParticles;
    bool const hasCache = !options.keep.cache.empty() && total > 0;
    if ((total > options.block || hasCache) && canBeParted(systems)) {
        scene = makeScene(systems, origin);
        isParted = true;
        buildScene(*scene, run, options);
        if (run.report.getAbort() == 0) // else whoever asked for the tree never sees it
            geometry = blocksByIndex(*scene, systems);
        return;
    }
    geometry = pipeline::makeGeometry(systems);
    geometry->build(run, options);
}

void Tree::moveToOrigin() {
    origin = originOf(systems);
    if (isZero(origin))
        return;
    auto const move = [this](Kelpa::ParticleData& data) {
        std::vector<Kelpa::Vector>& positions =
            moved.emplace_back(data.positions, data.positions + data.numParticles);
        for (Kelpa::Vector& p : positions)
            p = {static_cast<float>(static_cast<double>(p.x) - origin.x),
                 static_cast<float>(static_cast<double>(p.y) - origin.y),
                 static_cast<float>(static_cast<double>(p.z) - origin.z)};
        data.positions = positions.data();
    };
    for (System& system : systems) {
        move(system.first);
        if (system.second)
            move(*system.second);
    }
}

py::tuple Tree::intersect(std::size_t count, Array<float> const& origins,
                          Array<float> const& directions, Array<double> const& tMins,
                          Array<double> const& tMaxs, Array<float> const& times,
                          Array<std::int64_t> const& skips, bool useLists, int threads,
                          py::object const& progress) {
    auto const length = static_cast<py::ssize_t>(count);
    Array<float> t(length);
    Array<std::int64_t> indices(length);
    Array<float> normals({length, py::ssize_t{3}});
    Array<std::uint8_t> types(length);
    Rays const rays{perRayVector(origins, count),  perRayVector(directions, count),
                    perRay(tMins, count),          perRay(tMaxs, count),
                    perRay(times, count),          perRay(skips, count),
                    {origin.x, origin.y, origin.z}};
    Hits const hits{t.mutable_data(), indices.mutable_data(),
                    reinterpret_cast<Kelpa::Vector*>(normals.mutable_data()), types.mutable_data()};
    runPieces((count + raysPerPiece - 1) / raysPerPiece, threads, progress, "Tracing rays",
              [&](std::size_t piece, GoOn const&) {
                  std::size_t const begin = piece * raysPerPiece;
                  closestHits(*geometry, rays, begin, std::min(begin + raysPerPiece, count),
                              useLists, hits);
              });
    return py::make_tuple(t, indices, normals, types);
}

pipeline::Scene const& Tree::sceneIn(Kelpa::Vector const& color) {
    if (!scene) {
        scene = makeScene(systems, origin);
        scene->geometry = treeByRows(*geometry, systems);
    }
    setColor(*scene, systems, color);
    return *scene;
}

pipeline::Scene Tree::lendScene() {
    std::lock_guard const hold(sceneMutex);
    if (isParted)
        return borrowed(*scene);
    pipeline::Scene lent = makeScene(systems, origin);
    lent.geometry = treeByRows(*geometry, systems);
    return lent;
}

Placed Tree::placeCamera(pipeline::CameraOptions const& options, int width, int height,
                         std::vector<CellTuple> const& cells) {
    py::gil_scoped_release const unlocked;
    std::lock_guard const hold(sceneMutex);
    sceneIn(scene ? scene->color : Kelpa::Vector{});
    scene->rods = seenFrom(origin, edgesOf(cells));
    return placedOf(pipeline::placeCamera(options, width, height, 'z', scene->framed(), origin),
                    origin);
}

py::dict Tree::render(Placed const& camera, Wish const& wish, int threads,
                      py::object const& progress) {
    std::unique_lock hold(sceneMutex, std::defer_lock);
    std::optional<pipeline::Picture> picture;
    pipeline::Image image;
    {
        py::gil_scoped_release const unlocked; // whoever has the scene may want the interpreter
        hold.lock();
        pipeline::Camera seen = cameraOf(camera, wish.image.width, wish.image.height, origin);
        seen.lensRadius = wish.lensRadius;
        seen.focus = wish.focus;
        sceneIn(wish.color);
        scene->layers = wish.columns;
        scene->rods = seenFrom(origin, wish.rods);
        picture.emplace(*scene, seen, wish.light, wish.image);
        image = picture->emptyImage();
    }
    runPieces(picture->tileCount(), threads, progress, "Rendering",
              [&](std::size_t tile, GoOn const& goOn) { picture->renderTile(tile, image, goOn); });
    return arraysOf(image, wish.image.transparent);
}

py::object Tree::bounds() {
    std::optional<pipeline::Bounds> const found = geometry->bounds();
    if (!found)
        return py::none();
    auto const corners = [](pipeline::Vec const& low, pipeline::Vec const& high) {
        Array<float> both({py::ssize_t{2}, py::ssize_t{3}});
        double const inf = std::numeric_limits<double>::infinity();
        float const values[] = {rounded(low.x, -inf), rounded(low.y, -inf), rounded(low.z, -inf),
                                rounded(high.x, inf), rounded(high.y, inf), rounded(high.z, inf)};
        std::copy(values, values + 6, both.mutable_data());
        return both;
    };
    pipeline::Bounds const motion = geometry->motionBounds().value_or(pipeline::Bounds{});
    return py::make_tuple(corners(found->min + origin, found->max + origin),
                          corners(motion.min, motion.max));
}

py::dict Tree::statistics() {
    pipeline::TreeStatistics const s = geometry->statistics();
    py::dict result;
    result["particles"] = s.particles;
    result["used"] = s.used;
    result["nodes"] = s.nodes;
    result["leaf_entries"] = s.leafEntries;
    result["max_depth"] = s.maxDepth;
    result["tree_bytes"] = s.treeBytes;
    result["packed_bytes"] = s.packedBytes;
    result["peak_bytes"] = s.peakBytes;
    result["trees"] = s.trees;
    result["build_seconds"] = buildSeconds;
    if (!s.store)
        return result;
    result["trees_held"] = s.store->held;
    result["trees_built"] = s.store->built;
    result["trees_found"] = s.store->found;
    result["trees_written"] = s.store->written;
    result["bytes_written"] = s.store->writtenBytes;
    result["trees_read"] = s.store->loaded;
    result["bytes_read"] = s.store->loadedBytes;
    return result;
}

std::vector<std::string> Tree::takeNotes() {
    return geometry->takeNotes();
}

namespace {

using SystemTuple =
    std::tuple<Array<float>, Array<float>, std::optional<Array<float>>, std::optional<Array<float>>,
               std::optional<Array<float>>, double, double, std::int32_t, std::int32_t>;

std::unique_ptr<Tree> makeTree(std::vector<SystemTuple> const& tuples, std::optional<int> maxDepth,
                               float minNodeSize, std::optional<float> leafSizeFactor,
                               bool isPacked, bool hasMovingBounds,
                               std::optional<std::int64_t> block,
                               std::optional<std::uint64_t> memory, std::string const& cache,
                               int threads, py::object const& progress) {
    std::vector<Arrays> arrays;
    for (SystemTuple const& tuple : tuples)
        arrays.push_back(std::apply([](auto const&... parts) { return Arrays{parts...}; }, tuple));
    return std::make_unique<Tree>(
        std::move(arrays),
        pipeline::TreeOptions{maxDepth,
                              leafSizeFactor,
                              minNodeSize,
                              isPacked,
                              hasMovingBounds,
                              block.value_or(pipeline::TreeOptions::defaultBlock),
                              {memory, cache}},
        threads, progress);
}

} // namespace

void defineTree(py::module_& module) {
    // pybind11 hands it over as a copy. NOLINTNEXTLINE(performance-unnecessary-value-param)
    py::register_exception_translator([](std::exception_ptr thrown) {
        try {
            if (thrown)
                std::rethrow_exception(thrown);
        } catch (Kelpa::ExceptionMsg const&) {
            PyErr_SetString(PyExc_MemoryError,
                            "the tree does not fit in memory, or has more than 2147483647 "
                            "particles, nodes or leaf entries");
        }
    });
    py::class_<Tree>(module, "Tree")
        .def(py::init(&makeTree))
        .def("intersect", &Tree::intersect)
        .def("place_camera", &Tree::placeCamera)
        .def("render", &Tree::render)
        .def("bounds", &Tree::bounds)
        .def("statistics", &Tree::statistics)
        .def("take_notes", &Tree::takeNotes);
}

} // namespace kelpapython
