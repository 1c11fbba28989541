// Outputs that pictures do not fit in, and particles that hide the others.
#include "tool/commands/renderchecks.h"

#include "pipeline/files/numberplace.h"
#include "pipeline/imagefile/filmfile.h"
#include "pipeline/imagefile/imagefile.h"
#include "pipeline/scene/bounds.h"

#include "tool/report/phases.h"

#include <fmt/format.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace pipeline::tool {

namespace {

/// The box of the middle 99 % of centres along each axis.
Bounds middlePart(FramedSpheres const& spheres) {
    std::int64_t count[] = {0};
    spheres.forEach([&count](Kelpa::Vector const&, float) { ++count[0]; });
    std::int64_t before[] = {count[0]};
    RayTransport* const others = spheres.others();
    if (others != nullptr) {
        others->fold(RayTransport::Fold::sum, count);
        others->addUpBefore(before);
    } else {
        before[0] = 0;
    }
    constexpr std::int64_t asked = 100000; // of any more centres, every n-th
    std::int64_t const stride = count[0] / asked + 1;
    std::vector<float> places[3];
    std::int64_t index = before[0];
    spheres.forEach([&](Kelpa::Vector const& center, float) {
        if (index++ % stride == 0)
            for (int axis = 0; axis < 3; ++axis)
                places[axis].push_back(center[axis]);
    });
    if (others != nullptr)
        for (std::vector<float>& along : places)
            along = others->joined(along);
    auto const at = [&places](int axis, double share) {
        std::vector<float>& along = places[axis];
        auto const place = along.begin() + static_cast<std::ptrdiff_t>(
                                               share * static_cast<double>(along.size() - 1));
        std::nth_element(along.begin(), place, along.end());
        return static_cast<double>(*place);
    };
    auto const corner = [&at](double share) {
        return Vec{at(0, share), at(1, share), at(2, share)};
    };
    return {corner(0.005), corner(0.995)};
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
    FramedSpheres const framed = scene.framed();
    Bounds const most = middlePart(framed);
    double const part = most.diagonal() / framed.bounds().diagonal();
    constexpr double little = 0.05;
    if (part > 0.0 && part < little) {
        Vec const centre = inFile(most, scene.origin).centre();
        note({fmt::format("a few far particles take up the picture; --look-at {:.9g},{:.9g},{:.9g} "
                          "--zoom {:.3g} shows the others",
                          centre.x, centre.y, centre.z, 0.8 / part)});
    }
}

} // namespace pipeline::tool
