// Outputs that pictures do not fit in, and particles that hide the others.
#include "tool/commands/renderchecks.h"

#include "pipeline/files/numberplace.h"
#include "pipeline/imagefile/filmfile.h"
#include "pipeline/imagefile/imagefile.h"
#include "pipeline/scene/bounds.h"

#include "tool/report/phases.h"

#include <fmt/format.h>

#include <algorithm>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace pipeline::tool {

namespace {

/// Where the middle 99 % of points lie along an axis.
std::pair<double, double> middlePart(std::span<Kelpa::Vector const> points, int axis) {
    constexpr std::size_t asked = 100000; // of any more points, every n-th
    std::size_t const stride = points.size() / asked + 1;
    std::vector<float> places;
    for (std::size_t i = 0; i < points.size(); i += stride)
        places.push_back(points[i][axis]);
    auto const at = [&places](double share) {
        auto const place = places.begin() + static_cast<std::ptrdiff_t>(
                                                share * static_cast<double>(places.size() - 1));
        std::nth_element(places.begin(), place, places.end());
        return static_cast<double>(*place);
    };
    return {at(0.005), at(0.995)};
}

std::vector<std::string> aovNames(ImageOptions const& image) {
    std::vector<std::string> names;
    for (auto const& [isWanted, name] :
         {std::pair(image.depth, "depth"), std::pair(image.normal, "normal"),
          std::pair(image.id, "id"), std::pair(image.position, "position")})
        if (isWanted)
            names.emplace_back(name);
    return names;
}

void checkFilmOutput(Options const& options) {
    std::string const name = baseName(options.output);
    if (!isNumbered(options))
        throw UsageError(
            fmt::format("{}: is a film; say of what with --frames or --turntable", name));
    if (options.image.hasAovs() || options.image.transparent || options.image.tile ||
        options.film.resume)
        throw UsageError(fmt::format("{}: a film has no --aov, --background none, --tile and "
                                     "--resume; make numbered pictures of it",
                                     name));
    checkFilm(options.output);
}

} // namespace

bool isNumbered(Options const& options) {
    return options.camera.turntable > 0 || !options.particles.frames.empty();
}

void checkOutput(Options const& options) {
    if (!options.film.plan.empty())
        return;
    if (isFilm(options.output))
        return checkFilmOutput(options);
    ImageFormat const format = imageFormatOf(options.output);
    if (options.image.hasAovs() && format != ImageFormat::exr)
        throw UsageError(fmt::format(
            "{}: {} cannot hold --aov {}; write an .exr", baseName(options.output),
            format == ImageFormat::png ? "PNG" : "PPM", fmt::join(aovNames(options.image), ",")));
    if (options.image.transparent && format == ImageFormat::ppm)
        throw UsageError(fmt::format("{}: PPM has no transparency for --background none; write a "
                                     ".png or .exr",
                                     baseName(options.output)));
    if (options.image.tile && format == ImageFormat::ppm)
        throw UsageError(
            fmt::format("{}: PPM cannot tell which tile it holds; write a .png or .exr",
                        baseName(options.output)));
    checkWritable((isNumbered(options) ? numberedName : nameOfOne)(options.output, 0));
}

void noteOutliers(Scene const& scene, Note const& note) {
    auto const [minX, maxX] = middlePart(scene.framedCenters(), 0);
    auto const [minY, maxY] = middlePart(scene.framedCenters(), 1);
    auto const [minZ, maxZ] = middlePart(scene.framedCenters(), 2);
    Bounds const most{{minX, minY, minZ}, {maxX, maxY, maxZ}};
    double const part = most.diagonal() / boundsOf(scene.framedCenters()).diagonal();
    constexpr double little = 0.05;
    if (part > 0.0 && part < little) {
        Vec const centre = inFile(most, scene.origin).centre();
        note({fmt::format("a few far particles take up the picture; --look-at {:.9g},{:.9g},{:.9g} "
                          "--zoom {:.3g} shows the others",
                          centre.x, centre.y, centre.z, 0.8 / part)});
    }
}

} // namespace pipeline::tool
