// What excludes or needs what, and how that is said.
#include "tool/options/optionchecks.h"

#include <fmt/format.h>

#include <filesystem>

namespace pipeline::tool {

namespace {

/// Refuses options that would have no effect on what was asked for.
void checkEffects(GivenOption const& isGiven, Options const& options) {
    Motion const& motion = options.scene.motion.motion;
    bool const moves = isMoving(motion);
    bool const hasVelocity = std::holds_alternative<AlongVelocities>(motion);
    bool const isNext = std::holds_alternative<ToNextFrame>(motion);
    bool const isFlat = options.light.shade == LightOptions::Shade::flat;
    bool const hasOcclusion = options.light.shade == LightOptions::Shade::ao;
    struct Rule {
        char const* option;
        bool isUsed;
        char const* needs;
    };
    Rule const rules[] = {
        {"--shutter", moves, "motion: --motion velocity, next or FILE"},
        {"--bounds", moves, "motion: --motion velocity, next or FILE"},
        {"--dt", hasVelocity, "--motion velocity"},
        {"--times", moves && !hasVelocity, "a second snapshot: --motion next or FILE"},
        {"--strict", !options.particles.frames.empty() || isNext,
         "frames of a sequence: --frames A:B or --motion next"},
        {"--shadows", !isFlat || !options.light.shadows.value_or(true), "light: --shade ao or lit"},
        {"--aperture", options.image.samples > 1, "samples over the lens: --samples 2 or more"},
        {"--depth", options.image.depth, "--aov depth"},
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
    bool const isRender =
        options.command == Options::Command::render || options.command == Options::Command::view;
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

/// Where pictures go, or the plan of a film without any.
void checkFilm(GivenOption const& isGiven, Options const& options) {
    FilmOptions const& film = options.film;
    if (film.plan.empty() && options.output.empty())
        throw UsageError("--output is required");
    if (!film.plan.empty() && (isGiven("--output") || film.resume))
        throw UsageError("--plan makes no pictures; leave --output and --resume out");
}

/// Which pixels, and where the camera is.
void checkPicture(Options const& options) {
    auto const& crop = options.image.crop;
    if (crop && !(0 <= (*crop)[0] && (*crop)[0] < (*crop)[2] && (*crop)[2] <= options.image.width &&
                  0 <= (*crop)[1] && (*crop)[1] < (*crop)[3] && (*crop)[3] <= options.image.height))
        throw UsageError(fmt::format("--crop must lie within the picture of {}x{} and not be empty",
                                     options.image.width, options.image.height));
    int const rows = crop ? (*crop)[3] - (*crop)[1] : options.image.height;
    if (options.image.tile && options.image.tile->count > rows)
        throw UsageError(fmt::format("--tile: {} tiles, but the picture has {} rows",
                                     options.image.tile->count, rows));
    if (options.image.tile && options.compression == ExrCompression::dwaa)
        throw UsageError("--tile excludes --compression dwaa, which loses something each time");
    if (options.camera.eye && options.camera.view)
        throw UsageError("--eye and --view both place the camera; use one of them");
}

} // namespace

void checkTogether(GivenOption const& isGiven, Options& options) {
    ParticleOptions& particles = options.particles;
    bool const isGenerate = options.command == Options::Command::generate;
    if (isGenerate || options.command == Options::Command::convert)
        checkParticleOutput(options.output);
    if (isGenerate || options.command == Options::Command::join)
        return;
    if (particles.together) {
        particles.more.assign(particles.files.begin() + 1, particles.files.end());
        particles.files.resize(1);
    }
    checkFileCount(isGiven, options);
    if (options.command == Options::Command::render)
        checkFilm(isGiven, options);
    MotionOptions& motion = options.scene.motion;
    bool const makesPictures =
        options.command == Options::Command::render || options.command == Options::Command::view;
    if (makesPictures && particles.files.size() == 2) {
        if (isMoving(motion.motion))
            throw UsageError("two files are two snapshots already; leave --motion out");
        motion.motion = ToFile{particles.files[1]};
        particles.files.pop_back();
    }
    auto const* const file = std::get_if<ToFile>(&motion.motion);
    std::error_code ignored;
    if (isGiven("--motion") && file != nullptr &&
        file->path.find_first_of("./{") == std::string::npos &&
        !std::filesystem::exists(file->path, ignored))
        throw UsageError(fmt::format("--motion: '{}' is none of none, velocity and next, and there "
                                     "is no such file",
                                     file->path));
    if (!particles.frames.empty() && file != nullptr)
        throw UsageError("--frames goes with --motion none, velocity or next, not with a file");
    options.scene.layers = options.image.columns;
    options.run.notesOnce = !particles.frames.empty();
    checkEffects(isGiven, options);
    for (char const* const other : {"--radius", "--radius-from"})
        if (options.scene.radius.covalent && isGiven(other))
            throw UsageError(fmt::format("--radii excludes {}", other));
    if (motion.times[0] == motion.times[1])
        throw UsageError("--times must differ");
    if (motion.shutter && (*motion.shutter)[0] > (*motion.shutter)[1])
        throw UsageError("--shutter closes before it opens");
    checkPicture(options);
}

} // namespace pipeline::tool
