// kelpa render: pictures of frames, turns and films.
#include "pipeline/files/numberplace.h"
#include "pipeline/files/outputfile.h"
#include "pipeline/imagefile/filmfile.h"
#include "pipeline/imagefile/imagefile.h"
#include "pipeline/picture/colorbar.h"
#include "pipeline/picture/filmplan.h"
#include "pipeline/picture/render.h"
#include "pipeline/picture/rendertogether.h"

#include "tool/commands/commands.h"
#include "tool/commands/filmcameras.h"
#include "tool/commands/renderchecks.h"
#include "tool/commands/writtenfiles.h"
#include "tool/process/standardstreams.h"
#include "tool/report/filmprogress.h"
#include "tool/report/phases.h"
#include "tool/report/rankreport.h"
#include "tool/report/statistics.h"
#include "tool/version.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <system_error>
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
    /// `all` and `others` must outlive it.
    Rendering(Options const& all, RayTransport& others);

    void renderOneFrame();
    void renderFrames();
    void writePlan();
    void finishFilm();
    void writeStatistics();

  private:
    template <class Read>
    BuiltScene makeBuiltScene(Read read, std::optional<int> frame = std::nullopt);
    TreeOptions treeOptionsFor(std::optional<int> frame) const;
    Image makeImage(Scene const& scene, Camera const& camera, PhaseProgress const& progress);
    void renderPicture(BuiltScene& built, Camera const& camera, int frame,
                       std::string const& output);
    void tellFacts(PictureFacts& facts, int frame) const;
    void writePicture(Image const& image, std::string const& output);
    std::string nameOf(int picture) const;
    bool isThere(std::string const& output);
    void saveCamera(Scene const& scene, int frame);
    void writeText(std::string const& path, std::string const& text);

    /// Does what the first rank alone does; when it fails, all do.
    template <class Work> void byFirstRank(Work const& work) {
        ranks.together([&] {
            if (ranks.rank() == 0)
                work();
        });
    }

    Options const& options;
    RayTransport& ranks; ///< that make the same pictures together
    WrittenFiles files;
    FilmPlan const given; ///< empty without a file
    FilmCameras cameras;
    std::optional<FilmFile> film; ///< of all pictures, once there is one
    RenderStatistics statistics;
    RankReport report;
    FilmProgress series;
};

/// What files say of a film, but for what the command line says itself.
FilmPlan planFor(Options const& options) {
    FilmPlan plan;
    if (!options.film.camera.empty())
        plan.camera = readPlan(options.film.camera).camera;
    if (options.film.use.empty())
        return plan;
    plan = readPlan(options.film.use);
    if (options.scene.radius.radius)
        plan.kept.radius.reset();
    if (options.scene.color.range)
        plan.kept.colorRange.reset();
    return plan;
}

Rendering::Rendering(Options const& all, RayTransport& others)
    : options(all), ranks(others), files(all), given(planFor(all)), cameras(all, given.camera) {
    for (std::string const& path :
         {options.run.statsFile, options.film.saveCamera, options.film.plan})
        if (!path.empty())
            files.add(path);
    // Others are added when their number is known.
    if (!options.output.empty() && !hasNumberPlace(options.output))
        files.add(options.output);
}

/// How trees are built and kept: each frame of a film has a folder of its own in the cache.
TreeOptions Rendering::treeOptionsFor(std::optional<int> frame) const {
    TreeOptions tree = options.tree;
    if (!frame || tree.keep.cache.empty())
        return tree;
    std::filesystem::path const cache = tree.keep.cache;
    std::error_code error;
    std::filesystem::create_directory(cache, error); // what is wrong with it is told of the frame's
    tree.keep.cache = (cache / fmt::format("frame-{:04}", *frame)).string();
    return tree;
}

/// Reads what `read` makes a scene of, a film's frame if there is a number, and builds its tree.
template <class Read> BuiltScene Rendering::makeBuiltScene(Read read, std::optional<int> frame) {
    BuiltScene built;
    ranks.together([&] {
        Stopwatch const readTime;
        built.scene = read();
        built.readSeconds = readTime.seconds();

        Stopwatch const buildTime;
        BuildReport buildReport(options.run);
        buildScene(built.scene, options.run, treeOptionsFor(frame), buildReport, &ranks);
        built.buildSeconds = buildTime.seconds();
        statistics.addScene(options.particles.files[0], built.scene, built.readSeconds,
                            built.buildSeconds);
        addScene(report, built.scene, ranks.rank());
    });
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

/// Makes a picture, which the first rank gets whole.
Image Rendering::makeImage(Scene const& scene, Camera const& camera,
                           PhaseProgress const& progress) {
    int const threads = threadCount(options.run);
    if (ranks.ranks() == 1)
        return renderImage(scene, camera, options.image, options.light, threads, progress);
    return renderTogether(scene, camera, options.image, options.light, ranks, threads, progress,
                          report.figures);
}

void Rendering::renderPicture(BuiltScene& built, Camera const& camera, int frame,
                              std::string const& output) {
    byFirstRank([&] {
        if (output != options.output) // which is known from the start
            files.add(output);
    });
    Stopwatch const renderTime;
    auto const render = [&](PhaseProgress const& progress) {
        return makeImage(built.scene, camera, progress);
    };
    auto const figures = [&] {
        return built.scene.geometry->storeFigures().value_or(StoreFigures());
    };
    StoreFigures const before = figures();
    auto const remark = [&] {
        std::string const text = series.text();
        std::string const read = readText(figures(), before);
        return text.empty() || read.empty() ? text + read : text + ", " + read;
    };
    Image image = withProgress("render", options.run, render, remark);
    ranks.together(throwIfInterrupted);
    noteFiles(built.scene, options.run);
    StoreFigures const after = figures();
    tellFacts(*image.facts, frame);
    if (built.scene.legend)
        drawColorBar(image, *built.scene.legend);
    double const renderSeconds = renderTime.seconds();
    Stopwatch const writeTime;
    byFirstRank([&] { writePicture(image, output); });
    std::int64_t const spheres = ranks.agree(built.scene.geometry->statistics().used, nullptr);
    series.finishPicture();
    int const width = image.cropX1 - image.cropX0;
    int const height = image.cropY1 - image.cropY0;
    statistics.addPicture({output, width, height,
                           image.alpha.size() * static_cast<std::size_t>(options.image.samples),
                           renderSeconds, writeTime.seconds(), after.loaded - before.loaded,
                           after.loadedBytes - before.loadedBytes});
    std::string const read = readText(after, before);
    if (!options.run.quiet)
        say("wrote {} {}x{}, {} spheres, read {:.1f} s, build {:.1f} s, render {:.1f} s, {} "
            "MB{}{}\n",
            output, width, height, withCommas(static_cast<std::uint64_t>(spheres)),
            built.readSeconds, built.buildSeconds, renderTime.seconds(), peakMegabytes(),
            read.empty() ? "" : ", " + read, series.remark());
}

void Rendering::writePicture(Image const& image, std::string const& output) {
    withProgress("write", options.run, [&](PhaseProgress const& progress) {
        if (!isFilm(output))
            return writeImage(output, image, options.image.transparent, progress,
                              options.compression);
        if (!film)
            film.emplace(output, image.cropX1 - image.cropX0, image.cropY1 - image.cropY0,
                         options.film.framesPerSecond);
        film->add(image, progress);
    });
}

void Rendering::finishFilm() {
    byFirstRank([&] {
        if (film)
            withProgress("film", options.run,
                         [&](PhaseProgress const& progress) { film->finish(progress); });
    });
}

/// The file of a picture, one of several.
std::string Rendering::nameOf(int picture) const {
    return isFilm(options.output) ? options.output : numberedName(options.output, picture);
}

/// Whether the picture is there already, and need not be made.
bool Rendering::isThere(std::string const& output) {
    if (!options.film.resume)
        return false;
    std::error_code ignored; // the first rank's view counts, as it is the one that writes
    bool const isSeen = ranks.rank() == 0 && std::filesystem::exists(output, ignored);
    bool const isIt = ranks.agree(isSeen ? 1 : 0, nullptr) > 0;
    if (isIt)
        series.skipPicture();
    return isIt;
}

void Rendering::writeText(std::string const& path, std::string const& text) {
    if (path.empty())
        return;
    byFirstRank([&] {
        OutputFile file(path, throwIfInterrupted);
        file.write(text);
        file.commit();
    });
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
        return readyScene(options, std::move(particles), given.kept);
    });
    Scene const& scene = built.scene;
    if (cameras.areChosenHere() && !options.camera.eye && !options.camera.lookAt)
        noteOutliers(scene, noteTo(options.run));
    saveCamera(scene, frame);
    int const turn = options.camera.turntable;
    if (std::string const output = nameOfOne(options.output, frame); turn == 0 && !isThere(output))
        renderPicture(built, cameras.cameraFor(scene, frame, 0), frame, output);
    series.begin(static_cast<std::uint64_t>(turn), "picture");
    for (int picture = 0; picture < turn; ++picture)
        if (std::string const output = nameOf(picture); !isThere(output))
            renderPicture(built, cameras.cameraFor(scene, frame, picture), picture, output);
}

/// Renders the frames of a range, all as the first one is seen: what the tool chose by itself for
/// that, the camera's place, the radius and the range of a colour map, must not change on the way.
void Rendering::renderFrames() {
    std::optional<SnapshotReader> reader;
    std::optional<FrameNumbers> frames;
    ranks.together([&] {
        reader.emplace(options, options.particles.files[0]);
        frames = reader->framesIn(options.particles.frames);
    });
    std::optional<Kept> kept;         // once the first one is there
    std::optional<ParticleSet> ahead; // the frame after the last one, if it was read already
    series.begin(frames->count(), "frame");
    for (auto frame = frames->after(std::nullopt); frame; frame = frames->after(frame)) {
        std::string const output = nameOf(*frame);
        bool const isDone = isThere(output);
        // Without a plan the first frame is needed even where its picture is not.
        if (isDone && (kept || !options.film.use.empty()))
            continue;
        auto const read = [&] {
            ParticleSet particles =
                ahead && ahead->frame == *frame ? std::move(*ahead) : reader->read(frame, false);
            ahead = reader->readSecond(particles);
            return readyScene(options, std::move(particles), ahead ? &*ahead : nullptr,
                              kept.value_or(given.kept));
        };
        BuiltScene built = makeBuiltScene(read, frame);
        Scene const& scene = built.scene;
        if (!kept) {
            kept = scene.chosen;
            if (given.kept.radius)
                kept->radius = given.kept.radius;
            saveCamera(scene, *frame);
        }
        // By its number in the film a frame has its place in a turn, whoever renders it.
        if (!isDone)
            renderPicture(built, cameras.cameraFor(scene, *frame, *frame), *frame, output);
    }
}

/// Writes what the first frame chooses for all.
void Rendering::writePlan() {
    SnapshotReader reader(options, options.particles.files[0]);
    std::optional<int> frame = options.particles.frame;
    if (!options.particles.frames.empty())
        frame = reader.framesIn(options.particles.frames).after(std::nullopt);
    ParticleSet particles = reader.read(frame, false);
    int const number = particles.frame;
    std::optional<ParticleSet> const second = reader.readSecond(particles);
    Scene const scene = readyScene(options, std::move(particles), second ? &*second : nullptr);
    writeText(options.film.plan, textOf({cameras.wayFor(scene, number), scene.chosen}));
    if (!options.run.quiet)
        say("wrote {}: the camera{}{} of frame {}\n", options.film.plan,
            scene.chosen.radius ? ", the radius" : "",
            scene.chosen.colorRange ? ", the range of colours" : "", number);
}

void Rendering::writeStatistics() {
    report.peakMegabytes = peakMegabytes();
    if (ranks.ranks() > 1)
        statistics.addRanks(gatherReports(report, ranks));
    if (options.run.stats)
        say("{}", statistics.ranksAsText());
    writeText(options.run.statsFile, statistics.asJson(threadCount(options.run), peakMegabytes()));
}

} // namespace

int runRender(Options const& options, RayTransport& ranks) {
    std::optional<Rendering> rendering;
    ranks.together([&] {
        if (ranks.rank() == 0)
            checkOutput(options);
        rendering.emplace(options, ranks);
    });
    if (!options.film.plan.empty())
        rendering->writePlan();
    else if (!options.particles.frames.empty())
        rendering->renderFrames();
    else
        rendering->renderOneFrame();
    rendering->finishFilm();
    rendering->writeStatistics();
    return 0;
}

int runRender(Options const& options) {
    NoTransport alone;
    return runRender(options, alone);
}

} // namespace pipeline::tool
