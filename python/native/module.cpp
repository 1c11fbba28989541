// The part of the Python module that is not Python: arrays in, arrays out. What callers give has
// been checked and converted by kelpa/__init__.py, which also says what everything means.

#include "kelpa/foundation/exceptionmsg.h"
#include "kelpa/host/threadpool.h"

#include "python/native/arrays.h"
#include "python/native/geometry.h"
#include "python/native/looks.h"
#include "python/native/picture.h"
#include "python/native/watch.h"

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace py = pybind11;

namespace kelpapython {

namespace {

using Color = std::array<float, 3>;

constexpr std::size_t raysPerPiece = 1024; // about a millisecond

Kelpa::Vector toVector(Color const& color) {
    return {color[0], color[1], color[2]};
}

/// One particle system as Python gives it.
struct Arrays {
    Array<float> positions;
    Array<float> radii;
    std::optional<Array<float>> colors;
    std::optional<Array<float>> positions1;
    std::optional<Array<float>> radii1;
    double time0;
    double time1;
    std::int32_t type;
    std::int32_t base;
};

Kelpa::ParticleData snapshot(Arrays const& arrays, Array<float> const& positions,
                             Array<float> const& radii, double time) {
    auto const count = static_cast<std::int32_t>(radii.size());
    auto const* const colors = arrays.colors ? vectorsOf(*arrays.colors) : nullptr;
    return {time,  arrays.type, vectorsOf(positions),         count, radii.data(),
            count, colors,      colors != nullptr ? count : 0};
}

System systemOf(Arrays const& arrays) {
    System system{snapshot(arrays, arrays.positions, arrays.radii, arrays.time0), {}, arrays.base};
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

/// A tree over arrays that it keeps alive.
class Tree {
  public:
    Tree(std::vector<Arrays> given, TreeOptions const& options, int threads,
         py::object const& progress)
        : arrays(std::move(given)) {
        for (Arrays const& one : arrays)
            systems.push_back(systemOf(one));
        bool const areMoving = !arrays.empty() && arrays[0].positions1.has_value();
        geometry = makeGeometry(systems, areMoving);
        auto const begin = std::chrono::steady_clock::now();
        runBuild(progress, [&](Kelpa::ProgressCallback& report) {
            std::unique_ptr<Kelpa::ThreadPool> pool;
            if (threads != 1)
                pool = std::make_unique<Kelpa::ThreadPool>(threads);
            geometry->build(report, pool.get(), options);
        });
        buildSeconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }

    py::tuple intersect(std::size_t count, Array<float> const& origins,
                        Array<float> const& directions, Array<double> const& tMins,
                        Array<double> const& tMaxs, Array<float> const& times,
                        Array<std::int64_t> const& skips, bool useLists, int threads,
                        py::object const& progress) {
        auto const length = static_cast<py::ssize_t>(count);
        Array<float> t(length);
        Array<std::int64_t> indices(length);
        Array<float> normals({length, py::ssize_t{3}});
        Array<std::uint8_t> types(length);
        Rays const rays{perRayVector(origins, count), perRayVector(directions, count),
                        perRay(tMins, count),         perRay(tMaxs, count),
                        perRay(times, count),         perRay(skips, count)};
        Hits const hits{t.mutable_data(), indices.mutable_data(),
                        reinterpret_cast<Kelpa::Vector*>(normals.mutable_data()),
                        types.mutable_data()};
        runPieces((count + raysPerPiece - 1) / raysPerPiece, threads, progress, "Tracing rays",
                  [&](std::size_t piece, GoOn const&) {
                      std::size_t const begin = piece * raysPerPiece;
                      geometry->closestHits(rays, begin, std::min(begin + raysPerPiece, count),
                                            useLists, hits);
                  });
        return py::make_tuple(t, indices, normals, types);
    }

    Array<float> render(View const& view, Look const& look, int threads,
                        py::object const& progress) {
        Array<float> pixels({view.height, view.width, 4});
        Picture const picture(*geometry, systems, view, look, pixels.mutable_data());
        runPieces(picture.tileCount(), threads, progress, "Rendering",
                  [&](std::size_t tile, GoOn const& goOn) { picture.renderTile(tile, goOn); });
        return pixels;
    }

    py::object bounds() {
        std::optional<Bounds> const found = geometry->bounds();
        if (!found)
            return py::none();
        auto const corners = [](Kelpa::Box const& box) {
            Array<float> both({py::ssize_t{2}, py::ssize_t{3}});
            float const values[] = {box.min.x, box.min.y, box.min.z,
                                    box.max.x, box.max.y, box.max.z};
            std::copy(values, values + 6, both.mutable_data());
            return both;
        };
        return py::make_tuple(corners(found->box), corners(found->motion));
    }

    py::dict statistics() {
        Statistics const s = geometry->statistics();
        py::dict result;
        result["particles"] = s.particles;
        result["used"] = s.used;
        result["nodes"] = s.nodes;
        result["leaf_entries"] = s.leafEntries;
        result["max_depth"] = s.maxDepth;
        result["tree_bytes"] = s.treeBytes;
        result["packed_bytes"] = s.packedBytes;
        result["peak_bytes"] = s.peakBytes;
        result["build_seconds"] = buildSeconds;
        return result;
    }

  private:
    std::vector<Arrays> arrays;
    std::vector<System> systems;
    std::unique_ptr<Geometry> geometry;
    double buildSeconds = 0.0;
};

Shade shadeOf(std::string const& name) {
    return name == "flat" ? Shade::flat : name == "normals" ? Shade::normals : Shade::headlight;
}

using SystemTuple =
    std::tuple<Array<float>, Array<float>, std::optional<Array<float>>, std::optional<Array<float>>,
               std::optional<Array<float>>, double, double, std::int32_t, std::int32_t>;

std::unique_ptr<Tree> makeTree(std::vector<SystemTuple> const& tuples, std::optional<int> maxDepth,
                               float minNodeSize, std::optional<float> leafSizeFactor,
                               bool isPacked, bool hasMovingBounds, int threads,
                               py::object const& progress) {
    std::vector<Arrays> arrays;
    for (SystemTuple const& tuple : tuples)
        arrays.push_back(std::apply([](auto const&... parts) { return Arrays{parts...}; }, tuple));
    return std::make_unique<Tree>(
        std::move(arrays),
        TreeOptions{maxDepth, minNodeSize, leafSizeFactor, isPacked, hasMovingBounds}, threads,
        progress);
}

Array<float> renderTree(Tree& tree, std::array<std::array<double, 3>, 4> const& axes, double extent,
                        bool isParallel, int width, int height, std::string const& shade,
                        int samples, std::array<float, 2> const& shutter, Color const& color,
                        std::optional<Color> const& background, int threads,
                        py::object const& progress) {
    View const view{axes[0], axes[1], axes[2], axes[3], extent, isParallel, width, height};
    Look look{shadeOf(shade), samples, shutter, toVector(color), std::nullopt};
    if (background)
        look.background = toVector(*background);
    return tree.render(view, look, threads, progress);
}

} // namespace

PYBIND11_MODULE(_native, module) {
    module.doc() = "Trees over particles and their rays; use the module kelpa instead.";
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
        .def("render", &renderTree)
        .def("bounds", &Tree::bounds)
        .def("statistics", &Tree::statistics);
    defineLooks(module);
}

} // namespace kelpapython
