// A tree over arrays of Python, as kelpa/primitive.py uses it.
#pragma once

#include "pipeline/scene/scene.h"

#include "python/native/arrays.h"
#include "python/native/pictures.h"

#include <pybind11/pybind11.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

namespace kelpapython {

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

/// A tree over arrays that it keeps alive. What callers give has been checked and converted.
///
/// Particles far from zero compared with their extent are moved to an origin near them, which costs
/// a copy of their positions; what goes in and out is in the coordinates of the arrays.
class Tree {
  public:
    Tree(std::vector<Arrays> given, pipeline::TreeOptions const& options, int threads,
         pybind11::object const& progress);

    pybind11::tuple intersect(std::size_t count, Array<float> const& origins,
                              Array<float> const& directions, Array<double> const& tMins,
                              Array<double> const& tMaxs, Array<float> const& times,
                              Array<std::int64_t> const& skips, bool useLists, int threads,
                              pybind11::object const& progress);

    /// The picture is to hold the edges of `cells` as well.
    Placed placeCamera(pipeline::CameraOptions const& options, int width, int height,
                       std::vector<CellTuple> const& cells);
    pybind11::dict render(Placed const& camera, Wish const& wish, int threads,
                          pybind11::object const& progress);

    pybind11::object bounds();
    pybind11::dict statistics();
    std::vector<std::string> takeNotes();

    // For those who show it while it lives, from any thread.
    std::vector<pipeline::System> const& allSystems() const { return systems; }
    /// What the positions of `allSystems` lack.
    pipeline::Vec const& subtracted() const { return origin; }
    /// A scene without colours, which asks this tree.
    pipeline::Scene lendScene();

  private:
    void moveToOrigin();
    void build(pipeline::BuildRun const& run, pipeline::TreeOptions const& options);
    /// Under `sceneMutex`; `color` is that of particles without colours.
    pipeline::Scene const& sceneIn(Kelpa::Vector const& color);

    std::vector<Arrays> arrays;
    std::vector<pipeline::System> systems;
    std::vector<std::vector<Kelpa::Vector>> moved; ///< positions of systems far from zero
    pipeline::Vec origin{};
    std::unique_ptr<pipeline::Geometry> geometry;
    bool isParted = false; ///< into blocks, over the particles of `scene`
    double buildSeconds = 0.0;
    std::recursive_mutex sceneMutex;      ///< recursive: `progress` may ask for pictures
    std::optional<pipeline::Scene> scene; ///< for pictures; made for the first
};

void defineTree(pybind11::module_& module);

} // namespace kelpapython
