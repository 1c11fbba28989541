// kelpa render: pictures of frames, turns and films.
#include "pipeline/files/numberplace.h"
#include "pipeline/files/outputfile.h"
#include "pipeline/imagefile/imagefile.h"
#include "pipeline/picture/filmplan.h"
#include "pipeline/picture/render.h"

#include "tool/commands/commands.h"
#include "tool/commands/filmcameras.h"
#include "tool/commands/renderchecks.h"
#include "tool/commands/writtenfiles.h"
#include "tool/process/standardstreams.h"
#include "tool/report/filmprogress.h"
#include "tool/report/phases.h"
#include "tool/report/statistics.h"
#include "tool/version.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace pipeline::tool {

namespace {

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
    void renderPicture(BuiltScene& built, Camera const& camera, int frame,
                       std::string const& output);
    void tellFacts(PictureFacts& facts, int frame) const;
    void saveCamera(Scene const& scene, int frame);
    void writeText(std::string const& path, std::string const& text);

    Options const& options;
    WrittenFiles files;
    FilmCameras cameras;
    RenderStatistics statistics;
    FilmProgress series;
};

Rendering::Rendering(Options const& given)
    : options(given), files(given),
      cameras(given, given.film.camera.empty() ? CameraWay{} : readPlan(given.film.camera).camera) {
    for (std::string const& path : {options.run.statsFile, options.film.saveCamera})
        if (!path.empty())
            files.add(path);
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

/// Adds to what an .exr tells of its picture what the command line says.
void Rendering::tellFacts(PictureFacts& facts, int frame) const {
    facts.frame = frame;
    facts.framesPerSecond = options.film.framesPerSecond;
    if (isMoving(options.scene.motion.motion))
        facts.shutter = options.scene.motion.shutter.value_or(std::array{0.0, 0.5});
    facts.software = fmt::format("kelpa {}", version);
    facts.command = options.commandLine;
}

void Rendering::renderPicture(BuiltScene& built, Camera const& camera, int frame,
                              std::string const& output) {
    if (output != options.output)
        files.add(output);
    Stopwatch const renderTime;
    auto const render = [&](PhaseProgress const& progress) {
        return renderImage(built.scene, camera, options.image, options.light,
                           threadCount(options.run), progress);
    };
    Image image = withProgress("render", options.run, render, [this] { return series.text(); });
    throwIfInterrupted();
    tellFacts(*image.facts, frame);
    double const renderSeconds = renderTime.seconds();
    Stopwatch const writeTime;
    withProgress("write", options.run, [&](PhaseProgress const& progress) {
        writeImage(output, image, options.image.transparent, progress, options.compression);
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

void Rendering::writeText(std::string const& path, std::string const& text) {
    if (path.empty())
        return;
    OutputFile file(path, throwIfInterrupted);
    file.write(text);
    file.commit();
}

/// Keeps the first picture's camera, if that is asked for.
void Rendering::saveCamera(Scene const& scene, int frame) {
    FilmPlan plan;
    plan.camera.keys.push_back(cameras.keyFor(scene, frame));
    writeText(options.film.saveCamera, textOf(plan));
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
    if (cameras.areChosenHere() && !options.camera.eye && !options.camera.lookAt)
        noteOutliers(scene, noteTo(options.run));
    saveCamera(scene, frame);
    int const turn = options.camera.turntable;
    if (turn == 0)
        renderPicture(built, cameras.cameraFor(scene, frame, 0), frame,
                      nameOfOne(options.output, frame));
    series.begin(static_cast<std::uint64_t>(turn), "picture");
    for (int picture = 0; picture < turn; ++picture)
        renderPicture(built, cameras.cameraFor(scene, frame, picture), picture,
                      numberedName(options.output, picture));
}

/// Renders the frames of a range, all as the first one is seen: what the tool chose by itself for
/// that, the camera's place, the radius and the range of a colour map, must not change on the way.
void Rendering::renderFrames() {
    SnapshotReader reader(options, options.particles.files[0]);
    std::optional<Kept> kept;         // once the first one is there
    std::optional<ParticleSet> ahead; // the frame after the last one, if it was read already
    FrameNumbers const frames = reader.framesIn(options.particles.frames);
    series.begin(frames.count(), "frame");
    for (auto frame = frames.after(std::nullopt); frame; frame = frames.after(frame)) {
        BuiltScene built = makeBuiltScene([&] {
            ParticleSet particles =
                ahead && ahead->frame == *frame ? std::move(*ahead) : reader.read(frame, false);
            ahead = reader.readSecond(particles);
            return readyScene(options, std::move(particles), ahead ? &*ahead : nullptr,
                              kept.value_or(Kept{}));
        });
        Scene const& scene = built.scene;
        if (!kept) {
            kept = scene.chosen;
            saveCamera(scene, *frame);
        }
        // By its number in the film a frame has its place in a turn, whoever renders it.
        renderPicture(built, cameras.cameraFor(scene, *frame, *frame), *frame,
                      numberedName(options.output, *frame));
    }
}

void Rendering::writeStatistics() {
    writeText(options.run.statsFile, statistics.asJson(threadCount(options.run), peakMegabytes()));
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
