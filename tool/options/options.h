// What the command line says.
#pragma once

#include "kelpa/host/consoleprogress.h"

#include "pipeline/files/framesource.h"
#include "pipeline/imagefile/imagefile.h"
#include "pipeline/picture/framing.h"
#include "pipeline/picture/look.h"
#include "pipeline/scene/scene.h"

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace pipeline::tool {

/// Options that contradict each other or make no sense; the text says which and what to do.
class UsageError : public std::invalid_argument {
  public:
    using std::invalid_argument::invalid_argument;
};

/// Which particles.
struct ParticleOptions {
    std::vector<std::string> files; ///< one, or two snapshots
    bool together = false;          ///< the files are one snapshot
    std::vector<std::string> more;  ///< files of it besides the first
    std::string format;
    std::optional<int> frame;           ///< unset: the first
    std::vector<FrameRange> frames;     ///< several pictures; empty: one
    bool strict = false;                ///< what is missing of a sequence is an error
    std::vector<std::string> kinds;     ///< of particles; empty: all
    std::string topology;               ///< empty: none
    std::string assembly;               ///< empty: none
    std::vector<std::uint8_t> elements; ///< atomic numbers of types 1, 2 and so on; empty: as read
    std::string radiusFrom;             ///< the column of radii; empty: the format's own
    bool keepsAllColumns = false;       ///< not only those with a use here: they are written again
};

/// Files that the pictures of a film have in common.
struct FilmOptions {
    std::string camera;     ///< to take cameras from; empty: none
    std::string plan;       ///< to write what the first frame chooses to, instead of pictures
    std::string use;        ///< to take that from
    bool resume = false;    ///< leave out pictures that are there
    std::string saveCamera; ///< to write the first picture's camera to
    double framesPerSecond = 24.0;
};

struct RunOptions {
    int threads = 0; ///< 0: all processors
    bool reproducible = false;
    bool quiet = false;
    bool verbose = false;
    bool notesOnce = false; ///< what is noted of one frame of a film is not noted of the next
    bool stats = false;     ///< printed
    std::string statsFile;  ///< as JSON; empty: none
    Kelpa::ProgressLine::Mode progress = Kelpa::ProgressLine::Mode::automatic;
};

/// How the view in a browser is served, and what it has to know of the command line as written.
struct ViewOptions {
    int port = 0; ///< 0: one that is free
    std::string host = "127.0.0.1";
    bool opensBrowser = false;
    std::vector<std::string> words;  ///< of a picture's command, but for what the page chooses
    std::string background;          ///< as written; empty: not given
    std::string color;               ///< likewise
    std::string colorMap;            ///< likewise
    std::vector<std::string> slices; ///< likewise
    bool hasSize = false;
};

/// Everything that the command line says.
struct Options {
    enum class Command { none, render, info, convert, generate, bench, join, view };

    Command command = Command::none;
    ParticleOptions particles;
    SceneOptions scene;
    CameraOptions camera;
    FilmOptions film;
    ImageOptions image;
    ExrCompression compression = ExrCompression::zip;
    LightOptions light;
    TreeOptions tree;
    RunOptions run;
    ViewOptions view;
    std::string output;
    std::string commandLine; ///< as it may be given again, but for where it writes and how it runs
    std::vector<std::string> tiles; ///< to be joined
    bool json = false;
    std::string kind; ///< of sample
    std::uint64_t count = 0;
    std::uint64_t seed = 0; ///< of a sample
    bool ascii = false;
    int benchRuns = 5;
    int benchRays = 200000;
};

/// Reads the command line. When that already answers it (help, version, wrong usage) says so, fills
/// `exitCode` and returns nothing.
std::optional<Options> parseOptions(int argc, char const* const* argv, int& exitCode);

} // namespace pipeline::tool
