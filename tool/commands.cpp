#include "tool/commands.h"

#include "kelpa/foundation/platform.h"
#include "kelpa/host/consoleprogress.h"
#include "kelpa/host/threadpool.h"

#include "tool/camera.h"
#include "tool/image.h"
#include "tool/particlefile.h"
#include "tool/render.h"
#include "tool/scene.h"

#include <fmt/format.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <mutex>
#include <system_error>
#include <thread>

namespace kelpatool {

namespace {

/// Seconds since it was made.
class Stopwatch {
  public:
    double seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }

  private:
    std::chrono::steady_clock::time_point begin = std::chrono::steady_clock::now();
};

/// 218901 as "218,901".
std::string withCommas(std::uint64_t number) {
    std::string text = fmt::format("{}", number);
    for (std::size_t at = text.size(); at > 3; at -= 3)
        text.insert(at - 3, 1, ',');
    return text;
}

std::string baseName(std::string const& path) {
    return std::filesystem::path(path).filename().string();
}

Note noteTo(RunOptions const& run) {
    if (run.quiet)
        return [](std::string const&) {};
    return [](std::string const& text) { fmt::print(stderr, "kelpa: note: {}\n", text); };
}

void throwIfInterrupted() {
    if (Kelpa::InterruptScope::interrupted())
        throw Interrupted();
}

Kelpa::ProgressLine::Mode displayMode(RunOptions const& run) {
    return run.quiet ? Kelpa::ProgressLine::Mode::none : run.progress;
}

/// Runs a phase with a progress display of its own, which the phase feeds and which stops it.
template <class Phase>
auto withProgress(std::string const& name, RunOptions const& run, Phase phase) {
    Kelpa::ProgressLine line(name, displayMode(run));
    return phase([&line](double fraction, std::uint64_t particles) {
        line.update(fraction, particles);
        throwIfInterrupted();
    });
}

ParticleSet readParticles(std::string const& path, Options const& options, bool summarise) {
    ReadOptions read;
    read.format = options.particles.format;
    read.frame = options.particles.frame;
    read.radiusFrom = options.particles.radiusFrom;
    read.summarise = summarise;
    if (!options.color.colorBy.empty())
        read.attributes.push_back(options.color.colorBy);
    ParticleSet particles = withProgress("read", options.run, [&](PhaseProgress const& progress) {
        read.progress = progress;
        return readParticleFile(path, read);
    });
    for (std::string const& text : particles.notes)
        noteTo(options.run)(text);
    return particles;
}

bool hasSecondFile(Options const& options) {
    return options.motion.motion != "none" && options.motion.motion != "velocity";
}

/// Makes the scene of a file, and of the second snapshot if there is one.
Scene readyScene(Options const& options, ParticleSet particles) {
    ParticleSet second;
    bool const hasSecond = hasSecondFile(options);
    if (hasSecond)
        second = readParticles(options.motion.motion, options, false);
    // What there is to note must not run into the line of the display.
    std::vector<std::string> notes;
    Scene scene = withProgress("radii", options.run, [&](PhaseProgress const& progress) {
        return makeScene(
            options, std::move(particles), hasSecond ? &second : nullptr,
            [&notes](std::string const& text) { notes.push_back(text); }, progress);
    });
    for (std::string const& text : notes)
        noteTo(options.run)(text);
    return scene;
}

/// Collects what a build says.
class BuildReport final : public Kelpa::ProgressCallback {
  public:
    explicit BuildReport(RunOptions const& run)
        : console(run.verbose ? Kelpa::ConsoleProgress::Verbosity::everything
                  : run.stats ? Kelpa::ConsoleProgress::Verbosity::statistics
                              : Kelpa::ConsoleProgress::Verbosity::quiet) {}

    std::int32_t getAbort() override { return console.getAbort(); }
    void info(int kind, int level, char const* format, ...) override
        __attribute__((format(printf, 4, 5))) {
        char text[1024];
        va_list values;
        va_start(values, format);
        std::vsnprintf(text, sizeof text, format, values);
        va_end(values);
        console.info(kind, level, "%s", text);
        std::string line = text;
        while (!line.empty() && line.back() == '\n')
            line.pop_back();
        constexpr int statistics = 20000;
        if (level == statistics)
            statisticsLines.push_back(line);
    }

    std::vector<std::string> statisticsLines;

  private:
    Kelpa::ConsoleProgress console;
};

/// Bounds of the scene in the file's coordinates.
Bounds inFile(Bounds const& bounds, Vec const& origin) {
    auto const moved = [&origin](Vec const& v) {
        return Vec{v.x + origin.x, v.y + origin.y, v.z + origin.z};
    };
    return {moved(bounds.min), moved(bounds.max)};
}

/// Where the middle 99 % of points lie along an axis.
std::pair<double, double> middlePart(std::vector<Kelpa::Vector> const& points, int axis) {
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
    auto const [minX, maxX] = middlePart(scene.framedCenters, 0);
    auto const [minY, maxY] = middlePart(scene.framedCenters, 1);
    auto const [minZ, maxZ] = middlePart(scene.framedCenters, 2);
    Bounds const most{{minX, minY, minZ}, {maxX, maxY, maxZ}};
    double const part = most.diagonal() / boundsOf(scene.framedCenters).diagonal();
    constexpr double little = 0.05;
    if (part > 0.0 && part < little) {
        Vec const centre = inFile(most, scene.origin).centre();
        note(fmt::format("a few far particles take up the picture; --look-at {:.9g},{:.9g},{:.9g} "
                         "--zoom {:.3g} shows the others",
                         centre.x, centre.y, centre.z, 0.8 / part));
    }
}

int threadCount(RunOptions const& run) {
    return run.threads > 0 ? run.threads : Kelpa::getNumProcessors();
}

/// Ends the process when Ctrl-C was pressed and what runs in its scope has not come back for a
/// moment.
///
/// Builds ask for an abort as they split, but gathering and packing millions of particles does not.
/// Only for phases that leave nothing behind.
class InterruptWatch {
  public:
    InterruptWatch() {
        try {
            watcher = std::jthread([this](std::stop_token const& stop) { watch(stop); });
        } catch (std::system_error const&) {
            // Without a thread for it the phase ends when it does.
        }
    }

  private:
    static constexpr std::chrono::milliseconds look{20};
    static constexpr std::chrono::milliseconds patience{80};

    void watch(std::stop_token const& stop) {
        std::unique_lock hold(mutex);
        auto const isOver = [&stop] { return stop.stop_requested(); };
        while (!Kelpa::InterruptScope::interrupted())
            if (ended.wait_for(hold, stop, look, isOver))
                return;
        if (ended.wait_for(hold, stop, patience, isOver))
            return;
        std::fputs("\nkelpa: interrupted\n", stderr);
        std::_Exit(interruptedExit);
    }

    static constexpr int interruptedExit = 130;
    std::mutex mutex;
    std::condition_variable_any ended;
    std::jthread watcher; // last, so that it ends before what it uses
};

void buildScene(Scene& scene, Options const& options, BuildReport& report) {
    Kelpa::ProgressLine line("build", displayMode(options.run));
    line.update(-1.0, static_cast<std::uint64_t>(scene.first->positions.size()));
    bool const isThreaded = !options.run.reproducible && threadCount(options.run) > 1;
    std::unique_ptr<Kelpa::ThreadPool> pool;
    if (isThreaded)
        pool = std::make_unique<Kelpa::ThreadPool>(threadCount(options.run));
    {
        InterruptWatch const watch;
        scene.geometry->build(report, pool.get(), options.tree);
    }
    throwIfInterrupted();
}

std::uint64_t peakMegabytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<std::uint64_t>(usage.ru_maxrss) / 1024;
}

// ---------------------------------------------------------------- info ----

struct RadiusSummary {
    double min;
    double median;
    double max;
};

RadiusSummary summarise(std::vector<float> radii) {
    auto const end = std::partition(radii.begin(), radii.end(),
                                    [](float r) { return std::isfinite(r) && r > 0.0F; });
    if (end == radii.begin())
        return {};
    auto const middle = radii.begin() + (end - radii.begin()) / 2;
    std::nth_element(radii.begin(), middle, end);
    auto const [least, most] = std::minmax_element(radii.begin(), end);
    return {static_cast<double>(*least), static_cast<double>(*middle), static_cast<double>(*most)};
}

std::string quoted(std::string const& text) {
    std::string json(1, '"');
    for (char const c : text) {
        if (c == '"' || c == '\\')
            json += '\\';
        if (static_cast<unsigned char>(c) < 0x20)
            json += fmt::format("\\u{:04x}", static_cast<int>(c));
        else
            json += c;
    }
    json += '"';
    return json;
}

// JSON knows no infinities.
std::string jsonNumber(double value) {
    return std::isfinite(value) ? fmt::format("{}", value) : "null";
}

std::string boundsText(Bounds const& bounds) {
    auto const& [min, max] = bounds;
    return fmt::format("({:.7g}, {:.7g}, {:.7g}) to ({:.7g}, {:.7g}, {:.7g})", min.x, min.y, min.z,
                       max.x, max.y, max.z);
}

std::string jsonBounds(Bounds const& bounds) {
    auto const& [min, max] = bounds;
    return fmt::format("{{\"min\": [{}, {}, {}], \"max\": [{}, {}, {}]}}", jsonNumber(min.x),
                       jsonNumber(min.y), jsonNumber(min.z), jsonNumber(max.x), jsonNumber(max.y),
                       jsonNumber(max.z));
}

void printAsText(ParticleSet const& particles, Scene const& scene, RadiusSummary const& radii,
                 std::string const& file, BuildReport const& report) {
    fmt::print("{}: {}, {} particles\n", baseName(file), particles.format,
               withCommas(particles.positions.size()));
    if (particles.frameCount > 1)
        fmt::print("  frames: {}\n", particles.frameCount);
    fmt::print("  columns:\n");
    for (AttributeSummary const& column : particles.columns) {
        fmt::print("    {:<20} {:<8} {:.7g} to {:.7g}", column.name, column.type, column.min,
                   column.max);
        if (column.notFinite > 0)
            fmt::print(", {} not finite", withCommas(column.notFinite));
        fmt::print("\n");
    }
    fmt::print("  radius: min {:.6g}, median {:.6g}, max {:.6g}\n", radii.min, radii.median,
               radii.max);
    fmt::print("  bounds: {}\n", boundsText(inFile(scene.geometry->bounds(), scene.origin)));
    if (auto const motion = scene.geometry->motionBounds())
        fmt::print("  bounds of the motion: {}\n", boundsText(*motion));
    if (scene.second != nullptr)
        fmt::print("  motion: {:.6g} on average, {:.6g} at most\n", scene.meanStep,
                   scene.largestStep);
    fmt::print("  skipped: {} not finite, {} with radius 0 or less\n",
               withCommas(scene.rejected.notFinite), withCommas(scene.rejected.notPositive));
    fmt::print("  tree: {:.1f} bytes a sphere with packed leaves\n",
               static_cast<double>(scene.geometry->memory()) / scene.geometry->sphereCount());
    for (std::string const& line : report.statisticsLines)
        fmt::print("{}\n", line);
}

void printAsJson(ParticleSet const& particles, Scene const& scene, RadiusSummary const& radii,
                 std::string const& file, BuildReport const& report) {
    fmt::print("{{\n  \"file\": {},\n  \"format\": {},\n  \"particles\": {},\n  \"frames\": {},\n",
               quoted(baseName(file)), quoted(particles.format), particles.positions.size(),
               particles.frameCount);
    fmt::print("  \"columns\": [");
    for (std::size_t i = 0; i < particles.columns.size(); ++i) {
        AttributeSummary const& column = particles.columns[i];
        fmt::print(
            "{}\n    {{\"name\": {}, \"type\": {}, \"min\": {}, \"max\": {}, \"notFinite\": {}}}",
            i > 0 ? "," : "", quoted(column.name), quoted(column.type), jsonNumber(column.min),
            jsonNumber(column.max), column.notFinite);
    }
    fmt::print("\n  ],\n  \"radius\": {{\"min\": {}, \"median\": {}, \"max\": {}}},\n",
               jsonNumber(radii.min), jsonNumber(radii.median), jsonNumber(radii.max));
    fmt::print("  \"bounds\": {},\n", jsonBounds(inFile(scene.geometry->bounds(), scene.origin)));
    if (auto const motion = scene.geometry->motionBounds())
        fmt::print("  \"motionBounds\": {},\n", jsonBounds(*motion));
    fmt::print("  \"motion\": {{\"mean\": {}, \"largest\": {}}},\n", jsonNumber(scene.meanStep),
               jsonNumber(scene.largestStep));
    fmt::print("  \"skipped\": {{\"notFinite\": {}, \"notPositive\": {}}},\n",
               scene.rejected.notFinite, scene.rejected.notPositive);
    fmt::print("  \"treeBytes\": {},\n  \"statistics\": [", scene.geometry->memory());
    for (std::size_t i = 0; i < report.statisticsLines.size(); ++i)
        fmt::print("{}\n    {}", i > 0 ? "," : "", quoted(report.statisticsLines[i]));
    fmt::print("\n  ]\n}}\n");
}

} // namespace

int runRender(Options const& options) {
    ImageFormat format{};
    try {
        format = imageFormatOf(options.output);
    } catch (std::invalid_argument const& error) {
        throw UsageError(error.what());
    }
    if (options.image.hasAovs() && format != ImageFormat::exr)
        throw UsageError(fmt::format("{}: only EXR can hold --aov channels; write an .exr",
                                     baseName(options.output)));
    if (options.image.transparent && format == ImageFormat::ppm)
        throw UsageError(fmt::format("{}: PPM has no transparency for --background none; write a "
                                     ".png or .exr",
                                     baseName(options.output)));
    checkWritable(options.output);

    Stopwatch const readTime;
    Scene scene = readyScene(options, readParticles(options.particles.files[0], options, false));
    double const readSeconds = readTime.seconds();

    Stopwatch const buildTime;
    BuildReport report(options.run);
    buildScene(scene, options, report);
    double const buildSeconds = buildTime.seconds();

    Stopwatch const renderTime;
    Camera const camera =
        placeCamera(options.camera, options.image.width, options.image.height, scene.upAxis,
                    scene.framedCenters, scene.framedRadii, scene.origin);
    if (!options.camera.eye && !options.camera.lookAt)
        noteOutliers(scene, noteTo(options.run));
    Image const image = withProgress("render", options.run, [&](PhaseProgress const& progress) {
        return renderImage(scene, camera, options, threadCount(options.run), progress);
    });
    throwIfInterrupted();
    writeImage(options.output, image, options.image.transparent);
    if (!options.run.quiet)
        fmt::print(
            stderr,
            "wrote {} {}x{}, {} spheres, read {:.1f} s, build {:.1f} s, render {:.1f} s, {} MB\n",
            options.output, image.cropX1 - image.cropX0, image.cropY1 - image.cropY0,
            withCommas(static_cast<std::uint64_t>(scene.geometry->sphereCount())), readSeconds,
            buildSeconds, renderTime.seconds(), peakMegabytes());
    return 0;
}

int runInfo(Options const& given) {
    Options options = given;
    // The whole way between the snapshots.
    if (hasSecondFile(options) && !options.motion.shutter)
        options.motion.shutter = options.motion.times;
    std::string const& file = options.particles.files[0];
    ParticleSet particles = readParticles(file, options, true);
    Scene scene = readyScene(options, particles);
    BuildReport report(options.run);
    buildScene(scene, options, report);
    RadiusSummary const radii = summarise(scene.first->radii);
    bool isPrinted = true;
    try {
        (options.json ? printAsJson : printAsText)(particles, scene, radii, file, report);
    } catch (std::system_error const&) {
        isPrinted = false; // more than the buffer holds, so that printing noticed
    }
    if (!isPrinted || std::fflush(stdout) != 0)
        throw OutputError("standard output cannot be written");
    return 0;
}

int runGenerate(Options const& options) {
    checkWritable(options.output);
    ParticleSet const particles =
        withProgress("make", options.run, [&](PhaseProgress const& progress) {
            return generateParticles(options.kind, options.count, options.run.seed, progress);
        });
    withProgress("write", options.run, [&](PhaseProgress const& progress) {
        writePly(options.output, particles, options.ascii, progress);
        return 0;
    });
    if (!options.run.quiet)
        fmt::print(stderr, "wrote {}, {} particles\n", options.output,
                   withCommas(particles.positions.size()));
    return 0;
}

} // namespace kelpatool
