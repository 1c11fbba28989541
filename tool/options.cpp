#include "tool/options.h"

#include "tool/particlefile.h"
#include "tool/srgb.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>

namespace kelpatool {

namespace {

constexpr int wrongUsage = 2;

constexpr char const* examples = R"(Examples:
  kelpa render snapshot.ply -o picture.png
  kelpa render frame1.ply frame2.ply -o blurred.png --shutter 0:0.5
  kelpa generate galaxy --count 200000 --seed 1 -o galaxy.ply
)";

/// Help that begins with what most people look for.
class ExamplesFirst : public CLI::Formatter {
  public:
    std::string make_usage(CLI::App const* app, std::string name) const override {
        return examples + CLI::Formatter::make_usage(app, name);
    }
};

/// Numbers between separators, exactly as many as fit; throws what CLI11 reports as wrong usage.
template <class Number, std::size_t Count>
std::array<Number, Count> parseNumbers(std::string const& text, char separator, char const* form) {
    std::array<Number, Count> numbers{};
    char const* at = text.data();
    char const* const end = at + text.size();
    for (std::size_t i = 0; i < Count; ++i) {
        auto const [rest, error] = std::from_chars(at, end, numbers[i]);
        bool const isLast = i + 1 == Count;
        if (error != std::errc() || (isLast ? rest != end : rest == end || *rest != separator))
            throw CLI::ValidationError(fmt::format("'{}' is not of the form {}", text, form));
        if constexpr (std::is_floating_point_v<Number>)
            if (!std::isfinite(numbers[i]))
                throw CLI::ValidationError(fmt::format("'{}' is not finite", text));
        at = rest + 1;
    }
    return numbers;
}

Kelpa::Vector parseVector(std::string const& text) {
    auto const v = parseNumbers<float, 3>(text, ',', "X,Y,Z");
    return {v[0], v[1], v[2]};
}

/// #rrggbb to linear light.
Kelpa::Vector parseColor(std::string const& text) {
    unsigned int bits = 0;
    char const* const end = text.data() + text.size();
    bool const hasForm = text.size() == 7 && text[0] == '#';
    if (!hasForm || std::from_chars(text.data() + 1, end, bits, 16).ptr != end)
        throw CLI::ValidationError(fmt::format("'{}' is not a colour of the form #rrggbb", text));
    auto const part = [bits](unsigned int shift) {
        return linearFromSrgb(static_cast<float>((bits >> shift) & 0xFFU) / 255.0F);
    };
    return {part(16), part(8), part(0)};
}

/// An option whose text is parsed into `target`.
template <class Parse, class Target>
CLI::Option* addParsed(CLI::App& app, std::string const& name, Target& target, Parse parse,
                       std::string const& help) {
    return app.add_option_function<std::string>(
        name, [&target, parse](std::string const& text) { target = parse(text); }, help);
}

void addRunOptions(CLI::App& app, RunOptions& run) {
    app.add_option("-n,--threads", run.threads, "Threads to use; 0: all processors")
        ->check(CLI::Range(0, 4096))
        ->group("Run");
    app.add_flag("-q,--quiet", run.quiet, "Say nothing but errors")->group("Run");
    app.add_flag("-v,--verbose", run.verbose, "Say what the build does")->group("Run");
    app.add_option("--progress", run.progress, "Progress display: auto, plain or none")
        ->transform(CLI::CheckedTransformer(
            std::map<std::string, Kelpa::ProgressLine::Mode>{
                {"auto", Kelpa::ProgressLine::Mode::automatic},
                {"plain", Kelpa::ProgressLine::Mode::plain},
                {"none", Kelpa::ProgressLine::Mode::none}},
            CLI::ignore_case))
        ->group("Run");
}

void addParticleOptions(CLI::App& app, ParticleOptions& particles) {
    app.add_option("FILE", particles.files, "Particle file; a second one is a later snapshot")
        ->required()
        ->expected(1, 2);
    app.add_option("--format", particles.format, "Format of the file: ply or xyz");
    app.add_option("--frame", particles.frame, "Frame of the file; negative: from the end");
    auto* const radius =
        app.add_option("-r,--radius", particles.radius, "Radius of all particles")->group("Radius");
    app.add_option("--radius-from", particles.radiusFrom, "Column that holds the radii")
        ->excludes(radius)
        ->group("Radius");
    app.add_option("--radius-scale", particles.radiusScale, "Factor on all radii")->group("Radius");
    app.add_option_function<std::string>(
           "--radii",
           [&particles](std::string const& kind) { particles.covalentRadii = kind == "covalent"; },
           "Element radii: vdw or covalent")
        ->check(CLI::IsMember({"vdw", "covalent"}))
        ->group("Radius");
    app.add_flag("--points", particles.points, "Points with a radius instead of solid spheres")
        ->group("Radius");
}

void addTreeOptions(CLI::App& app, TreeOptions& tree) {
    app.add_option("--max-depth", tree.maxDepth, "Deepest level of the tree")->group("Tree");
    app.add_option("--leaf-size-factor", tree.leafSizeFactor, "Growth of leaves with depth")
        ->group("Tree");
    app.add_option("--min-node-size", tree.minNodeSize, "Diagonal below which nodes are leaves")
        ->group("Tree");
}

void addMotionOptions(CLI::App& app, MotionOptions& motion) {
    app.add_option("--motion", motion.motion, "none, velocity, or the file of a second snapshot")
        ->group("Motion");
    app.add_option("--times", motion.times, "When the two snapshots were taken: T0 T1")
        ->group("Motion");
    app.add_option_function<std::vector<std::string>>(
           "--shutter",
           [&motion](std::vector<std::string> const& ends) {
               std::string const text = ends.size() == 2 ? ends[0] + ":" + ends[1] : ends[0];
               motion.shutter = parseNumbers<double, 2>(text, ':', "OPEN:CLOSE");
           },
           "When the shutter opens and closes: OPEN:CLOSE; half the way between the snapshots, or "
           "0:0.5 with velocities")
        ->expected(1, 2)
        ->group("Motion");
    app.add_option("--dt", motion.dt, "The file's unit of time per unit of the shutter")
        ->group("Motion");
    app.add_option_function<std::string>(
           "--bounds",
           [&motion](std::string const& kind) { motion.movingBounds = kind == "moving"; },
           "Bounds that the moving tree reports: static or moving")
        ->check(CLI::IsMember({"static", "moving"}))
        ->group("Motion");
}

void addPictureOptions(CLI::App& app, Options& options) {
    ColorOptions& color = options.color;
    auto* const one = addParsed(app, "--color", color.color, parseColor, "Colour of all: #rrggbb")
                          ->group("Colour");
    app.add_option("--color-by", color.colorBy, "Column to colour by")
        ->excludes(one)
        ->group("Colour");
    app.add_option("--colormap", "Colour map for --color-by")
        ->check(CLI::IsMember({"viridis"}))
        ->group("Colour");
    addParsed(
        app, "--range", color.range,
        [](std::string const& text) { return parseNumbers<float, 2>(text, ':', "A:B"); },
        "Values for both ends of the colour map; default: 1st to 99th percentile")
        ->group("Colour");

    CameraOptions& camera = options.camera;
    app.add_option("--view", camera.view, "front, back, left, right, top, bottom or iso")
        ->check(CLI::IsMember({"front", "back", "left", "right", "top", "bottom", "iso"}))
        ->group("Camera");
    addParsed(app, "--eye", camera.eye, parseVector, "Where the camera is: X,Y,Z")->group("Camera");
    addParsed(app, "--look-at", camera.lookAt, parseVector, "What it looks at: X,Y,Z")
        ->group("Camera");
    app.add_option_function<std::string>(
           "--up",
           [&camera](std::string const& text) {
               if (text == "y" || text == "z")
                   camera.upAxis = text[0];
               else
                   camera.up = parseVector(text);
           },
           "Upward axis, y or z, or direction X,Y,Z")
        ->group("Camera");
    app.add_option("--fov", camera.fov, "Vertical angle of view, degrees")
        ->check(CLI::Range(0.1, 170.0))
        ->group("Camera");
    app.add_flag("--ortho", camera.ortho, "Parallel projection")->group("Camera");
    app.add_option("--zoom", camera.zoom, "Factor on the picture's scale")
        ->check(CLI::Range(1e-6, 1e6))
        ->group("Camera");

    ImageOptions& image = options.image;
    app.add_option_function<std::string>(
           "--size",
           [&image](std::string const& text) {
               auto const size = parseNumbers<int, 2>(text, 'x', "WIDTHxHEIGHT");
               if (size[0] < 1 || size[1] < 1 || size[0] > 65536 || size[1] > 65536)
                   throw CLI::ValidationError(
                       fmt::format("'{}' is not from 1x1 to 65536x65536", text));
               image.width = size[0];
               image.height = size[1];
           },
           "Size of the picture: WIDTHxHEIGHT")
        ->group("Image");
    app.add_option("--samples", image.samples, "Camera rays per pixel")
        ->check(CLI::Range(1, 65536))
        ->group("Image");
    app.add_option_function<std::string>(
           "--background",
           [&image](std::string const& text) {
               image.transparent = text == "none";
               if (!image.transparent)
                   image.background = parseColor(text);
           },
           "Colour behind the particles: #rrggbb, or none for a transparent picture")
        ->group("Image");
    addParsed(
        app, "--crop", image.crop,
        [](std::string const& text) { return parseNumbers<int, 4>(text, ',', "X0,Y0,X1,Y1"); },
        "Pixels to render: X0,Y0,X1,Y1")
        ->group("Image");
    app.add_option_function<std::vector<std::string>>(
           "--aov",
           [&image](std::vector<std::string> const& names) {
               for (std::string const& name : names) {
                   image.depth = image.depth || name == "depth";
                   image.normal = image.normal || name == "normal";
                   image.id = image.id || name == "id";
                   image.position = image.position || name == "position";
               }
           },
           "Further channels of an .exr: depth,normal,id,position")
        ->delimiter(',')
        ->check(CLI::IsMember({"depth", "normal", "id", "position"}))
        ->group("Image");

    LightOptions& light = options.light;
    app.add_option("--shade", light.shade, "ao (light, shadows, ambient occlusion), lit or flat")
        ->transform(CLI::CheckedTransformer(
            std::map<std::string, LightOptions::Shade>{{"ao", LightOptions::Shade::ao},
                                                       {"lit", LightOptions::Shade::lit},
                                                       {"flat", LightOptions::Shade::flat}},
            CLI::ignore_case))
        ->group("Light");
    app.add_option("--ao-samples", light.aoSamples, "Occlusion rays per camera ray")
        ->check(CLI::Range(0, 4096))
        ->group("Light");
    app.add_option("--ao-distance", light.aoDistance, "How far occlusion reaches")
        ->check(CLI::PositiveNumber)
        ->group("Light");
    app.add_flag("--shadows,!--no-shadows", light.shadows, "Shadows of the key light")
        ->group("Light");
    app.add_option("--seed", options.run.seed, "Of the sample patterns")->group("Run");
    app.add_flag("--reproducible", options.run.reproducible,
                 "Build on one thread, so that every bit is the same every time")
        ->group("Run");
    app.add_flag("--stats", options.run.stats, "Print the tree's statistics")->group("Run");
}

// Ranges let NaN through: none of their comparisons is true.
void checkFinite(Options const& options) {
    std::pair<char const*, double> const numbers[] = {
        {"--times", options.motion.times[0]},
        {"--times", options.motion.times[1]},
        {"--dt", options.motion.dt},
        {"--fov", options.camera.fov},
        {"--zoom", options.camera.zoom},
        {"--ao-distance", options.light.aoDistance.value_or(1.0)},
        {"--leaf-size-factor", static_cast<double>(options.tree.leafSizeFactor.value_or(1.0F))},
        {"--min-node-size", static_cast<double>(options.tree.minNodeSize)},
    };
    for (auto const& [name, value] : numbers)
        if (!std::isfinite(value))
            throw UsageError(fmt::format("{} must be finite", name));
}

void checkTogether(Options& options) {
    ParticleOptions& particles = options.particles;
    if (options.command == Options::Command::generate)
        return;
    checkFinite(options);
    if (particles.radius && !(*particles.radius > 0.0F && std::isfinite(*particles.radius)))
        throw UsageError("--radius must be above 0 and finite");
    if (!(particles.radiusScale > 0.0F && std::isfinite(particles.radiusScale)))
        throw UsageError("--radius-scale must be above 0 and finite");
    MotionOptions& motion = options.motion;
    if (particles.files.size() == 2) {
        if (motion.motion != "none")
            throw UsageError("two files are two snapshots already; leave --motion out");
        motion.motion = particles.files[1];
        particles.files.pop_back();
    }
    if (motion.times[0] == motion.times[1])
        throw UsageError("--times must differ");
    if (motion.shutter && (*motion.shutter)[0] > (*motion.shutter)[1])
        throw UsageError("--shutter closes before it opens");
    if (motion.shutter && motion.motion == "none")
        throw UsageError("--shutter needs motion: a second file, or --motion velocity");
    auto const& crop = options.image.crop;
    if (crop && !(0 <= (*crop)[0] && (*crop)[0] < (*crop)[2] && (*crop)[2] <= options.image.width &&
                  0 <= (*crop)[1] && (*crop)[1] < (*crop)[3] && (*crop)[3] <= options.image.height))
        throw UsageError(fmt::format("--crop must lie within the picture of {}x{} and not be empty",
                                     options.image.width, options.image.height));
    auto const& up = options.camera.up;
    if (up && up->x == 0.0F && up->y == 0.0F && up->z == 0.0F)
        throw UsageError("--up 0,0,0 is no direction");
    if (options.camera.eye && !options.camera.view.empty())
        throw UsageError("--eye and --view both place the camera; use one of them");
}

} // namespace

std::optional<Options> parseOptions(int argc, char const* const* argv, int& exitCode) {
    Options options;
    CLI::App app("Ray-traces particle systems: exact spheres and points, still and moving.",
                 "kelpa");
    app.set_version_flag("--version", "kelpa 0.1.0 (reads PLY, XYZ; writes PNG, EXR, PPM, PLY)");
    app.require_subcommand(1);
    app.formatter(std::make_shared<ExamplesFirst>());

    auto* const render = app.add_subcommand("render", "Make a picture of a particle file");
    addParticleOptions(*render, options.particles);
    render->add_option("-o,--output", options.output, "Picture: .png, .exr or .ppm")->required();
    addMotionOptions(*render, options.motion);
    addPictureOptions(*render, options);
    addTreeOptions(*render, options.tree);
    addRunOptions(*render, options.run);

    auto* const info = app.add_subcommand("info", "Tell what a particle file holds");
    addParticleOptions(*info, options.particles);
    addMotionOptions(*info, options.motion);
    info->add_flag("--json", options.json, "As JSON");
    addTreeOptions(*info, options.tree);
    addRunOptions(*info, options.run);

    auto* const generate = app.add_subcommand("generate", "Write a sample of particles");
    generate->add_option("KIND", options.kind, "galaxy, splash, crystal or cloud")
        ->required()
        ->check(CLI::IsMember(sampleKinds()));
    generate->add_option("-o,--output", options.output, "File: .ply")->required();
    generate->add_option("--count", options.count, "Particles")
        ->default_val(100000)
        ->check(CLI::Range(std::uint64_t{0}, std::uint64_t{2147483647}));
    generate->add_option("--seed", options.run.seed, "Another sample of the kind");
    generate->add_flag("--ascii", options.ascii, "As text");
    addRunOptions(*generate, options.run);

    try {
        app.parse(argc, argv);
        options.command = render->parsed() ? Options::Command::render
                          : info->parsed() ? Options::Command::info
                                           : Options::Command::generate;
        checkTogether(options);
    } catch (CLI::ParseError const& answer) {
        if (answer.get_exit_code() == 0) {
            exitCode = app.exit(answer);
        } else {
            fmt::print(stderr, "kelpa: {}; see kelpa --help\n", answer.what());
            exitCode = wrongUsage;
        }
        return std::nullopt;
    } catch (UsageError const& error) {
        fmt::print(stderr, "kelpa: {}\n", error.what());
        exitCode = wrongUsage;
        return std::nullopt;
    }
    return options;
}

} // namespace kelpatool
