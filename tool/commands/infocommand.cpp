// kelpa info: what files hold.
#include "pipeline/files/errors.h"
#include "pipeline/files/json.h"

#include "tool/commands/commands.h"
#include "tool/options/hints.h"
#include "tool/process/standardstreams.h"
#include "tool/report/filefacts.h"
#include "tool/report/phases.h"
#include "tool/report/statistics.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <system_error>
#include <utility>

namespace pipeline::tool {

namespace {

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

std::string boundsText(Bounds const& bounds) {
    auto const& [min, max] = bounds;
    return fmt::format("({:.7g}, {:.7g}, {:.7g}) to ({:.7g}, {:.7g}, {:.7g})", min.x, min.y, min.z,
                       max.x, max.y, max.z);
}

void printAsText(ParticleSet const& particles, Scene const& scene, RadiusSummary const& radii,
                 std::string const& file, BuildReport const& report, bool wantsTree) {
    fmt::print("{}: {}, {} particles\n", printable(baseName(file)), particles.format,
               withCommas(particles.positions.size()));
    for (std::string const& line : factLines(particles))
        fmt::print("  {}\n", line);
    fmt::print("  columns:\n");
    for (AttributeSummary const& column : particles.columns)
        fmt::print("    {}\n", columnLine(column));
    fmt::print("  radius: min {:.6g}, median {:.6g}, max {:.6g} ({})\n", radii.min, radii.median,
               radii.max, printable(scene.radiusSource));
    fmt::print("  bounds: {}\n",
               boundsText(inFile(scene.geometry->bounds().value_or(Bounds{}), scene.origin)));
    if (auto const motion = scene.geometry->motionBounds())
        fmt::print("  bounds of the motion: {}\n", boundsText(*motion));
    if (scene.second != nullptr)
        fmt::print("  motion: {:.6g} on average, {:.6g} at most\n", scene.meanStep,
                   scene.largestStep);
    fmt::print("  skipped: {} not finite, {} with radius 0 or less\n",
               withCommas(scene.rejected.notFinite), withCommas(scene.rejected.notPositive));
    if (!wantsTree)
        return;
    fmt::print("  tree: {:.1f} bytes a sphere with packed leaves\n",
               scene.geometry->statistics().bytesPerSphere());
    if (scene.origin.x != 0.0 || scene.origin.y != 0.0 || scene.origin.z != 0.0)
        fmt::print("  tree's coordinates: as from ({:.7g}, {:.7g}, {:.7g})\n", scene.origin.x,
                   scene.origin.y, scene.origin.z);
    for (std::string const& line : report.statisticsLines)
        fmt::print("{}\n", line);
}

void printAsJson(ParticleSet const& particles, Scene const& scene, RadiusSummary const& radii,
                 std::string const& file, BuildReport const&, bool) {
    std::vector<Json> columns;
    for (AttributeSummary const& column : particles.columns)
        columns.push_back(jsonOfColumn(column));
    JsonObject json;
    json.add("file", baseName(file))
        .add("format", particles.format)
        .add("particles", particles.positions.size())
        .add("frames", particles.frameCount);
    addFacts(json, particles);
    json.add("columns", jsonList(columns, 2))
        .add("radius", JsonObject()
                           .add("source", scene.radiusSource)
                           .add("min", radii.min)
                           .add("median", radii.median)
                           .add("max", radii.max)
                           .onOneLine())
        .add("bounds", jsonOf(inFile(scene.geometry->bounds().value_or(Bounds{}), scene.origin)));
    if (auto const motion = scene.geometry->motionBounds())
        json.add("motionBounds", jsonOf(*motion));
    json.add("motion", jsonOfMotion(scene))
        .add("skipped", jsonOf(scene.rejected))
        .add("tree", jsonOf(scene.geometry->statistics()));
    fmt::print("{}", json.onLines(0).text);
}

/// Tells about one file, after `separator` and once it has been read.
void tellAbout(Options options, std::string const& file, char const* separator) {
    options.particles.files = {file};
    // The whole way between the snapshots.
    if (hasSecondSnapshot(options.scene.motion.motion) && !options.scene.motion.shutter)
        options.scene.motion.shutter = options.scene.motion.times;
    ParticleSet particles = readParticles(file, options, true);
    Scene scene = readyScene(options, particles);
    bool const wantsTree = std::exchange(options.run.stats, false); // which are printed here
    BuildReport report(options.run);
    buildScene(scene, options.run, options.tree, report);
    fmt::print("{}", separator);
    (options.json ? printAsJson : printAsText)(particles, scene, summarise(scene.first->radii),
                                               file, report, wantsTree);
}

} // namespace

int runInfo(Options const& options) {
    std::vector<std::string> const& files = options.particles.files;
    bool const isList = options.json && files.size() > 1;
    int exitCode = 0;
    try {
        char const* separator = isList ? "[\n" : "";
        for (std::string const& file : files) {
            try {
                tellAbout(options, file, separator);
                separator = isList ? ",\n" : "";
            } catch (InputError const& error) {
                if (files.size() == 1)
                    throw;
                // The others may be good, and a list stays one.
                say("kelpa: {}{}\n", error.what(), hintText(error.hint));
                exitCode = 3;
            }
        }
        if (isList)
            fmt::print("{}\n]", *separator == '[' ? separator : "");
        fmt::print("{}", options.json ? "\n" : "");
    } catch (std::system_error const&) {
        // More than the buffer holds, so that printing noticed; the end says it in our words.
    }
    finishStandardOutput();
    return exitCode;
}

} // namespace pipeline::tool
