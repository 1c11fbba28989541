#include "tool/commands.h"
#include "tool/phases.h"

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

} // namespace kelpatool
