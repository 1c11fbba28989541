#include "tool/options/options.h"

#include "pipeline/files/elements.h"
#include "pipeline/files/formattable.h"
#include "pipeline/samples/samples.h"

#include "tool/options/optionchecks.h"
#include "tool/options/optionforms.h"
#include "tool/process/standardstreams.h"
#include "tool/version.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <sstream>

namespace kelpatool {

namespace {

constexpr int wrongUsage = 2;

constexpr char const* examples = R"(Examples:
  kelpa render snapshot.ply -o picture.png
  kelpa render frame1.ply frame2.ply -o blurred.png --shutter 0:0.5
  kelpa render 'cache.{}.bgeo' --frames 1:240 --motion velocity -o film.####.exr
  kelpa render snapshot.ply --turntable 90 -o turn.####.png

)";
constexpr char const* otherExamples = R"(Examples:
  kelpa info snapshot.ply
  kelpa convert run.dump --frame -1 -o last.ply
  kelpa generate galaxy --count 200000 --seed 1 -o galaxy.ply
  kelpa bench snapshot.ply

)";

/// Help that begins with what most people look for.
class ExamplesFirst : public CLI::Formatter {
  public:
    std::string make_description(CLI::App const* app) const override {
        bool const isOther = app->get_parent() != nullptr && app->get_name() != "render";
        return (isOther ? otherExamples : examples) + CLI::Formatter::make_description(app);
    }
    // CLI11 tells by a word in braces that a negated flag stores false.
    std::string make_option_name(CLI::Option const* option, bool isPositional) const override {
        std::string name = CLI::Formatter::make_option_name(option, isPositional);
        if (std::size_t const brace = name.find('{'); brace != std::string::npos)
            name.erase(brace);
        return name;
    }
    // Of what excludes what the messages tell; here it would push the words out of line.
    std::string make_option_opts(CLI::Option const* option) const override {
        if (option->get_positional() && !option->nonpositional())
            return "";
        std::string const type = option->get_type_name();
        return (type.empty() || type[0] == '[' ? "" : " ") + type +
               (option->get_required() ? " (required)" : "");
    }
    std::string make_option_usage(CLI::Option const* option) const override {
        bool const isMany = option->get_expected_max() > 1;
        return option->get_name(true) + (isMany ? "..." : "");
    }
};

constexpr float largest = 1e30F;         // of lengths and the like: far beyond any use
constexpr float smallestRadius = 1e-15F; // below it trees leave a particle out

void addRunOptions(CLI::App& app, RunOptions& run) {
    app.add_option("-n,--threads", run.threads, "Threads to use; 0: all processors")
        ->transform(between(0, 4096))
        ->group("Run");
    auto* const quiet =
        app.add_flag("-q,--quiet", run.quiet, "Say nothing but errors")->group("Run");
    app.add_flag("-v,--verbose", run.verbose, "Say what the build does")
        ->excludes(quiet)
        ->group("Run");
    using Mode = Kelpa::ProgressLine::Mode;
    addChoice<Mode>(app, "--progress", run.progress,
                    {{"auto", Mode::automatic}, {"plain", Mode::plain}, {"none", Mode::none}},
                    "Progress display")
        ->group("Run");
}

std::vector<std::uint8_t> parseElements(std::string const& symbols) {
    std::vector<std::uint8_t> elements;
    std::istringstream rest(symbols + ",");
    for (std::string symbol; std::getline(rest, symbol, ',');) {
        elements.push_back(atomicNumberOf(symbol));
        if (elements.back() == 0)
            throw UsageError(fmt::format("'{}' is no element", symbol));
    }
    return elements;
}

/// What to read of a file; gives the option for the column of radii.
CLI::Option* addReadOptions(CLI::App& app, ParticleOptions& particles) {
    app.add_option("--format", particles.format, "Format of the file")->type_name(formatNames());
    app.add_option(
        "--frame", particles.frame,
        "Frame of the file, or the number of a file of a sequence, such as cache.{}.ply; "
        "negative: from the end; default: the first");
    app.add_option("--topology", particles.topology,
                   "File that names the particles of a trajectory such as XTC: PDB, GRO, CIF, "
                   "LAMMPS data")
        ->type_name("FILE");
    app.add_option("--assembly", particles.assembly,
                   "Build this biological assembly of a PDB or mmCIF file, such as 1");
    addParsed(app, "--elements", "O,H", particles.elements, parseElements,
              "Elements of a LAMMPS dump's types 1, 2 and so on: for colours and radii");
    return app
        .add_option("--radius-from", particles.radiusFrom,
                    "Column that holds the radii, such as hsml")
        ->group("Radius");
}

void addParticleOptions(CLI::App& app, Options& options) {
    auto* const radiusFrom = addReadOptions(app, options.particles);
    RadiusOptions& radii = options.scene.radius;
    auto* const radius =
        app.add_option("-r,--radius", radii.radius,
                       "Radius of all particles; else the file's, by element, or by spacing")
            ->transform(between(smallestRadius, largest))
            ->excludes(radiusFrom)
            ->group("Radius");
    app.add_option("--radius-scale", radii.scale, "Factor on all radii")
        ->transform(between(1.0F / largest, largest))
        ->group("Radius");
    addChoice(app, "--radii", radii.covalent, {{"vdw", false}, {"covalent", true}},
              "Element radii; default: vdw")
        ->excludes(radius)
        ->excludes(radiusFrom)
        ->group("Radius");
    app.add_flag("--points", options.scene.points, "Points with a radius instead of solid spheres")
        ->group("Radius");
    app.add_flag("--strict", options.particles.strict,
                 "Take frames that a sequence lacks for an error, instead of noting them");
}

/// "7", "0:9", "0:9:3"; what is left out before or behind a colon is an end: "5:", ":-2", "::10".
FrameRange parseFrameRange(std::string const& text) {
    std::array<int, 3> numbers = {0, -1, 1};
    std::size_t count = 0;
    std::istringstream rest(text + ":");
    for (std::string part; std::getline(rest, part, ':'); ++count) {
        if (count == numbers.size())
            throw UsageError(fmt::format("'{}' is not of the form N, A:B or A:B:S", text));
        if (!part.empty())
            numbers[count] = parseNumbers<int, 1>(part, ':', "N, A:B or A:B:S")[0];
    }
    if (count == 1) {
        if (text.empty())
            throw UsageError("a number is missing");
        numbers[1] = numbers[0];
    }
    auto const [first, last, step] = numbers;
    if (step < 1)
        throw UsageError(fmt::format("'{}' steps by {}; the least step is 1", text, step));
    if ((first < 0) == (last < 0) && first > last)
        throw UsageError(fmt::format("'{}' ends before it begins", text));
    return {first, last, step};
}

std::vector<FrameRange> parseFrameRanges(std::string const& text) {
    std::vector<FrameRange> ranges;
    std::istringstream rest(text + ",");
    for (std::string range; std::getline(rest, range, ',');)
        ranges.push_back(parseFrameRange(range));
    return ranges;
}

void addTreeOptions(CLI::App& app, TreeOptions& tree) {
    app.add_option("--max-depth", tree.maxDepth,
                   "Deepest level of the tree; default: 60, for moving particles 80")
        ->transform(between(0, 1000000))
        ->group("Tree");
    app.add_option("--leaf-size-factor", tree.leafSizeFactor,
                   "Growth of leaves with depth; default: 2, for moving particles 1")
        ->transform(between(0.0F, largest))
        ->group("Tree");
    app.add_option("--min-node-size", tree.minNodeSize, "Diagonal below which nodes are leaves")
        ->transform(between(0.0F, largest))
        ->group("Tree");
}

Motion parseMotion(std::string const& text) {
    if (text == "none")
        return Still{};
    if (text == "velocity")
        return AlongVelocities{};
    if (text == "next")
        return ToNextFrame{};
    return ToFile{text};
}

void addMotionOptions(CLI::App& app, Options& options) {
    MotionOptions& motion = options.scene.motion;
    addParsed(
        app, "--motion", "none|velocity|next|FILE", motion.motion, parseMotion,
        "Where particles move: along their velocities, to the frame after, or to the snapshot "
        "in another file; default: none")
        ->group("Motion");
    app.add_option("--times", motion.times, "When the two snapshots were taken")
        ->type_name("T0 T1")
        ->transform(between(-1e30, 1e30))
        ->group("Motion");
    addParsed(
        app, "--shutter", "OPEN:CLOSE", motion.shutter,
        [](std::string const& text) { return parseNumbers<double, 2>(text, ':', "OPEN:CLOSE"); },
        "When the shutter opens and closes; default: half the way between the snapshots, or "
        "0:0.5 with velocities")
        ->group("Motion");
    app.add_option(
           "--dt", motion.dt,
           "How much of the file's time passes in one unit of the shutter; default: 1, for film "
           "effects 1/24 (one frame)")
        ->transform(between(-1e30, 1e30))
        ->group("Motion");
    addChoice(app, "--bounds", options.tree.hasMovingBounds, {{"static", false}, {"moving", true}},
              "Bounds that the moving tree reports")
        ->group("Motion");
}

/// Takes names between commas.
void takeChannels(std::string const& names, ImageOptions& image) {
    std::istringstream rest(names + ",");
    for (std::string name; std::getline(rest, name, ',');) {
        bool* const channel = name == "depth"      ? &image.depth
                              : name == "normal"   ? &image.normal
                              : name == "id"       ? &image.id
                              : name == "position" ? &image.position
                                                   : nullptr;
        if (channel == nullptr)
            throw UsageError(
                fmt::format("'{}' is none of depth, normal, id and position, with commas", name));
        *channel = true;
    }
}

void addPictureOptions(CLI::App& app, Options& options) {
    ColorOptions& color = options.scene.color;
    auto* const one =
        addParsed(
            app, "--color", "COLOR", color.color, parseColorOption,
            "Colour of all, such as #4070c0, #47c or steelblue; else the file's, or by element")
            ->group("Colour");
    auto* const colorBy = app.add_option("--color-by", color.colorBy, "Column to colour by")
                              ->excludes(one)
                              ->group("Colour");
    addTaken(
        app, "--colormap", "viridis",
        [](std::string const& name) {
            if (inSmallLetters(name) != "viridis")
                throw UsageError(fmt::format("'{}' is no colour map; there is viridis", name));
        },
        "Colour map")
        ->needs(colorBy)
        ->group("Colour");
    addParsed(
        app, "--range", "A:B", color.range,
        [](std::string const& text) { return parseNumbers<float, 2>(text, ':', "A:B"); },
        "Values for both ends of the colour map; default: 1st to 99th percentile")
        ->needs(colorBy)
        ->group("Colour");

    CameraOptions& camera = options.camera;
    std::vector<std::pair<std::string, std::string>> views;
    for (char const* const view : {"front", "back", "left", "right", "top", "bottom", "iso"})
        views.emplace_back(view, view);
    addChoice(app, "--view", camera.view, views, "Where the particles, framed, are seen from")
        ->group("Camera");
    addParsed(app, "--eye", "X,Y,Z", camera.eye, parseVector, "Where the camera is")
        ->group("Camera");
    addParsed(app, "--look-at", "X,Y,Z", camera.lookAt, parseVector, "What it looks at")
        ->group("Camera");
    addTaken(
        app, "--up", "y|z|X,Y,Z",
        [&camera](std::string const& text) {
            if (std::string const axis = inSmallLetters(text); axis == "y" || axis == "z") {
                camera.upAxis = axis[0];
                return;
            }
            camera.up = parseVector(text);
            if (camera.up->x == 0.0F && camera.up->y == 0.0F && camera.up->z == 0.0F)
                throw UsageError(fmt::format("{} is no direction", text));
        },
        "Upward axis or direction; default: the format's")
        ->group("Camera");
    app.add_option("--fov", camera.fov, "Vertical angle of view, degrees; default: 35")
        ->transform(between(0.1, 170.0))
        ->group("Camera");
    app.add_flag("--ortho", camera.ortho, "Parallel projection")->group("Camera");
    app.add_option("--zoom", camera.zoom, "Factor on the picture's scale")
        ->transform(between(1e-6, 1e6))
        ->group("Camera");

    app.add_option("--turntable", camera.turntable,
                   "Pictures of one turn around the particles; -o turn.####.png numbers them")
        ->transform(between(1, 1000000))
        ->group("Camera");

    ImageOptions& image = options.image;
    addTaken(
        app, "--size", "WIDTHxHEIGHT",
        [&image](std::string const& text) {
            auto const size = parseNumbers<int, 2>(inSmallLetters(text), 'x', "WIDTHxHEIGHT");
            if (size[0] < 1 || size[1] < 1 || size[0] > 65536 || size[1] > 65536)
                throw UsageError(fmt::format("'{}' is not from 1x1 to 65536x65536", text));
            image.width = size[0];
            image.height = size[1];
        },
        "Pixels of the picture; default: 1280x720")
        ->group("Image");
    app.add_option("--samples", image.samples, "Camera rays per pixel; default: 16")
        ->transform(between(1, 65536))
        ->group("Image");
    addTaken(
        app, "--background", "COLOR|none",
        [&image](std::string const& text) {
            image.transparent = inSmallLetters(text) == "none";
            if (!image.transparent)
                image.background = parseColorOption(text);
        },
        "Colour behind the particles, or none for a transparent picture")
        ->group("Image");
    addParsed(
        app, "--crop", "X0,Y0,X1,Y1", image.crop,
        [](std::string const& text) { return parseNumbers<int, 4>(text, ',', "X0,Y0,X1,Y1"); },
        "Pixels to render: from X0,Y0 to before X1,Y1")
        ->group("Image");
    addTaken(
        app, "--aov", "depth,normal,id,position",
        [&image](std::string const& names) { takeChannels(inSmallLetters(names), image); },
        "Further channels of an .exr, of the pixel's first sample: depth (Z: distance along the "
        "ray, 1e30 where no particle is), normal, id (with id.high the 64 bits of it), "
        "position")
        ->group("Image");

    LightOptions& light = options.light;
    using Shade = LightOptions::Shade;
    addChoice<Shade>(app, "--shade", light.shade,
                     {{"ao", Shade::ao}, {"lit", Shade::lit}, {"flat", Shade::flat}},
                     "Light with shadows and ambient occlusion (default), light, or colour alone")
        ->group("Light");
    app.add_option("--ao-samples", light.aoSamples, "Occlusion rays per camera ray; default: 2")
        ->transform(between(0, 4096))
        ->group("Light");
    app.add_option("--ao-distance", light.aoDistance,
                   "How far occlusion reaches; default: 10 % of the diagonal")
        ->transform(between(1e-30, 1e30))
        ->group("Light");
    app.add_flag("--shadows,!--no-shadows", light.shadows,
                 "Shadows of the key light; default: with --shade ao")
        ->group("Light");
    app.add_option("--seed", options.image.seed, "Of the sample patterns")
        ->transform(anySeed())
        ->group("Run");
    app.add_flag("--reproducible", options.run.reproducible,
                 "Build on one thread, so that every bit is the same every time")
        ->group("Run");
    // A flag takes a value after = only, so that it never swallows the file that follows it.
    app.add_flag("--stats", options.run.statsFile,
                 "Print the tree's statistics; with --stats=FILE.json write them and all times")
        ->type_name("[=FILE.json]")
        ->group("Run");
}

/// Says why a command line cannot be read and where help is.
int refuse(CLI::App const& app, std::string const& reason, std::string const& firstWord) {
    bool const isUnknown = app.get_subcommands().empty() && !firstWord.empty();
    if (isUnknown && firstWord[0] != '-')
        say("kelpa: no command '{}'; there are render, info, convert, generate and bench\n",
            firstWord);
    else if (app.get_subcommands().empty())
        say("kelpa: {}; see kelpa --help\n", reason);
    else
        say("kelpa: {}; see kelpa {} --help\n", reason, app.get_subcommands().front()->get_name());
    return wrongUsage;
}

} // namespace

std::optional<Options> parseOptions(int argc, char const* const* argv, int& exitCode) {
    Options options;
    CLI::App app("Ray-traces particle systems: exact spheres and points, still and moving.",
                 "kelpa");
    app.set_version_flag("--version",
                         fmt::format("kelpa {} (reads {}; writes PNG, EXR, PPM and PLY)", version,
                                     readableFormats()));
    app.require_subcommand(1);
    app.formatter(std::make_shared<ExamplesFirst>());

    auto* const render = app.add_subcommand("render", "Make a picture of a particle file");
    render
        ->add_option("FILE", options.particles.files,
                     "Particle file; a second one is a later snapshot")
        ->required();
    addParticleOptions(*render, options);
    render->add_option("-o,--output", options.output, "Picture: .png, .exr or .ppm")->required();
    addParsed(*render, "--frames", "A:B[:S][,...]", options.particles.frames, parseFrameRanges,
              "Frames to render, A to B, every S-th, or several such and single ones, 0:8,12; the "
              "output numbers them: img.####.png")
        ->excludes(render->get_option("--frame"));
    addMotionOptions(*render, options);
    addPictureOptions(*render, options);
    addTreeOptions(*render, options.tree);
    addRunOptions(*render, options.run);

    auto* const info = app.add_subcommand("info", "Tell what a particle file holds");
    info->add_option("FILE", options.particles.files, "Particle files")->required();
    addParticleOptions(*info, options);
    addMotionOptions(*info, options);
    info->add_flag("--json", options.json, "As JSON");
    addTreeOptions(*info, options.tree);
    addRunOptions(*info, options.run);

    auto* const convert = app.add_subcommand("convert", "Write a frame of a particle file as PLY");
    convert->add_option("FILE", options.particles.files, "Particle file")->required();
    addReadOptions(*convert, options.particles);
    convert->add_option("-o,--output", options.output, "File: .ply")->required();
    convert->add_flag("--ascii", options.ascii, "As text");
    addRunOptions(*convert, options.run);

    auto* const bench =
        app.add_subcommand("bench", "Measure builds and rays with a file's particles");
    bench->add_option("FILE", options.particles.files, "Particle file")->required();
    addParticleOptions(*bench, options);
    addMotionOptions(*bench, options);
    bench->add_option("--runs", options.benchRuns, "Runs, of which the median counts; default: 5")
        ->transform(between(1, 1000));
    bench->add_option("--rays", options.benchRays, "Rays of each kind; default: 200000")
        ->transform(between(1, 100000000));
    addTreeOptions(*bench, options.tree);
    addRunOptions(*bench, options.run);

    auto* const generate = app.add_subcommand("generate", "Write a sample of particles");
    generate->add_option("KIND", options.kind, "galaxy, splash, crystal or cloud")
        ->required()
        ->transform(CLI::IsMember(sampleKinds(), CLI::ignore_case).description(""));
    generate->add_option("-o,--output", options.output, "File: .ply")->required();
    generate->add_option("--count", options.count, "Particles; default: 100000")
        ->default_val(100000)
        ->transform(between(std::uint64_t{0}, std::uint64_t{2147483647}));
    generate->add_option("--seed", options.seed, "Another sample of the kind")
        ->transform(anySeed());
    generate->add_flag("--ascii", options.ascii, "As text");
    addRunOptions(*generate, options.run);

    try {
        app.parse(argc, argv);
        options.command = render->parsed()    ? Options::Command::render
                          : info->parsed()    ? Options::Command::info
                          : convert->parsed() ? Options::Command::convert
                          : bench->parsed()   ? Options::Command::bench
                                              : Options::Command::generate;
        if (options.run.statsFile == "true") { // what CLI11 makes of no value
            options.run.stats = true;
            options.run.statsFile.clear();
        }
        CLI::App const& command = *app.get_subcommands().front();
        checkTogether(
            [&command](char const* name) {
                CLI::Option const* const option = command.get_option_no_throw(name);
                return option != nullptr && option->count() > 0;
            },
            options);
    } catch (CLI::ParseError const& answer) {
        if (answer.get_exit_code() == 0) {
            exitCode = app.exit(answer);
            finishStandardOutput();
        } else
            exitCode = refuse(app, answer.what(), argc > 1 ? argv[1] : "");
        return std::nullopt;
    } catch (UsageError const& error) {
        say("kelpa: {}\n", error.what());
        exitCode = wrongUsage;
        return std::nullopt;
    }
    return options;
}

} // namespace kelpatool
