#pragma once

#include "kelpa/foundation/vector.h"
#include "kelpa/host/consoleprogress.h"

#include "pipeline/files/framesource.h"

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kelpatool {

/// Options that contradict each other or make no sense; the text says which and what to do.
class UsageError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// Which particles, and how large.
struct ParticleOptions {
    std::vector<std::string> files; ///< one, or two snapshots
    std::string format;
    std::optional<int> frame;           ///< unset: the first
    std::vector<FrameRange> frames;     ///< several pictures; empty: one
    bool strict = false;                ///< what is missing of a sequence is an error
    std::string assembly;               ///< empty: none
    std::vector<std::uint8_t> elements; ///< atomic numbers of types 1, 2 and so on; empty: as read
    std::optional<float> radius;
    std::string radiusFrom;
    float radiusScale = 1.0F;
    bool covalentRadii = false;
    bool points = false;
};

/// How particles move between two snapshots, or along their velocities.
struct MotionOptions {
    std::string motion = "none"; ///< "none", "velocity", "next" or the second snapshot's file
    std::array<double, 2> times = {0.0, 1.0};     ///< when the two snapshots were taken
    std::optional<std::array<double, 2>> shutter; ///< in the unit of `times`
    std::optional<double> dt; ///< the file's unit of time per unit of the shutter
    bool movingBounds = false;
};

struct ColorOptions {
    std::optional<Kelpa::Vector> color; ///< linear
    std::string colorBy;
    std::optional<std::array<float, 2>> range;
};

struct CameraOptions {
    std::string view;
    std::optional<Kelpa::Vector> eye;
    std::optional<Kelpa::Vector> lookAt;
    std::optional<Kelpa::Vector> up;
    char upAxis = '\0'; ///< '\0': the format's
    double fov = 35.0;  ///< vertical, degrees
    bool ortho = false;
    double zoom = 1.0;
    int turntable = 0; ///< pictures of one turn; 0: no turn
};

struct ImageOptions {
    int width = 1280;
    int height = 720;
    int samples = 16;
    std::optional<Kelpa::Vector> background; ///< linear
    bool transparent = false;
    std::optional<std::array<int, 4>> crop;
    bool depth = false, normal = false, id = false, position = false;

    bool hasAovs() const { return depth || normal || id || position; }
};

struct LightOptions {
    enum class Shade { ao, lit, flat };

    Shade shade = Shade::ao;
    int aoSamples = 2;
    std::optional<double> aoDistance;
    std::optional<bool> shadows; ///< unset: with ambient occlusion only
};

struct TreeOptions {
    std::optional<int> maxDepth; ///< unset: the tree's own
    std::optional<float> leafSizeFactor;
    float minNodeSize = 0.0F;
};

struct RunOptions {
    int threads = 0; ///< 0: all processors
    std::uint64_t seed = 0;
    bool reproducible = false;
    bool quiet = false;
    bool verbose = false;
    bool stats = false;    ///< printed
    std::string statsFile; ///< as JSON; empty: none
    Kelpa::ProgressLine::Mode progress = Kelpa::ProgressLine::Mode::automatic;
};

/// Everything that the command line says.
struct Options {
    enum class Command { none, render, info, convert, generate, bench };

    Command command = Command::none;
    ParticleOptions particles;
    MotionOptions motion;
    ColorOptions color;
    CameraOptions camera;
    ImageOptions image;
    LightOptions light;
    TreeOptions tree;
    RunOptions run;
    std::string output;
    bool json = false;
    std::string kind; ///< of sample
    std::uint64_t count = 0;
    bool ascii = false;
    int benchRuns = 5;
    int benchRays = 200000;
};

/// Reads the command line. When that already answers it (help, version, wrong usage) says so, fills
/// `exitCode` and returns nothing.
std::optional<Options> parseOptions(int argc, char const* const* argv, int& exitCode);

} // namespace kelpatool
