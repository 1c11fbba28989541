// What the options on pictures say: colour, camera, image and light.
#include "tool/options/optionforms.h"
#include "tool/options/optiongroups.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <array>
#include <iterator>
#include <optional>
#include <sstream>

namespace pipeline::tool {

namespace {

/// Takes names between commas.
void takeChannels(std::string const& names, ImageOptions& image) {
    std::istringstream rest(names + ",");
    for (std::string given; std::getline(rest, given, ',');) {
        std::string const name = inSmallLetters(given);
        if (name.starts_with("column:") && name.size() > 7) {
            image.columns.push_back(given.substr(7));
            continue;
        }
        bool* const channel = name == "depth"      ? &image.depth
                              : name == "normal"   ? &image.normal
                              : name == "id"       ? &image.id
                              : name == "position" ? &image.position
                              : name == "velocity" ? &image.velocity
                                                   : nullptr;
        if (channel == nullptr)
            throw UsageError(fmt::format(
                "'{}' is none of depth, normal, id, position, velocity and column:NAME, with "
                "commas",
                given));
        *channel = true;
    }
}

} // namespace

namespace {

void takeColorMap(std::string const& name, ColorOptions& color) {
    color.asKinds = name == "kinds";
    if (color.asKinds)
        return;
    try {
        color.map = ColorMap(name);
    } catch (std::invalid_argument const& error) {
        throw UsageError(fmt::format("{}; kinds shows whole numbers by a palette", error.what()));
    }
}

} // namespace

void addColorOptions(CLI::App& app, ColorOptions& color) {
    auto* const one =
        addParsed(
            app, "--color", "COLOR", color.color, parseColorOption,
            "Colour of all, such as #4070c0, #47c or steelblue; else the file's, or by element")
            ->group("Colour");
    auto* const colorBy = app.add_option("--color-by", color.colorBy,
                                         "Column to colour by; forces shows the length of fx fy fz")
                              ->excludes(one)
                              ->group("Colour");
    addTaken(
        app, "--colormap", (colorMapNames() + "|kinds").c_str(),
        [&color](std::string const& name) { takeColorMap(inSmallLetters(name), color); },
        "Colour map, reversed with _r behind its name; default: viridis, and for types, chains, "
        "residues and molecules the palette of kinds")
        ->needs(colorBy)
        ->group("Colour");
    addTaken(
        app, "--colors", "O=COLOR,1=COLOR",
        [&color](std::string const& text) {
            color.ofKinds = parseKinds<Kelpa::Vector>(text, "O=red,1=#c33", parseColorOption);
        },
        "Colours of some elements or types, whatever the others have")
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
                   "Pictures of one turn around the particles; -o turn.####.png numbers them; with "
                   "--frames the film turns on by one for each frame's number")
        ->transform(between(1, 1000000))
        ->group("Camera");
}

void addLensOptions(CLI::App& app, CameraOptions& camera) {
    auto* const aperture =
        app.add_option("--aperture", camera.aperture,
                       "Diameter of the lens, in the file's unit of length: what is nearer or "
                       "further away than the focus is unsharp; default: 0")
            ->transform(between(0.0, 1e30))
            ->excludes(app.get_option("--ortho"))
            ->group("Camera");
    app.add_option("--focus", camera.focus,
                   "How far in front of the camera all is sharp; default: what it looks at, for "
                   "which a framed camera takes the middle of all")
        ->transform(between(1e-30, 1e30))
        ->needs(aperture)
        ->group("Camera");
}

void addFilmOptions(CLI::App& app, FilmOptions& film) {
    auto const addFile = [&app](char const* name, std::string& file, char const* help) {
        return app.add_option(name, file, help)->type_name("FILE.json");
    };
    auto* const camera =
        addFile("--camera", film.camera,
                "Take the camera from this file, which may hold keys for several frames")
            ->group("Camera");
    addFile("--save-camera", film.saveCamera, "Write the camera of the first picture")
        ->group("Camera");
    auto* const use = addFile("--use", film.use,
                              "Take from this file what --plan wrote, so that all who render parts "
                              "of a film agree")
                          ->excludes(camera)
                          ->group("Film");
    for (char const* const other : {"--view", "--eye", "--look-at", "--up", "--fov", "--ortho"})
        for (auto* const given : {camera, use})
            given->excludes(app.get_option(other));
    addFile("--plan", film.plan,
            "Write what the first frame chooses, the camera, the radius by spacing and the range "
            "of colours, and make no pictures")
        ->excludes(use)
        ->group("Film");
    app.add_flag("--resume", film.resume, "Leave out pictures that are there already")
        ->group("Film");
    app.add_option("--fps", film.framesPerSecond,
                   "Frames a second, of an .mp4 and for what an .exr tells of time; default: 24")
        ->transform(between(0.001, 100000.0))
        ->group("Film");
}

namespace {

PictureTile parseTile(std::string const& text) {
    auto const [number, count] = parseNumbers<int, 2>(text, '/', "K/N");
    if (number < 1 || number > count)
        throw UsageError(fmt::format("'{}' is none of 1/N to N/N", text));
    return {number, count};
}

/// Which pixels, and what of them.
void addPixelOptions(CLI::App& app, ImageOptions& image) {
    addParsed(
        app, "--crop", "X0,Y0,X1,Y1", image.crop,
        [](std::string const& text) { return parseNumbers<int, 4>(text, ',', "X0,Y0,X1,Y1"); },
        "Pixels to render: from X0,Y0 to before X1,Y1")
        ->group("Image");
    addParsed(
        app, "--tile", "K/N", image.tile, parseTile,
        "Only tile K of the N that share the picture, K from 1; kelpa join puts them together")
        ->group("Image");
    addTaken(
        app, "--aov", "depth,normal,id,position,velocity,column:NAME",
        [&image](std::string const& names) { takeChannels(names, image); },
        "Further channels of an .exr, of the pixel's first sample: depth (Z: distance along the "
        "ray, 1e30 where no particle is), normal, id (with id.high the 64 bits of it), "
        "position, velocity (pixels to the right and up while the shutter is open), columns")
        ->group("Image");
}

} // namespace

void addImageOptions(CLI::App& app, ImageOptions& image, bool& showsCell) {
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
    app.add_flag("--cell", showsCell, "Draw the edges of the periodic cell")->group("Image");
    addParsed(app, "--cell-color", "COLOR", image.rodColor, parseColorOption,
              "Colour of the cell's edges; default: dark, or pale before a dark background")
        ->needs("--cell")
        ->group("Image");
    addPixelOptions(app, image);
}

void addExrOptions(CLI::App& app, Options& options) {
    // A flag takes a value after = only, so that it never swallows the file that follows it.
    app.add_flag("--colorbar", options.scene.legendTitle,
                 "Draw what colours mean, a bar with ticks or the kinds, with the column's name or "
                 "this title; a layer of its own in an .exr")
        ->type_name("[=TITLE]")
        ->group("Image");
    addChoice(app, "--depth", options.image.isDepthPlanar, {{"ray", false}, {"planar", true}},
              "What --aov depth is measured along: the ray (default), or the camera's axis")
        ->group("Image");
    std::vector<std::pair<std::string, ExrCompression>> const compressions(
        std::begin(exrCompressionNames), std::end(exrCompressionNames));
    addChoice(app, "--compression", options.compression, compressions,
              "Of an .exr; zip (default) packs 16 rows at a time, zips single ones, "
              "dwaa loses a little of the colours")
        ->group("Image");
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
                   "How far occlusion reaches; default: half of the diagonal")
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
                 "The same bits every time and for any number of threads: this is always so")
        ->group("Run");
    // A flag takes a value after = only, so that it never swallows the file that follows it.
    app.add_flag("--stats", run.statsFile,
                 "Print the tree's statistics; with --stats=FILE.json write them and all times")
        ->type_name("[=FILE.json]")
        ->group("Run");
}

} // namespace pipeline::tool
