#include "tool/options/optiongroups.h"

#include "pipeline/files/elements.h"
#include "pipeline/files/formattable.h"

#include "tool/options/optionforms.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <iterator>
#include <optional>
#include <sstream>

namespace pipeline::tool {

namespace {

constexpr float largest = 1e30F;         // of lengths and the like: far beyond any use
constexpr float smallestRadius = 1e-15F; // below it trees leave a particle out

} // namespace

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

namespace {

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

} // namespace

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

namespace {

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

} // namespace

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

namespace {

Motion parseMotion(std::string const& text) {
    if (text == "none")
        return Still{};
    if (text == "velocity")
        return AlongVelocities{};
    if (text == "next")
        return ToNextFrame{};
    return ToFile{text};
}

} // namespace

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

namespace {

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

} // namespace

void addColorOptions(CLI::App& app, ColorOptions& color) {
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
}

namespace {

/// Where the camera is, and what it looks at.
void addPlaceOptions(CLI::App& app, CameraOptions& camera) {
    std::vector<std::pair<std::string, std::optional<View>>> const views(std::begin(viewNames),
                                                                         std::end(viewNames));
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
}

} // namespace

void addCameraOptions(CLI::App& app, CameraOptions& camera) {
    addPlaceOptions(app, camera);
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
}

namespace {

/// Which pixels, and what of them.
void addPixelOptions(CLI::App& app, ImageOptions& image) {
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
}

} // namespace

void addImageOptions(CLI::App& app, ImageOptions& image) {
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
    addPixelOptions(app, image);
}

void addLightOptions(CLI::App& app, LightOptions& light) {
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
    // Bound to the optional itself, the parser would count in it: from a "no" that nobody wrote.
    app.add_flag_function(
           "--shadows,!--no-shadows", [&light](std::int64_t said) { light.shadows = said > 0; },
           "Shadows of the key light; default: with --shade ao")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast)
        ->group("Light");
}

void addPictureRunOptions(CLI::App& app, Options& options) {
    app.add_option("--seed", options.image.seed, "Of the sample patterns")
        ->transform(anySeed())
        ->group("Run");
    RunOptions& run = options.run;
    app.add_flag("--reproducible", run.reproducible,
                 "Build on one thread, so that every bit is the same every time")
        ->group("Run");
    // A flag takes a value after = only, so that it never swallows the file that follows it.
    app.add_flag("--stats", run.statsFile,
                 "Print the tree's statistics; with --stats=FILE.json write them and all times")
        ->type_name("[=FILE.json]")
        ->group("Run");
}

} // namespace pipeline::tool
