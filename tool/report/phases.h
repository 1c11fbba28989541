// The phases that commands are made of.
#pragma once

#include "kelpa/foundation/hosttypes.h"
#include "kelpa/host/consoleprogress.h"

#include "pipeline/files/framesource.h"
#include "pipeline/scene/scene.h"

#include "tool/options/options.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace pipeline::tool {

// The phases that commands are made of, each with its progress display and its answer to Ctrl-C.

/// Seconds since it was made.
class Stopwatch {
  public:
    double seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }

  private:
    std::chrono::steady_clock::time_point begin = std::chrono::steady_clock::now();
};

using Kelpa::withCommas;

/// A path's last part.
std::string baseName(std::string const& path);

/// Prints notes to standard error, unless the run is quiet.
Note noteTo(RunOptions const& run);

/// Throws `Interrupted` after Ctrl-C.
void throwIfInterrupted();

Kelpa::ProgressLine::Mode displayMode(RunOptions const& run);

/// What the options say of reading, but for what a scene needs.
ReadOptions readOptionsOf(ParticleOptions const& particles);

/// Runs a phase with a progress display of its own, which the phase feeds and which stops it.
/// `remark` gives what the display adds.
template <class Phase>
auto withProgress(std::string const& name, RunOptions const& run, Phase phase,
                  std::function<std::string()> remark = {}) {
    Kelpa::ProgressLine line(name, displayMode(run), std::move(remark));
    return phase([&line](double fraction, std::uint64_t particles) {
        line.update(fraction, particles);
        throwIfInterrupted();
    });
}

/// Reads frames as the options say, with the snapshots that their particles go to, and prints what
/// the readers note.
class SnapshotReader {
  public:
    /// `options` must outlive the reader.
    SnapshotReader(Options const& options, std::string const& path);

    FrameNumbers framesIn(std::vector<FrameRange> const& ranges);
    /// `summarise` also collects what `kelpa info` shows of the columns.
    ParticleSet read(std::optional<int> frame, bool summarise);
    /// The snapshot that `--motion` asks for; nothing when the particles stand still, or go along
    /// their velocities.
    std::optional<ParticleSet> readSecond(ParticleSet const& first);

  private:
    ReadOptions readOptions(PhaseProgress const& progress) const;
    void noteGap(std::string const& what, std::string const& wayOn) const;

    Options const& options;
    FrameSource source;
};

/// Reads the file's particles as the options say, and prints the reader's notes. `summarise` also
/// collects what `kelpa info` shows of the columns.
ParticleSet readParticles(std::string const& path, Options const& options, bool summarise);

/// Makes the scene of a file, and of the second snapshot if there is one.
Scene readyScene(Options const& options, ParticleSet particles, Kept const& kept = {});
/// The same with a second snapshot that has been read, or null, and what earlier frames of a film
/// leave to it.
Scene readyScene(Options const& options, ParticleSet particles, ParticleSet const* second,
                 Kept const& kept = {});

/// Collects what a build says.
class BuildReport final : public Kelpa::ProgressCallback {
  public:
    explicit BuildReport(RunOptions const& run);

    std::int32_t getAbort() override { return console.getAbort(); }
    void info(int kind, int level, char const* format, ...) override
        __attribute__((format(printf, 4, 5)));

    std::vector<std::string> statisticsLines;

  private:
    Kelpa::ConsoleProgress console;
};

/// Builds the scene's tree, on the threads that the options grant, and prints what there is to note
/// of files. Throws `Interrupted`.
/// With `ranks`, of several, the scene is theirs in common: all call it together.
void buildScene(Scene& scene, RunOptions const& run, TreeOptions const& tree, BuildReport& report,
                RayTransport* ranks = nullptr);

/// Prints what there is to note of the files of the scene's blocks.
void noteFiles(Scene const& scene, RunOptions const& run);

/// "12.5 GB", "340 MB"
std::string sizeText(std::uint64_t bytes);

/// How often blocks were read since `before`, and how much: "312 blocks read, 18.2 GB"; empty when
/// none was.
std::string readText(StoreFigures const& now, StoreFigures const& before);

/// How many threads the options ask for.
int threadCount(RunOptions const& run);

/// Bounds of the scene in the file's coordinates.
Bounds inFile(Bounds const& bounds, Vec const& origin);

/// The most memory that the process had so far.
std::uint64_t peakMegabytes();

} // namespace pipeline::tool
