// Reading, making the scene and building, each with progress and notes.
#include "tool/report/phases.h"

#include "kelpa/foundation/platform.h"

#include "pipeline/files/errors.h"
#include "pipeline/files/nameelements.h"
#include "pipeline/scene/secondsnapshot.h"

#include "tool/options/hints.h"
#include "tool/process/standardstreams.h"

#include <fmt/format.h>
#include <sys/resource.h>

#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <set>

namespace pipeline::tool {

std::string baseName(std::string const& path) {
    return std::filesystem::path(path).filename().string();
}

Note noteTo(RunOptions const& run) {
    if (run.quiet)
        return [](Remark const&) {};
    return [isOnce = run.notesOnce](Remark const& remark) {
        static std::set<std::string> said;
        if (isOnce && !said.insert(remark.text).second)
            return;
        say("kelpa: note: {}{}\n", remark.text, hintText(remark.hint));
    };
}

void throwIfInterrupted() {
    if (Kelpa::InterruptScope::interrupted())
        throw Interrupted();
}

Kelpa::ProgressLine::Mode displayMode(RunOptions const& run) {
    return run.quiet ? Kelpa::ProgressLine::Mode::none : run.progress;
}

ReadOptions readOptionsOf(ParticleOptions const& particles) {
    ReadOptions read;
    read.format = particles.format;
    read.assembly = particles.assembly;
    read.kinds = particles.kinds;
    read.topology = particles.topology;
    read.allAttributes = particles.keepsAllColumns;
    read.radiusFrom = particles.radiusFrom;
    return read;
}

SnapshotReader::SnapshotReader(Options const& given, std::string const& path)
    : options(given), source(path, given.particles.more) {
}

ReadOptions SnapshotReader::readOptions(PhaseProgress const& progress) const {
    ReadOptions read = readOptionsOf(options.particles);
    read.forMotion = hasSecondSnapshot(options.scene.motion.motion);
    read.progress = progress;
    read.attributes = columnsOf(options.scene);
    read.vectorParts = !options.scene.layers.empty();
    return read;
}

FrameNumbers SnapshotReader::framesIn(std::vector<FrameRange> const& ranges) {
    FrameNumbers frames = withProgress("count", options.run, [&](PhaseProgress const& progress) {
        return source.framesIn(ranges, readOptions(progress));
    });
    if (std::vector<int> const missing = source.missingIn(ranges); !missing.empty())
        noteGap(fmt::format("{}: no files for frames {}{}", options.particles.files[0],
                            fmt::join(missing, ", "),
                            missing.size() < 8 ? "" : " and perhaps more"),
                "; the others are rendered");
    return frames;
}

/// Says what is missing and how it goes on, or ends there when the user wants that.
void SnapshotReader::noteGap(std::string const& what, std::string const& wayOn) const {
    if (options.particles.strict)
        throw InputError(what);
    noteTo(options.run)({what + wayOn});
}

ParticleSet SnapshotReader::read(std::optional<int> frame, bool summarise) {
    ParticleSet particles = withProgress("read", options.run, [&](PhaseProgress const& progress) {
        ReadOptions read = readOptions(progress);
        read.summarise = summarise;
        if (!canBeShared(options.scene))
            return source.read(frame, read);
        RayTransport const& ranks = *options.scene.ranks;
        read.rows = {static_cast<std::uint64_t>(ranks.rank()),
                     static_cast<std::uint64_t>(ranks.ranks())};
        ParticleSet share = source.read(frame, read);
        if (!share.isShare || canBeShared(options.scene, share))
            return share;
        share = {};
        read.rows = {};
        return source.read(frame, read);
    });
    for (Remark const& remark : particles.notes)
        noteTo(options.run)(remark);
    nameElements(particles, options.particles.elements);
    return particles;
}

std::optional<ParticleSet> SnapshotReader::readSecond(ParticleSet const& first) {
    Motion const& motion = options.scene.motion.motion;
    if (!hasSecondSnapshot(motion))
        return std::nullopt;
    SecondSnapshot second = withProgress("read", options.run, [&](PhaseProgress const& progress) {
        return pipeline::readSecond(motion, source, first, options.particles.frame,
                                    options.particles.elements, readOptions(progress));
    });
    if (!second.gap.empty())
        noteGap(second.gap, "; the motion is that of one");
    for (Remark const& remark : second.notes)
        noteTo(options.run)(remark);
    return std::move(second.particles);
}

ParticleSet readParticles(std::string const& path, Options const& options, bool summarise) {
    return SnapshotReader(options, path).read(options.particles.frame, summarise);
}

Scene readyScene(Options const& options, ParticleSet particles, Kept const& kept) {
    std::optional<ParticleSet> const second =
        SnapshotReader(options, options.particles.files[0]).readSecond(particles);
    return readyScene(options, std::move(particles), second ? &*second : nullptr, kept);
}

Scene readyScene(Options const& options, ParticleSet particles, ParticleSet const* second,
                 Kept const& kept) {
    // What there is to note must not run into the line of the display.
    std::vector<Remark> notes;
    auto const note = [&notes](Remark const& remark) { notes.push_back(remark); };
    Scene scene = withProgress("radii", options.run, [&](PhaseProgress const& progress) {
        return makeSelectedScene(options.scene, std::move(particles), second, kept, note, progress);
    });
    for (Remark const& remark : notes)
        noteTo(options.run)(remark);
    return scene;
}

BuildReport::BuildReport(RunOptions const& run)
    : console(run.verbose ? Kelpa::ConsoleProgress::Verbosity::everything
              : run.stats ? Kelpa::ConsoleProgress::Verbosity::statistics
                          : Kelpa::ConsoleProgress::Verbosity::quiet) {
}

void BuildReport::info(int kind, int level, char const* format, ...) {
    char text[1024];
    va_list values;
    va_start(values, format);
    std::vsnprintf(text, sizeof text, format, values);
    va_end(values);
    console.info(kind, level, "%s", text);
    std::string line = text;
    while (!line.empty() && line.back() == '\n')
        line.pop_back();
    if (level == Kelpa::statisticsLevel)
        statisticsLines.push_back(line);
}

int threadCount(RunOptions const& run) {
    return run.threads > 0 ? run.threads : Kelpa::getNumProcessors();
}

std::string sizeText(std::uint64_t bytes) {
    constexpr double megabyte = 1024.0 * 1024.0;
    double const all = static_cast<double>(bytes) / megabyte;
    return all < 10.0     ? fmt::format("{:.1f} MB", all)
           : all < 1024.0 ? fmt::format("{:.0f} MB", all)
                          : fmt::format("{:.1f} GB", all / 1024.0);
}

std::string readText(StoreFigures const& now, StoreFigures const& before) {
    std::int64_t const read = now.loaded - before.loaded;
    return read == 0
               ? ""
               : fmt::format("{} blocks read, {}", withCommas(static_cast<std::uint64_t>(read)),
                             sizeText(now.loadedBytes - before.loadedBytes));
}

namespace {

/// How far a build of blocks has come: "12 of 96 blocks, 2.1 GB, 1.6 GB written".
std::string blocksText(StoreFigures const& figures) {
    std::string text = fmt::format("{} of {} blocks, {}", figures.built + figures.found,
                                   figures.blocks, sizeText(figures.heldBytes));
    if (figures.written > 0)
        text += fmt::format(", {} written", sizeText(figures.writtenBytes));
    return text;
}

} // namespace

void noteFiles(Scene const& scene, RunOptions const& run) {
    for (std::string const& text : scene.geometry->takeNotes())
        noteTo(run)(text);
}

void buildScene(Scene& scene, RunOptions const& run, TreeOptions const& tree, BuildReport& report,
                RayTransport* ranks) {
    // The display asks on a thread of its own, when there may be nobody to tell.
    std::mutex mutex;
    std::string blocks;
    auto const remark = [&] {
        std::lock_guard const guard(mutex);
        return blocks;
    };
    auto const build = [&](PhaseProgress const& progress) {
        auto const withBlocks = [&](double fraction, std::uint64_t particles) {
            auto const figures =
                scene.geometry != nullptr ? scene.geometry->storeFigures() : std::nullopt;
            if (figures) {
                std::lock_guard const guard(mutex);
                blocks = blocksText(*figures);
            }
            progress(fraction, particles);
        };
        pipeline::buildScene(scene, {report, threadCount(run), withBlocks}, tree, ranks);
    };
    withProgress("build", run, build, remark);
    throwIfInterrupted();
    noteFiles(scene, run);
}

Bounds inFile(Bounds const& bounds, Vec const& origin) {
    auto const moved = [&origin](Vec const& v) {
        return Vec{v.x + origin.x, v.y + origin.y, v.z + origin.z};
    };
    return {moved(bounds.min), moved(bounds.max)};
}

std::uint64_t peakMegabytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<std::uint64_t>(usage.ru_maxrss) / 1024;
}

} // namespace pipeline::tool
