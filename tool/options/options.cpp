// Which command has which groups; errors, help and version.
#include "tool/options/options.h"

#include "pipeline/files/formattable.h"
#include "pipeline/samples/samples.h"

#include "tool/options/optionchecks.h"
#include "tool/options/optionforms.h"
#include "tool/options/optiongroups.h"
#include "tool/process/standardstreams.h"
#include "tool/version.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <iterator>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace pipeline::tool {

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
  kelpa join picture.exr tile.*.exr
  kelpa view run.dump --open

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
    // Of many options the usual ones come first, and the others when they are asked for.
    std::string make_help(CLI::App const* app, std::string name,
                          CLI::AppFormatMode mode) const override {
        bool const isLong = app->get_name() == "render" || app->get_name() == "view";
        if (mode != CLI::AppFormatMode::Normal || !isLong)
            return CLI::Formatter::make_help(app, name, mode);
        std::vector<CLI::Option const*> usual;
        for (char const* const option :
             {"--output", "--frames", "--motion", "--select", "--radius", "--color", "--color-by",
              "--view", "--turntable", "--size", "--open", "--help-all"})
            if (CLI::Option const* const known = app->get_option_no_throw(option))
                usual.push_back(known);
        return make_description(app) + make_usage(app, name) + make_positionals(app) +
               make_group("The usual options", false, usual);
    }
    std::string make_option_usage(CLI::Option const* option) const override {
        bool const isMany = option->get_expected_max() > 1;
        return option->get_name(true) + (isMany ? "..." : "");
    }
};

/// Says why a command line cannot be read and where help is.
int refuse(CLI::App const& app, std::string const& reason, std::string const& firstWord) {
    bool const isUnknown = app.get_subcommands().empty() && !firstWord.empty();
    if (isUnknown && firstWord[0] != '-')
        say("kelpa: no command '{}'; there are render, view, info, convert, generate, bench and "
            "join\n",
            firstWord);
    else if (app.get_subcommands().empty())
        say("kelpa: {}; see kelpa --help\n", reason);
    else
        say("kelpa: {}; see kelpa {} --help\n", reason, app.get_subcommands().front()->get_name());
    return wrongUsage;
}

/// Which particles, for the commands that make pictures of them.
void addPictured(CLI::App& command, Options& options) {
    command
        .add_option("FILE", options.particles.files,
                    "Particle file; a second one is a later snapshot")
        ->required();
    addParticleOptions(command, options);
}

/// Which pictures, and how they are made; `frames` says what several frames are for.
void addPictures(CLI::App& command, Options& options, std::string const& frames) {
    addParsed(command, "--frames", "A:B[:S][,...]", options.particles.frames, parseFrameRanges,
              frames)
        ->excludes(command.get_option("--frame"));
    addMotionOptions(command, options);
    addColorOptions(command, options.scene.color);
    addCameraOptions(command, options.camera);
    addImageOptions(command, options.image, options.scene.showsCell);
    addLightOptions(command, options.light);
    addPictureRunOptions(command, options);
    addTreeOptions(command, options.tree);
    addKeepOptions(command, options.tree.keep);
    addRunOptions(command, options.run);
}

CLI::App* addRender(CLI::App& app, Options& options) {
    auto* const render = app.add_subcommand("render", "Make a picture of a particle file");
    addPictured(*render, options);
    render->add_option("-o,--output", options.output,
                       "Picture: .png, .exr or .ppm, or film: .mp4 (with ffmpeg); required but "
                       "with --plan");
    addPictures(*render, options,
                "Frames to render, A to B, every S-th, or several such and single ones, 0:8,12; "
                "the output numbers them: img.####.png, or is a film");
    addLensOptions(*render, options.camera);
    addFilmOptions(*render, options.film);
    addExrOptions(*render, options);
    return render;
}

CLI::App* addView(CLI::App& app, Options& options) {
    auto* const view =
        app.add_subcommand("view", "Show a particle file in the browser, to turn and to ask");
    addPictured(*view, options);
    addPictures(*view, options,
                "Frames to choose from, A to B, every S-th, or several such; default: all");
    for (char const* const other : {"--turntable", "--crop", "--tile", "--stats"})
        view->remove_option(view->get_option(other));
    addServeOptions(*view, options.view);
    return view;
}

/// Whether there is an option among these.
bool holds(std::span<std::string_view const> names, std::string const& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

constexpr std::string_view ofTheRun[] = {
    "--port", "--host",  "--open",    "--help",     "--quiet",  "--verbose", "--output",
    "--tile", "--stats", "--threads", "--progress", "--resume", "--memory",  "--cache"};

/// The words of a command that makes the same pictures: without `others`, and without what says
/// where they go and how they are made.
std::vector<std::string> wordsOf(CLI::App const& command,
                                 std::span<std::string_view const> others) {
    std::vector<std::string> words;
    for (CLI::Option const* const option : command.get_options()) {
        std::string const name = option->get_name();
        if (option->count() == 0 || holds(others, name) || holds(ofTheRun, name))
            continue;
        if (option->get_items_expected_max() == 0) { // a flag, which may have been given a value
            std::string const value = option->results().back();
            words.push_back(value == "true" ? name : fmt::format("{}={}", name, value));
            continue;
        }
        for (std::string const& word : option->results()) {
            // Behind a hyphen of its own a value would be another option's name.
            if (name[0] == '-' && word.starts_with('-'))
                words.push_back(fmt::format("{}={}", name, word));
            else if (name[0] == '-')
                words.insert(words.end(), {name, word});
            else
                words.push_back(word);
        }
    }
    return words;
}

/// A word of a command line as a shell takes it.
std::string shellWord(std::string const& word) {
    constexpr char const* plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789"
                                  "-_./=,:%+@";
    if (!word.empty() && word.find_first_not_of(plain) == std::string::npos)
        return word;
    std::string quoted = "'";
    for (char const c : word)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

std::string commandOf(CLI::App const& command) {
    std::string line = "kelpa " + command.get_name();
    for (std::string const& word : wordsOf(command, {}))
        line += " " + shellWord(word);
    return line;
}

/// Keeps what the page has to know of the command line: the words of a command that makes the same
/// picture, without those that the page itself chooses.
void keepWords(CLI::App const& view, ViewOptions& kept) {
    constexpr std::string_view chosenByPage[] = {
        "--frame",        "--frames", "--color",      "--color-by", "--colormap",
        "--range",        "--view",   "--eye",        "--look-at",  "--up",
        "--fov",          "--ortho",  "--zoom",       "--size",     "--samples",
        "--background",   "--shade",  "--ao-samples", "--shadows",  "--ao-distance",
        "--radius-scale", "--slice",  "--aov"};
    auto const given = [&view](char const* name) {
        CLI::Option const* const option = view.get_option(name);
        return option->count() > 0 ? option->results().back() : std::string();
    };
    kept.background = given("--background");
    kept.color = given("--color");
    kept.colorMap = inSmallLetters(given("--colormap"));
    kept.slices = view.get_option("--slice")->results();
    kept.hasSize = !given("--size").empty();
    kept.words = wordsOf(view, chosenByPage);
}

CLI::App* addInfo(CLI::App& app, Options& options) {
    auto* const info = app.add_subcommand("info", "Tell what a particle file holds");
    info->add_option("FILE", options.particles.files, "Particle files")->required();
    addParticleOptions(*info, options);
    addMotionOptions(*info, options);
    info->add_flag("--json", options.json, "As JSON");
    info->add_flag("--stats", options.run.stats, "The tree's figures as well");
    addTreeOptions(*info, options.tree);
    addKeepOptions(*info, options.tree.keep);
    addRunOptions(*info, options.run);
    return info;
}

CLI::App* addConvert(CLI::App& app, Options& options) {
    auto* const convert = app.add_subcommand("convert", "Write a frame of a particle file as PLY");
    convert->add_option("FILE", options.particles.files, "Particle file")->required();
    addReadOptions(*convert, options.particles);
    convert->add_option("-o,--output", options.output, "File: .ply")->required();
    convert->add_flag("--ascii", options.ascii, "As text");
    addRunOptions(*convert, options.run);
    convert->callback([&options] { options.particles.keepsAllColumns = true; });
    return convert;
}

CLI::App* addBench(CLI::App& app, Options& options) {
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
    return bench;
}

CLI::App* addGenerate(CLI::App& app, Options& options) {
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
    return generate;
}

CLI::App* addJoin(CLI::App& app, Options& options) {
    auto* const join = app.add_subcommand("join", "Put the tiles of a picture together");
    join->add_option("OUT", options.output, "Picture: .exr or .png")->required();
    join->add_option("TILE", options.tiles, "What render --tile wrote, in any order")->required();
    addRunOptions(*join, options.run);
    return join;
}

constexpr struct {
    char const* name;
    Options::Command number;
    CLI::App* (*add)(CLI::App&, Options&);
} commands[] = {{"render", Options::Command::render, addRender},
                {"view", Options::Command::view, addView},
                {"info", Options::Command::info, addInfo},
                {"convert", Options::Command::convert, addConvert},
                {"bench", Options::Command::bench, addBench},
                {"join", Options::Command::join, addJoin},
                {"generate", Options::Command::generate, addGenerate}};

Options::Command numberOf(CLI::App const& command) {
    return std::ranges::find(commands, command.get_name(), [](auto const& c) { return c.name; })
        ->number;
}

/// Adds the command that the line's first word names, or all, to choose from. The options of all
/// take longer than the start of the program.
void addCommands(CLI::App& app, Options& options, std::string_view firstWord) {
    bool const isOne = std::ranges::any_of(
        commands, [firstWord](auto const& command) { return command.name == firstWord; });
    if (firstWord == "--version")
        return;
    for (auto const& command : commands)
        if (!isOne || command.name == firstWord)
            command.add(app, options);
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
    app.set_help_all_flag("--help-all", "Print help with all options and exit");
    app.formatter(std::make_shared<ExamplesFirst>());

    addCommands(app, options, argc > 1 ? argv[1] : "");

    try {
        app.parse(argc, argv);
        CLI::App const& command = *app.get_subcommands().front();
        options.command = numberOf(command);
        if (options.run.statsFile == "true") { // what CLI11 makes of no value
            options.run.stats = true;
            options.run.statsFile.clear();
        }
        options.scene.hasLegend = !options.scene.legendTitle.empty();
        if (options.scene.legendTitle == "true")
            options.scene.legendTitle.clear();
        if (options.command == Options::Command::view)
            keepWords(command, options.view);
        if (options.command == Options::Command::render)
            options.commandLine = commandOf(command);
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

} // namespace pipeline::tool
