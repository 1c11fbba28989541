// What sources of particles share: how choices become scenes, and what is told of these.
#include "view/sceneparts.h"

#include "kelpa/foundation/hosttypes.h"

#include "pipeline/picture/light.h"
#include "pipeline/scene/colormap.h"
#include "pipeline/scene/selection.h"

#include <cmath>
#include <cstdint>
#include <string>
#include <utility>

namespace pipeline::view {

namespace {

/// What a build asks and tells.
class BuildReport final : public Kelpa::ProgressCallback {
  public:
    explicit BuildReport(Report const& to) : report(to) {}

    std::int32_t getAbort() override {
        try {
            report("building the tree", -1.0);
        } catch (Interrupted const&) {
            return 1;
        }
        return 0;
    }
    void info(int, int, char const*, ...) override __attribute__((format(printf, 4, 5))) {}

  private:
    Report const& report;
};

} // namespace

void choose(SceneChoice const& choice, ColorOptions& colors) {
    colors.colorBy = choice.colorBy;
    colors.range = choice.range;
    if (!choice.colorBy.empty())
        colors.color.reset();
    colors.asKinds = choice.colorMap == "kinds";
    colors.map.reset();
    if (!choice.colorMap.empty() && !colors.asKinds)
        colors.map = ColorMap(choice.colorMap);
}

std::vector<Slice> planesOf(Cut const& cut) {
    std::vector<Slice> planes;
    for (std::string const& slice : slicesOf(cut))
        planes.push_back(parseSlice(slice));
    return planes;
}

Bounds extentOf(std::span<Kelpa::Vector const> centers) {
    Bounds extent;
    for (Kelpa::Vector const& center : centers)
        if (std::isfinite(center.x) && std::isfinite(center.y) && std::isfinite(center.z))
            extent.add(wide(center));
    return extent;
}

void build(Scene& scene, TreeOptions const& options, int threads, Report const& report) {
    BuildReport told(report);
    auto const progress = [&report](double fraction, std::uint64_t) {
        report("building the tree", fraction);
    };
    BuildRun const run{told, threads, progress};
    if (scene.geometry != nullptr)
        scene.geometry->build(run, options);
    else
        buildScene(scene, run, options);
    report("building the tree", 1.0); // throws when the build was given up
}

void measure(Shown& shown) {
    FramedSpheres const framed = shown.scene.framed();
    shown.bounds = framed.bounds();
    shown.diagonal = shown.bounds.diagonal() + 2.0 * static_cast<double>(framed.largestRadius());
    shown.occlusionDistance = usualOcclusionDistance(shown.scene);
}

std::vector<Kelpa::Vector> inPlaces(std::vector<Kelpa::Vector> colors, Scene const& scene) {
    if (colors.empty())
        return colors;
    auto const count = static_cast<std::size_t>(scene.first->size());
    colors.resize(count, defaultColor);
    if (scene.rows == nullptr)
        return colors;
    std::vector<Kelpa::Vector> placed(count);
    for (std::size_t place = 0; place < count; ++place)
        placed[place] =
            colors[static_cast<std::size_t>((*scene.rows)[static_cast<std::int64_t>(place)])];
    return placed;
}

std::vector<Kelpa::Vector> stopsOf(ColorOptions const& options) {
    constexpr int stops = 32;
    ColorMap const map = options.map.value_or(ColorMap());
    std::vector<Kelpa::Vector> colors;
    for (int i = 0; i <= stops; ++i)
        colors.push_back(map.at(static_cast<double>(i) / stops));
    return colors;
}

Recoloring recoloringOf(ColorOptions const& options, ParticleSet particles, Scene const& scene) {
    Recoloring made;
    made.color = options.color.value_or(defaultColor);
    made.stops = stopsOf(options);
    if (Attribute const* const column = coloredColumn(options, particles)) {
        made.column = column->name;
        if (!showsKinds(options, *column))
            made.range = options.range ? *options.range : usualRange(column->values);
    }
    made.colors =
        inPlaces(chooseColors(options, particles, made.range, [](Remark const&) {}), scene);
    for (Attribute& column : particles.attributes)
        if (column.name == options.colorBy)
            made.values = std::move(column.values);
    return made;
}

} // namespace pipeline::view
