#include "tool/options/optionchecks.h"

#include <fmt/format.h>

#include <filesystem>

namespace kelpatool {

namespace {

bool hasSecondSnapshot(MotionOptions const& motion) {
    return motion.motion != "none" && motion.motion != "velocity";
}

/// Refuses options that would have no effect on what was asked for.
void checkEffects(GivenOption const& isGiven, Options const& options) {
    bool const isMoving = options.scene.motion.motion != "none";
    bool const hasVelocity = options.scene.motion.motion == "velocity";
    bool const isFlat = options.light.shade == LightOptions::Shade::flat;
    bool const hasOcclusion = options.light.shade == LightOptions::Shade::ao;
    struct Rule {
        char const* option;
        bool isUsed;
        char const* needs;
    };
    Rule const rules[] = {
        {"--shutter", isMoving, "motion: --motion velocity, next or FILE"},
        {"--bounds", isMoving, "motion: --motion velocity, next or FILE"},
        {"--dt", hasVelocity, "--motion velocity"},
        {"--times", isMoving && !hasVelocity, "a second snapshot: --motion next or FILE"},
        {"--strict", !options.particles.frames.empty() || options.scene.motion.motion == "next",
         "frames of a sequence: --frames A:B or --motion next"},
        {"--shadows", !isFlat, "light: --shade ao or lit"},
        {"--ao-samples", hasOcclusion, "--shade ao"},
        {"--ao-distance", hasOcclusion, "--shade ao"},
    };
    for (Rule const& rule : rules) {
        if (isGiven(rule.option) && !rule.isUsed)
            throw UsageError(fmt::format("{} needs {}", rule.option, rule.needs));
    }
}

/// Refuses more files than the command takes; a shell makes many of a pattern of its own.
void checkFileCount(GivenOption const& isGiven, Options const& options) {
    std::vector<std::string> const& files = options.particles.files;
    bool const isRender = options.command == Options::Command::render;
    if (isRender && isGiven("--stats") && files.size() == 2 && files[1].ends_with(".json"))
        throw UsageError(
            fmt::format("{} is taken for a second snapshot; write --stats={}", files[1], files[1]));
    if (isRender && files.size() > 2)
        throw UsageError(fmt::format("{} files, but two are the snapshots of one picture; a "
                                     "sequence is named 'cache.{{}}.ply', with --frames A:B",
                                     files.size()));
    bool const takesOne =
        options.command == Options::Command::convert || options.command == Options::Command::bench;
    if (takesOne && files.size() > 1)
        throw UsageError(
            fmt::format("{} files; {} takes one", files.size(),
                        options.command == Options::Command::convert ? "convert" : "bench"));
}

/// Refuses a file name that promises another format than the one that particles are written in.
void checkParticleOutput(std::string const& output) {
    std::string const suffix = std::filesystem::path(output).extension().string();
    if (!suffix.empty() && suffix != ".ply" && suffix != ".PLY")
        throw UsageError(fmt::format("{}: particles are written as .ply only", output));
}

} // namespace

void checkTogether(GivenOption const& isGiven, Options& options) {
    ParticleOptions& particles = options.particles;
    bool const isGenerate = options.command == Options::Command::generate;
    if (isGenerate || options.command == Options::Command::convert)
        checkParticleOutput(options.output);
    if (isGenerate)
        return;
    checkFileCount(isGiven, options);
    MotionOptions& motion = options.scene.motion;
    if (options.command == Options::Command::render && particles.files.size() == 2) {
        if (motion.motion != "none")
            throw UsageError("two files are two snapshots already; leave --motion out");
        motion.motion = particles.files[1];
        particles.files.pop_back();
    }
    std::error_code ignored;
    if (isGiven("--motion") && hasSecondSnapshot(motion) && motion.motion != "next" &&
        motion.motion.find_first_of("./{") == std::string::npos &&
        !std::filesystem::exists(motion.motion, ignored))
        throw UsageError(fmt::format("--motion: '{}' is none of none, velocity and next, and there "
                                     "is no such file",
                                     motion.motion));
    bool const isNext = motion.motion == "next";
    if (!particles.frames.empty() && hasSecondSnapshot(motion) && !isNext)
        throw UsageError("--frames goes with --motion none, velocity or next, not with a file");
    if (!particles.frames.empty() && options.camera.turntable > 0)
        throw UsageError("--frames and --turntable both make many pictures; use one of them");
    checkEffects(isGiven, options);
    if (motion.times[0] == motion.times[1])
        throw UsageError("--times must differ");
    if (motion.shutter && (*motion.shutter)[0] > (*motion.shutter)[1])
        throw UsageError("--shutter closes before it opens");
    auto const& crop = options.image.crop;
    if (crop && !(0 <= (*crop)[0] && (*crop)[0] < (*crop)[2] && (*crop)[2] <= options.image.width &&
                  0 <= (*crop)[1] && (*crop)[1] < (*crop)[3] && (*crop)[3] <= options.image.height))
        throw UsageError(fmt::format("--crop must lie within the picture of {}x{} and not be empty",
                                     options.image.width, options.image.height));
    if (options.camera.eye && !options.camera.view.empty())
        throw UsageError("--eye and --view both place the camera; use one of them");
}

} // namespace kelpatool
