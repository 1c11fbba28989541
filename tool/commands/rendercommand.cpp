// kelpa render: pictures of frames, turns and films.
#include "pipeline/files/numberplace.h"
#include "pipeline/files/outputfile.h"
#include "pipeline/imagefile/imagefile.h"
#include "pipeline/picture/framing.h"
#include "pipeline/picture/render.h"
#include "pipeline/scene/bounds.h"

#include "tool/commands/commands.h"
#include "tool/commands/writtenfiles.h"
#include "tool/process/standardstreams.h"
#include "tool/report/filmprogress.h"
#include "tool/report/phases.h"
#include "tool/report/statistics.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <span>
#include <stdexcept>
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

/// Of far outliers the picture shows all, and little else: says so, and how to see the others.
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

std::vector<std::string> aovNames(ImageOptions const& image) {
    std::vector<std::string> names;
    for (auto const& [isWanted, name] :
         {std::pair(image.depth, "depth"), std::pair(image.normal, "normal"),
          std::pair(image.id, "id"), std::pair(image.position, "position")})
        if (isWanted)
            names.emplace_back(name);
    return names;
}

/// Refuses, before anything is read, an output that the picture could not be written to.
void checkOutput(Options const& options) {
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
    bool const isNumbered = options.camera.turntable > 0 || !options.particles.frames.empty();
    checkWritable((isNumbered ? numberedName : nameOfOne)(options.output, 0));
}

/// A scene with its tree, and how long they took.
struct BuiltScene {
    Scene scene;
    double readSeconds = 0.0;
    double buildSeconds = 0.0;
};

/// One run of the command: the pictures, and what is told about them.
class Rendering {
  public:
    /// `given` must outlive it.
    explicit Rendering(Options const& given);

    void renderOneFrame();
    void renderFrames();
    void writeStatistics();

  private:
    template <class Read> BuiltScene makeBuiltScene(Read read);
    void renderPicture(BuiltScene& built, Camera const& camera, std::string const& output);
    Camera cameraFor(Scene const& scene, int picture = 0) const;

    Options const& options;
    WrittenFiles files;
    RenderStatistics statistics;
    FilmProgress series;
};

Rendering::Rendering(Options const& given) : options(given), files(given) {
    if (!options.run.statsFile.empty())
        files.add(options.run.statsFile);
    if (!hasNumberPlace(options.output)) // others are added when their number is known
        files.add(options.output);
}

/// Reads what `read` makes a scene of, and builds its tree.
template <class Read> BuiltScene Rendering::makeBuiltScene(Read read) {
    BuiltScene built;
    Stopwatch const readTime;
    built.scene = read();
    built.readSeconds = readTime.seconds();

    Stopwatch const buildTime;
    BuildReport report(options.run);
    buildScene(built.scene, options, report);
    built.buildSeconds = buildTime.seconds();
    statistics.addScene(options.particles.files[0], built.scene, built.readSeconds,
                        built.buildSeconds);
    return built;
}

void Rendering::renderPicture(BuiltScene& built, Camera const& camera, std::string const& output) {
    if (output != options.output)
        files.add(output);
    Stopwatch const renderTime;
    auto const render = [&](PhaseProgress const& progress) {
        return renderImage(built.scene, camera, options.image, options.light,
                           threadCount(options.run), progress);
    };
    Image const image =
        withProgress("render", options.run, render, [this] { return series.text(); });
    throwIfInterrupted();
    double const renderSeconds = renderTime.seconds();
    Stopwatch const writeTime;
    withProgress("write", options.run, [&](PhaseProgress const& progress) {
        writeImage(output, image, options.image.transparent, progress);
    });
    series.finishPicture();
    int const width = image.cropX1 - image.cropX0;
    int const height = image.cropY1 - image.cropY0;
    statistics.addPicture({output, width, height,
                           image.alpha.size() * static_cast<std::size_t>(options.image.samples),
                           renderSeconds, writeTime.seconds()});
    if (!options.run.quiet)
        say("wrote {} {}x{}, {} spheres, read {:.1f} s, build {:.1f} s, render {:.1f} s, {} MB{}\n",
            output, width, height,
            withCommas(static_cast<std::uint64_t>(built.scene.geometry->statistics().used)),
            built.readSeconds, built.buildSeconds, renderTime.seconds(), peakMegabytes(),
            series.remark());
}

/// The camera of a picture, one of a turn or the only one.
Camera Rendering::cameraFor(Scene const& scene, int picture) const {
    auto const place = [&](auto const& placing, auto... which) {
        return placing(options.camera, which..., options.image.width, options.image.height,
                       scene.upAxis, scene.framedCenters(), scene.framedRadii(), scene.origin);
    };
    try {
        return options.camera.turntable > 0 ? place(placeTurntable, picture) : place(placeCamera);
    } catch (std::invalid_argument const&) {
        throw UsageError("--eye and --look-at are the same point");
    }
}

/// Renders one frame, or the pictures of a turn around it.
void Rendering::renderOneFrame() {
    int frame = 0;
    BuiltScene built = makeBuiltScene([this, &frame] {
        ParticleSet particles = readParticles(options.particles.files[0], options, false);
        frame = particles.frame;
        return readyScene(options, std::move(particles));
    });
    Scene const& scene = built.scene;
    if (!options.camera.eye && !options.camera.lookAt)
        noteOutliers(scene, noteTo(options.run));
    if (options.camera.turntable == 0)
        renderPicture(built, cameraFor(scene), nameOfOne(options.output, frame));
    series.begin(static_cast<std::uint64_t>(options.camera.turntable), "picture");
    for (int picture = 0; picture < options.camera.turntable; ++picture)
        renderPicture(built, cameraFor(scene, picture), numberedName(options.output, picture));
}

/// What the pictures of a film have in common, chosen for the first one.
struct Film {
    Camera camera;
    Vec origin; ///< of the scene that the camera was placed in
    Kept kept;

    Camera cameraIn(Scene const& scene) const {
        Camera here = camera;
        here.eye = here.eye + origin - scene.origin;
        return here;
    }
};

/// Renders the frames of a range, all as the first one is seen: what the tool chose by itself for
/// that, the camera's place, the radius and the range of a colour map, must not change on the way.
void Rendering::renderFrames() {
    SnapshotReader reader(options, options.particles.files[0]);
    std::optional<Film> film;
    std::optional<ParticleSet> ahead; // the frame after the last one, if it was read already
    FrameNumbers const frames = reader.framesIn(options.particles.frames);
    series.begin(frames.count(), "frame");
    for (auto frame = frames.after(std::nullopt); frame; frame = frames.after(frame)) {
        BuiltScene built = makeBuiltScene([&] {
            ParticleSet particles =
                ahead && ahead->frame == *frame ? std::move(*ahead) : reader.read(frame, false);
            ahead = reader.readSecond(particles);
            return readyScene(options, std::move(particles), ahead ? &*ahead : nullptr,
                              film ? film->kept : Kept{});
        });
        Scene const& scene = built.scene;
        if (!film)
            film = {cameraFor(scene), scene.origin, scene.chosen};
        renderPicture(built, film->cameraIn(scene), numberedName(options.output, *frame));
    }
}

void Rendering::writeStatistics() {
    if (options.run.statsFile.empty())
        return;
    OutputFile file(options.run.statsFile, throwIfInterrupted);
    file.write(statistics.asJson(threadCount(options.run), peakMegabytes()));
    file.commit();
}

} // namespace

int runRender(Options const& options) {
    checkOutput(options);
    Rendering rendering(options);
    if (!options.particles.frames.empty())
        rendering.renderFrames();
    else
        rendering.renderOneFrame();
    rendering.writeStatistics();
    return 0;
}

} // namespace pipeline::tool
