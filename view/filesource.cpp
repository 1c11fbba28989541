// Particles of files, frame by frame.
#include "view/filesource.h"

#include "pipeline/files/elements.h"
#include "pipeline/files/nameelements.h"
#include "pipeline/files/numberplace.h"
#include "pipeline/scene/secondsnapshot.h"

#include "view/sceneparts.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <utility>

namespace pipeline::view {

namespace {

PhaseProgress phase(char const* what, Report const& report) {
    return [what, &report](double fraction, std::uint64_t) { report(what, fraction); };
}

/// A value as the file tells it, which may be a name.
std::string valueText(TypedColumn const& column, std::size_t row) {
    std::string text;
    withType(column.type, [&](auto value) {
        std::memcpy(&value, column.bytes.data() + row * sizeof value, sizeof value);
        text = fmt::format("{}", value);
        auto const number = static_cast<double>(value);
        if (!column.names || !(number >= 0.0))
            return;
        std::vector<std::string> const& names = column.names->all();
        if (number < static_cast<double>(names.size()))
            text = names[static_cast<std::size_t>(number)];
    });
    return text;
}

/// One file that can be read from its beginning more than once, or a sequence of such.
bool canBeReadAgain(std::string const& path) {
    std::error_code ignored;
    return !std::filesystem::exists(path, ignored) ||
           std::filesystem::is_regular_file(path, ignored);
}

} // namespace

FileSource::FileSource(WantedScene what)
    : wanted(std::move(what)), source(wanted.path, wanted.more) {
}

std::string FileSource::textOf(Remark const& remark) const {
    return remark.text + wanted.wayOn(remark.hint);
}

ParticleSet FileSource::read(SceneChoice const& choice, Report const& report, bool isWhole) {
    ReadOptions options = wanted.read;
    options.forMotion = hasSecondSnapshot(wanted.scene.motion.motion);
    options.progress = phase("reading", report);
    options.allAttributes = isWhole;
    options.summarise = !isWhole && columns.empty();
    options.countFrames = false;
    SceneOptions asked = optionsFor(choice);
    asked.selection = wanted.scene.selection;
    options.attributes = columnsOf(asked);
    ParticleSet particles = source.read(choice.frame, options);
    nameElements(particles, wanted.elements);
    return particles;
}

/// Leaves what the command's words leave.
void FileSource::select(ParticleSet& first, ParticleSet* second, Note const& note,
                        Report const& report) {
    selectParticles(wanted.scene.selection, wanted.scene.radius, first, second,
                    kept.sliceCoordinates, note, phase("choosing particles", report));
}

FileSource::Frame FileSource::readFrame(SceneChoice const& choice, Report const& report) {
    Frame frame;
    frame.choice = choice;
    frame.first = read(choice, report, false);
    if (columns.empty())
        for (AttributeSummary const& column : frame.first.columns)
            columns.push_back(column.name);
    for (Remark const& remark : frame.first.notes)
        frame.notes.push_back(textOf(remark));
    if (hasSecondSnapshot(wanted.scene.motion.motion))
        frame.second = readSecond(frame.first, report, frame.notes);
    auto const note = [&](Remark const& remark) { frame.notes.push_back(textOf(remark)); };
    select(frame.first, frame.second ? &*frame.second : nullptr, note, report);
    return frame;
}

/// The same, of memory as far as it was kept there.
FileSource::Frame FileSource::frameOf(SceneChoice const& choice, Report const& report) {
    bool const isKept =
        uncut && uncut->choice.frame == choice.frame && uncut->choice.colorBy == choice.colorBy;
    if (!isKept) {
        uncut.reset();
        uncut = readFrame(choice, report);
    }
    if (choice.cut)
        return *uncut;
    return *std::exchange(uncut, std::nullopt);
}

std::optional<ParticleSet> FileSource::readSecond(ParticleSet const& first, Report const& report,
                                                  std::vector<std::string>& notes) {
    ReadOptions options = wanted.read;
    options.forMotion = true;
    options.progress = phase("reading", report);
    SecondSnapshot second = pipeline::readSecond(wanted.scene.motion.motion, source, first,
                                                 wanted.frame, wanted.elements, options);
    if (!second.gap.empty())
        notes.push_back(second.gap);
    for (Remark const& remark : second.notes)
        notes.push_back(textOf(remark));
    return std::move(second.particles);
}

SceneOptions FileSource::optionsFor(SceneChoice const& choice) const {
    SceneOptions options = wanted.scene;
    options.radius.scale = choice.radiusScale;
    choose(choice, options.color);
    options.selection = {}; // the command's is asked before, see `select`
    if (choice.cut)
        options.selection.slices = planesOf(*choice.cut);
    return options;
}

std::shared_ptr<Shown> FileSource::load(SceneChoice const& choice, Report const& report) {
    auto shown = std::make_shared<Shown>();
    shown->choice = choice;
    Frame frame = frameOf(choice, report);
    ParticleSet& particles = frame.first;
    SceneOptions const options = optionsFor(choice);
    ShownFacts& facts = shown->facts;
    facts.file = std::filesystem::path(wanted.path).filename().string();
    facts.format = particles.format;
    facts.frame = particles.frame;
    facts.columns = columns;
    facts.notes = std::move(frame.notes);
    facts.ofParticles = particles.positions.size();
    shown->extent = extentOf(particles.positions);
    auto const note = [&](Remark const& remark) { facts.notes.push_back(textOf(remark)); };
    auto const look = [&](ParticleSet const& selected) {
        facts.particles = selected.positions.size();
        if (uncut) // so that the next cut need not find it
            uncut->first.spacing = selected.spacing;
        if (Attribute const* const column = coloredColumn(options.color, selected))
            shown->colored = column->values;
    };
    if (firstFrame && facts.frame != *firstFrame)
        shown->kept = kept;
    Kept keptOfScene; // the range of colours comes with the choice, as the page's cut does
    keptOfScene.radius = shown->kept.radius;
    shown->scene =
        makeSelectedScene(options, std::move(particles), frame.second ? &*frame.second : nullptr,
                          keptOfScene, note, phase("choosing radii", report), look);
    shown->stops = stopsOf(options.color);
    if (!firstFrame) {
        kept.radius = shown->scene.chosen.radius;
        firstFrame = facts.frame;
    }
    build(shown->scene, wanted.tree, wanted.threads, report);
    for (std::string& text : shown->scene.geometry->takeNotes())
        facts.notes.push_back(std::move(text));
    measure(*shown);
    return shown;
}

/// The frame that is shown once more, as it is shown.
ParticleSet FileSource::readAgain(Shown const& shown, SceneChoice choice, Report const& report,
                                  bool isWhole) {
    choice.frame = shown.facts.frame;
    SceneOptions const options = optionsFor(choice);
    ParticleSet particles = read(choice, report, isWhole);
    auto const ignore = [](Remark const&) {};
    select(particles, nullptr, ignore, report);
    std::vector<double> places;
    selectParticles(options.selection, options.radius, particles, nullptr, places, ignore,
                    phase("choosing particles", report));
    return particles;
}

Recoloring FileSource::recolored(Shown const& shown, SceneChoice const& choice,
                                 Report const& report) {
    ColorOptions const options = optionsFor(choice).color;
    ParticleSet particles;
    bool const isAtHand = !choice.colorBy.empty() && choice.colorBy == shown.choice.colorBy &&
                          !shown.colored.empty() && options.ofKinds.empty();
    if (isAtHand)
        particles.attributes.push_back({choice.colorBy, shown.colored});
    else
        particles = readAgain(shown, choice, report, false);
    return recoloringOf(options, std::move(particles), shown.scene);
}

Row FileSource::rowOf(Shown const& shown, std::size_t place, Report const& report) {
    auto const particle = static_cast<std::size_t>(
        shown.scene.rows ? (*shown.scene.rows)[static_cast<std::int64_t>(place)]
                         : static_cast<std::int64_t>(place));
    if (particle >= shown.facts.particles)
        return {};
    if (whole.name.empty() || whole.frame != shown.facts.frame || wholeCut != shown.choice.cut) {
        SceneChoice choice = shown.choice;
        choice.colorBy.clear(); // or it would not be among the columns that keep their digits
        whole = readAgain(shown, choice, report, true);
        wholeCut = shown.choice.cut;
        whole.positions = {};
    }
    Row row;
    for (TypedColumn const& column : whole.typed)
        row.emplace_back(column.name, valueText(column, particle));
    auto const has = [&row](char const* name) {
        return std::any_of(row.begin(), row.end(),
                           [name](auto const& cell) { return cell.first == name; });
    };
    for (Attribute const& column : whole.attributes) // that the selection asks for
        if (!has(column.name.c_str()))
            row.emplace_back(column.name, fmt::format("{}", column.values[particle]));
    if (particle < whole.elements.size() && whole.elements[particle] != 0 && !has("element"))
        row.emplace_back("element", symbolOf(whole.elements[particle]));
    if (particle < whole.types.size() && !has("type"))
        row.emplace_back("type", fmt::format("{}", whole.types[particle]));
    if (particle < whole.velocities.size() && !has("vx")) {
        Kelpa::Vector const& velocity = whole.velocities[particle];
        row.emplace_back("vx", fmt::format("{}", velocity.x));
        row.emplace_back("vy", fmt::format("{}", velocity.y));
        row.emplace_back("vz", fmt::format("{}", velocity.z));
    }
    return row;
}

std::vector<int> FileSource::frames(Report const& report) {
    std::vector<int> numbers;
    if (!canBeReadAgain(wanted.path) ||
        !std::all_of(wanted.more.begin(), wanted.more.end(), canBeReadAgain))
        return numbers;
    // The way through the file that pictures go is not lost for it.
    FrameSource counting(wanted.path, wanted.more);
    ReadOptions options = wanted.read;
    options.progress = phase("counting frames", report);
    std::vector<FrameRange> ranges = wanted.frames;
    if (ranges.empty())
        ranges.push_back({0, -1, 1});
    FrameNumbers const found = counting.framesIn(ranges, options);
    constexpr std::size_t most = 1000000; // more than a slider can tell apart
    for (auto frame = found.after(std::nullopt); frame && numbers.size() < most;
         frame = found.after(frame))
        numbers.push_back(*frame);
    return numbers;
}

} // namespace pipeline::view
