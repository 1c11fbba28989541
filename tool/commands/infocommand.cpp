#include "pipeline/files/errors.h"

#include "tool/commands/commands.h"
#include "tool/process/standardstreams.h"
#include "tool/report/json.h"
#include "tool/report/phases.h"
#include "tool/report/statistics.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <system_error>

namespace kelpatool {

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

std::string jsonBounds(Bounds const& bounds) {
    auto const& [min, max] = bounds;
    return fmt::format("{{\"min\": [{}, {}, {}], \"max\": [{}, {}, {}]}}", jsonNumber(min.x),
                       jsonNumber(min.y), jsonNumber(min.z), jsonNumber(max.x), jsonNumber(max.y),
                       jsonNumber(max.z));
}

void printAsText(ParticleSet const& particles, Scene const& scene, RadiusSummary const& radii,
                 std::string const& file, BuildReport const& report) {
    fmt::print("{}: {}, {} particles\n", printable(baseName(file)), particles.format,
               withCommas(particles.positions.size()));
    if (particles.frameCount > 1)
        fmt::print("  frames: {}\n", particles.frameCount);
    fmt::print("  columns:\n");
    for (AttributeSummary const& column : particles.columns) {
        fmt::print("    {:<20} {:<8} {:.7g} to {:.7g}", printable(column.name),
                   printable(column.type), column.min, column.max);
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
    if (scene.origin.x != 0.0 || scene.origin.y != 0.0 || scene.origin.z != 0.0)
        fmt::print("  tree's coordinates: as from ({:.7g}, {:.7g}, {:.7g})\n", scene.origin.x,
                   scene.origin.y, scene.origin.z);
    for (std::string const& line : report.statisticsLines)
        fmt::print("{}\n", line);
}

void printAsJson(ParticleSet const& particles, Scene const& scene, RadiusSummary const& radii,
                 std::string const& file, BuildReport const& report) {
    fmt::print("{{\n  \"file\": {},\n  \"format\": {},\n  \"particles\": {},\n  \"frames\": {},\n",
               jsonText(baseName(file)), jsonText(particles.format), particles.positions.size(),
               particles.frameCount);
    fmt::print("  \"columns\": [");
    for (std::size_t i = 0; i < particles.columns.size(); ++i) {
        AttributeSummary const& column = particles.columns[i];
        fmt::print(
            "{}\n    {{\"name\": {}, \"type\": {}, \"min\": {}, \"max\": {}, \"notFinite\": {}}}",
            i > 0 ? "," : "", jsonText(column.name), jsonText(column.type), jsonNumber(column.min),
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
    std::string const tree = jsonTreeReport(report.statisticsLines);
    fmt::print("  \"tree\": {{\"bytes\": {}{}{}}}\n}}", scene.geometry->memory(),
               tree.empty() ? "" : ", ", tree);
}

/// Tells about one file, after `separator` and once it has been read.
void tellAbout(Options options, std::string const& file, char const* separator) {
    options.particles.files = {file};
    // The whole way between the snapshots.
    if (hasSecondFile(options) && !options.scene.motion.shutter)
        options.scene.motion.shutter = options.scene.motion.times;
    ParticleSet particles = readParticles(file, options, true);
    Scene scene = readyScene(options, particles);
    BuildReport report(options.run);
    buildScene(scene, options, report);
    fmt::print("{}", separator);
    (options.json ? printAsJson : printAsText)(particles, scene, summarise(scene.first->radii),
                                               file, report);
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
                say("kelpa: {}\n", error.what());
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

} // namespace kelpatool
