// Names, helps and forms of options, group by group.
#include "tool/options/optiongroups.h"

#include "kelpa/foundation/usableparticles.h"

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

constexpr float largest = 1e30F; // of lengths and the like: far beyond any use

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

std::vector<std::string> splitNames(std::string const& names) {
    std::vector<std::string> list;
    std::istringstream rest(names);
    for (std::string name; std::getline(rest, name, ',');)
        list.push_back(name);
    return list;
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

} // namespace

/// What to read of a file; gives the option for the column of radii.
CLI::Option* addReadOptions(CLI::App& app, ParticleOptions& particles) {
    app.add_flag("--together", particles.together,
                 "Take all files for one snapshot, such as each process of a code wrote one");
    app.add_option("--format", particles.format, "Format of the file")->type_name(formatNames());
    app.add_option(
        "--frame", particles.frame,
        "Frame of the file, or the number of a file of a sequence, such as cache.{}.ply; "
        "negative: from the end; default: the first");
    addParsed(app, "--part-type", "gas,stars", particles.kinds, splitNames,
              "Kinds of particles of an HDF5 file: gas, dm, disk, bulge, stars, bh of a snapshot, "
              "species of openPMD, the group of H5MD; default: all");
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

namespace {

float parseRadius(std::string const& text) {
    float const radius = parseNumbers<float, 1>(text, ',', "a number")[0];
    if (!(radius >= Kelpa::leastUsableRadius && radius <= largest))
        throw UsageError(fmt::format("'{}' is no radius", text));
    return radius;
}

/// A word for all elements, or radii of some kinds, or both.
void takeRadii(std::string const& text, RadiusOptions& radii) {
    std::size_t const comma = std::min(text.find(','), text.size());
    std::string const first = inSmallLetters(text.substr(0, comma));
    bool const hasWord = first == "vdw" || first == "covalent";
    if (!hasWord && first.find('=') == std::string::npos)
        throw UsageError(
            fmt::format("'{}' is none of vdw, covalent, and no list such as 1=2.5,O=1.5", text));
    if (hasWord)
        radii.covalent = first == "covalent";
    if (!hasWord || comma < text.size())
        radii.ofKinds =
            parseKinds<float>(hasWord ? text.substr(comma + 1) : text, "1=2.5,O=1.5", parseRadius);
}

} // namespace

void addParticleOptions(CLI::App& app, Options& options) {
    auto* const radiusFrom = addReadOptions(app, options.particles);
    RadiusOptions& radii = options.scene.radius;
    app.add_option("-r,--radius", radii.radius,
                   "Radius of all particles; else the file's, by element, or by spacing")
        ->transform(between(Kelpa::leastUsableRadius, largest))
        ->excludes(radiusFrom)
        ->group("Radius");
    app.add_option("--radius-scale", radii.scale, "Factor on all radii")
        ->transform(between(1.0F / largest, largest))
        ->group("Radius");
    addTaken(
        app, "--radii", "vdw|covalent|O=R,1=R",
        [&radii](std::string const& text) { takeRadii(text, radii); },
        "Element radii; default: vdw, van der Waals and of metals that of atoms in the metal; or "
        "radii of some elements or types, covalent,O=1.5")
        ->group("Radius");
    app.add_flag("--points", options.scene.points, "Points with a radius instead of solid spheres")
        ->group("Radius");
    addSelectionOptions(app, options.scene.selection);
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

namespace {

/// What the pipeline refuses to parse is told with the option's name.
template <class Parse> auto parsedBy(Parse parse) {
    return [parse](std::string const& text) {
        try {
            return parse(text);
        } catch (std::invalid_argument const& error) {
            throw UsageError(error.what());
        }
    };
}

} // namespace

void addSelectionOptions(CLI::App& app, SelectionOptions& selection) {
    addParsed(app, "--select", "EXPRESSION", selection.select,
              parsedBy([](std::string const& text) { return Expression(text); }),
              "Show only the particles for which this holds, such as 'type == 2 and z < 10'")
        ->group("Selection");
    auto const slice = parsedBy(parseSlice);
    app.add_option_function<std::vector<std::string>>(
           "--slice",
           [&selection, slice](std::vector<std::string> const& texts) {
               for (std::string const& text : texts)
                   selection.slices.push_back(toldWithName("--slice", slice, text));
           },
           "Leave out what lies beyond a plane, to see inside: its direction, and where, as a "
           "coordinate or a share such as 25%; default: the middle; several are taken")
        ->type_name("[-]x|y|z|X,Y,Z[:AT]")
        ->allow_extra_args(false)
        ->group("Selection");
    app.add_option("--every", selection.every,
                   "Show one particle in so many, by id the same in every frame")
        ->transform(between(std::uint64_t{1}, std::uint64_t{1} << 40U))
        ->group("Selection");
    addParsed(
        app, "--replicate", "A,B,C", selection.replicate,
        [](std::string const& text) {
            auto const counts = parseNumbers<int, 3>(text, ',', "A,B,C");
            for (int const count : counts)
                if (count < 1 || count > 1000)
                    throw UsageError(fmt::format("'{}' is not from 1,1,1 to 1000,1000,1000", text));
            return counts;
        },
        "Copies of the periodic cell along its edges")
        ->group("Selection");
    app.add_flag("--wrap", selection.wrap, "Move particles into the periodic cell")
        ->group("Selection");
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
    app.add_option("--block", tree.block,
                   "Most particles of one tree; more are parted into blocks; default: 1048576")
        ->transform(between(std::int64_t{1}, std::int64_t{2147483647}))
        ->group("Tree");
    app.add_option("--min-node-size", tree.minNodeSize, "Diagonal below which nodes are leaves")
        ->transform(between(0.0F, largest))
        ->group("Tree");
}

namespace {

/// "8G" as bytes.
std::uint64_t parseSize(std::string const& text) {
    double number = 0.0;
    char const* const end = text.data() + text.size();
    char const* const unit = readNumber(text.data(), end, number);
    std::string const letters = unit != nullptr ? std::string(unit, end) : "?";
    constexpr std::string_view prefixes = "kmgt";
    std::size_t const power = letters.empty() ? 0 : prefixes.find(inSmallLetters(letters)[0]) + 1;
    bool const isUnit =
        letters.empty() ||
        (power > 0 && (letters.size() == 1 || inSmallLetters(letters.substr(1)) == "b" ||
                       inSmallLetters(letters.substr(1)) == "ib"));
    double const bytes = std::ldexp(number, 10 * static_cast<int>(power));
    if (!isUnit || !(bytes >= 1.0 && bytes < 0x1p60))
        throw UsageError(fmt::format("'{}' is no size such as 8G or 500M", text));
    return static_cast<std::uint64_t>(bytes);
}

} // namespace

void addKeepOptions(CLI::App& app, KeepOptions& keep) {
    addParsed(app, "--memory", "SIZE", keep.memory, parseSize,
              "Most memory for trees, such as 8G; blocks beyond it lie in files; default: no bound")
        ->group("Tree");
    addTaken(
        app, "--cache", "DIR",
        [&keep](std::string const& folder) {
            if (folder.empty())
                throw UsageError("expected the name of a folder");
            keep.cache = folder;
        },
        "Folder of files with the trees, kept so that the next run need not build them")
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

void addServeOptions(CLI::App& app, ViewOptions& view) {
    app.add_option("--port", view.port, "Where to listen; default: a port that is free")
        ->transform(between(0, 65535))
        ->group("Server");
    app.add_option("--host", view.host,
                   "Address to listen on; default: 127.0.0.1, which other machines do not reach")
        ->group("Server");
    app.add_flag("--open", view.opensBrowser, "Open the link in the browser")->group("Server");
}

} // namespace pipeline::tool
