#pragma once

#include "pipeline/files/particleset.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace kelpatool {

/// Input that cannot be used: the text says which file, where, what was found and the way on.
class InputError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// A frame that a file does not have.
class NoSuchFrame : public InputError {
  public:
    using InputError::InputError;
};

/// Output that cannot be written.
class OutputError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Ctrl-C, noticed by whatever polls.
class Interrupted : public std::runtime_error {
  public:
    Interrupted() : std::runtime_error("interrupted") {}
};

/// How a phase that may take long reports and is asked to stop.
///
/// Called every few milliseconds of work on the thread that does it; `fraction` runs from 0 to 1.
/// Throws `Interrupted` when the user wants to stop.
using PhaseProgress = std::function<void(double fraction, std::uint64_t particles)>;

/// What to read of a file.
struct ReadOptions {
    std::string format{};   ///< one of `formatNames`; empty: told from the content, then the suffix
    int frame = 0;          ///< negative: counted from the end
    std::string assembly{}; ///< the biological assembly to build; empty: what the file holds
    std::string radiusFrom{}; ///< the column to take radii from; empty: the format's own names
    std::vector<std::string> attributes{}; ///< further columns to keep, by name
    bool allAttributes = false;            ///< keep every column that is read for nothing else
    bool summarise = false;                ///< fill `ParticleSet::columns`
    bool forMotion = false;                ///< prefer positions that do not jump at a cell's faces
    bool findOnly = false; ///< of a file of many frames, look for the frame and read no particles
    PhaseProgress progress{}; ///< may be empty
};

/// The formats that can be read, for the user: "PLY, XYZ and GRO".
std::string readableFormats();
/// The same by the names that `ReadOptions::format` knows: "ply|xyz|gro".
std::string formatNames();

/// Reads one frame of a particle file, plain or gzipped. Throws `InputError`.
ParticleSet readParticleFile(std::string const& path, ReadOptions const& options);

/// A particle file that stays open, so that frames read in rising order cost one way through it.
class ParticleFile {
  public:
    explicit ParticleFile(std::string path);
    ~ParticleFile();
    ParticleFile(ParticleFile const&) = delete;
    ParticleFile& operator=(ParticleFile const&) = delete;

    /// Reads a frame as `readParticleFile` does.
    ParticleSet read(ReadOptions const& options);

  private:
    struct Open;

    std::string path;
    std::unique_ptr<Open> open; ///< null: not yet, or after a failure
};

/// Writes positions and whatever else the set has as a PLY file, under a temporary name until it is
/// whole. Throws `OutputError`.
void writePly(std::string const& path, ParticleSet const& particles, bool ascii,
              PhaseProgress const& progress);

/// One of the project's own samples: "galaxy", "splash", "crystal" or "cloud". The same kind, count
/// and seed give the same bits on every machine. Throws `std::invalid_argument` for another kind.
ParticleSet generateParticles(std::string const& kind, std::uint64_t count, std::uint64_t seed,
                              PhaseProgress const& progress);

/// The kinds that `generateParticles` knows.
std::vector<std::string> const& sampleKinds();

/// Half the median distance from a particle to its sixth nearest neighbour, over a sample of the
/// finite particles: the radius for files that have none. 0 when all particles coincide or there is
/// only one.
float radiusFromSpacing(std::vector<Kelpa::Vector> const& positions, PhaseProgress const& progress);

/// The radius of an element in Angstrom: van der Waals or covalent; 1.70 when unknown.
float elementRadius(std::uint8_t atomicNumber, bool covalent);

/// The usual colour of an element, linear RGB.
Kelpa::Vector elementColor(std::uint8_t atomicNumber);

} // namespace kelpatool
