// H5MD.
#include "pipeline/files/printable.h"
#include "pipeline/readers/hdf5/dialects.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

// H5MD: each group of "particles" holds elements, of which "position" has frames along the first
// axis of its "value", with the "step" and perhaps the "time" of each beside it. An element that
// does not change is an array of its own, without such an axis.

namespace pipeline {

namespace {

/// An array of particles, perhaps one a frame.
struct Element {
    std::string name;
    H5Array value;
    bool hasFrames = false;
    std::vector<double> steps; ///< of the frames, or one that they follow each other by; or none
    double firstStep = 0.0;    ///< where they follow by one
    std::vector<double> times; ///< as the steps
    double firstTime = 0.0;

    std::uint64_t frames() const { return hasFrames ? value.shape()[0] : 1; }
    std::uint64_t particles() const { return value.shape()[hasFrames ? 1 : 0]; }
    /// The axes behind that of the particles.
    std::size_t further() const { return value.rank() - (hasFrames ? 2 : 1); }
};

/// A frame's number in a list of them, or in one that goes on evenly.
std::optional<double> numberIn(std::vector<double> const& list, double first, std::uint64_t frame) {
    if (list.size() == 1 && frame > 0)
        return first + (static_cast<double>(frame) * list[0]);
    if (list.size() == 1)
        return first;
    return frame < list.size() ? std::optional(list[static_cast<std::size_t>(frame)])
                               : std::nullopt;
}

/// Takes the steps or the times of an element's frames: an array, or one number that they follow
/// each other by.
void takeList(hid_t group, char const* name, std::uint64_t fileBytes, std::vector<double>& list,
              double& first) {
    std::optional<H5Array> const array = H5Array::open(group, name, fileBytes);
    if (!array || array->rank() > 1)
        return;
    list = array->numbers();
    std::vector<double> const offset = numbersOf(array->id(), "offset");
    if (array->rank() == 0)
        first = offset.empty() ? 0.0 : offset[0];
    else if (list.size() == 1)
        first = list[0];
}

/// An element by its name; nothing where it is none of numbers a particle.
std::optional<Element> findElement(hid_t particles, std::string const& name,
                                   std::uint64_t fileBytes) {
    H5Handle const group = openGroup(particles, name);
    std::optional<H5Array> value = group.isOpen() ? H5Array::open(group, "value", fileBytes)
                                                  : H5Array::open(particles, name, fileBytes);
    bool const hasFrames = group.isOpen();
    if (!value || value->rank() < (hasFrames ? 2U : 1U))
        return std::nullopt;
    Element element{name, *value, hasFrames, {}, 0.0, {}, 0.0};
    if (hasFrames) {
        takeList(group, "step", fileBytes, element.steps, element.firstStep);
        takeList(group, "time", fileBytes, element.times, element.firstTime);
    }
    return element;
}

/// The frame of another element that was sampled with a frame of the positions; nothing if none.
std::optional<std::uint64_t> frameLike(Element const& places, std::uint64_t frame,
                                       Element const& other) {
    if (!other.hasFrames)
        return 0;
    std::optional<double> const step = numberIn(places.steps, places.firstStep, frame);
    if (!step || other.steps.empty())
        return frame < other.frames() ? std::optional(frame) : std::nullopt;
    std::uint64_t const likely = std::min(frame, other.frames());
    for (std::uint64_t turn = 0; turn < other.frames(); ++turn) {
        std::uint64_t const each = (likely + turn) % other.frames();
        if (numberIn(other.steps, other.firstStep, each) == step)
            return each;
    }
    return std::nullopt;
}

/// A source of the columns of an element in one of its frames; of vectors of less than three
/// numbers, such as those of flat systems, the rest is 0.
ColumnSource elementSource(Element const& element, std::uint64_t frame, bool isPlace) {
    std::uint64_t const parts = element.further() > 0 ? element.value.shape().back() : 1;
    bool const isFlat = isPlace && parts < 3;
    auto const readFrame = [element, frame](std::uint64_t first, std::uint64_t count, ScalarType as,
                                            char* to) {
        std::vector<H5Range> ranges;
        if (element.hasFrames)
            ranges.push_back({frame, 1});
        ranges.push_back({first, count});
        if (element.further() > 0)
            ranges.push_back({0, element.value.shape().back()});
        element.value.read(ranges, as, to);
    };
    auto const readFlat = [readFrame, parts](std::uint64_t first, std::uint64_t count,
                                             ScalarType as, char* to) {
        std::size_t const bytes = scalarBytes(as);
        std::vector<char> flat(static_cast<std::size_t>(count * parts) * bytes);
        readFrame(first, count, as, flat.data());
        std::fill(to, to + count * 3 * bytes, '\0');
        for (std::uint64_t row = 0; row < count; ++row)
            std::copy_n(flat.data() + row * parts * bytes, parts * bytes, to + row * 3 * bytes);
    };
    ColumnSource source{element.name,
                        endingsOf(isFlat ? 3 : parts),
                        element.value.type(),
                        scalarName(element.value.type()),
                        readFrame,
                        element.value.names()};
    if (isFlat)
        source.read = readFlat;
    return source;
}

/// The box of a frame: the lengths of its edges or the edges themselves, the same for all frames
/// or one a frame.
void sendBox(hid_t particles, Element const& places, std::uint64_t frame, std::uint64_t fileBytes,
             ReaderSender const& sender) {
    H5Handle const box = openGroup(particles, "box");
    if (!box.isOpen())
        return;
    std::array<bool, 3> isPeriodic{};
    std::string const boundary = textOf(box, "boundary") + " ";
    for (std::size_t axis = 0, begin = 0; axis < 3 && begin < boundary.size(); ++axis) {
        std::size_t const end = boundary.find(' ', begin);
        isPeriodic[axis] = boundary.substr(begin, end - begin) == "periodic";
        begin = end + 1;
    }
    std::vector<double> numbers = numbersOf(box, "edges");
    if (std::optional<Element> const edges = findElement(box, "edges", fileBytes)) {
        std::optional<std::uint64_t> const at = frameLike(places, frame, *edges);
        std::vector<H5Range> ranges;
        std::uint64_t count = at ? 1 : 0;
        for (std::uint64_t const extent : edges->value.shape()) {
            ranges.push_back({0, extent});
            count *= extent;
        }
        if (edges->hasFrames && at) {
            ranges[0] = {*at, 1};
            count /= std::max<std::uint64_t>(edges->frames(), 1);
        }
        if (count > 9)
            return;
        numbers.resize(static_cast<std::size_t>(count));
        if (count > 0)
            edges->value.read(ranges, ScalarType::float64, numbers.data());
    }
    std::array<std::array<double, 3>, 3> edges{};
    std::size_t const dimension = numbers.size() < 4 ? numbers.size() : numbers.size() == 4 ? 2 : 3;
    for (std::size_t i = 0; i < numbers.size(); ++i)
        (numbers.size() < 4 ? edges[i][i] : edges[i / dimension][i % dimension]) = numbers[i];
    if (dimension > 0)
        sender.fact("cell", cellText({}, edges, isPeriodic));
}

/// The group of particles that is wanted: by name, else the one with the most particles.
std::string chooseGroup(hid_t all, ReaderInput const& input, ReaderSender const& sender) {
    std::string chosen;
    std::string names;
    std::uint64_t most = 0;
    int count = 0;
    for (std::string const& name : membersOf(all)) {
        H5Handle const group = openGroup(all, name);
        std::optional<Element> const places =
            group.isOpen() ? findElement(group, "position", input.bytes) : std::nullopt;
        if (!places)
            continue;
        ++count;
        names += (names.empty() ? "" : ", ") + quoted(name);
        bool const isNamed = !input.kinds.empty() && name == input.kinds[0];
        if (isNamed || (input.kinds.empty() && (chosen.empty() || places->particles() > most))) {
            chosen = name;
            most = places->particles();
        }
    }
    if (count == 0)
        throw ReaderProblem("none of its groups of particles has positions");
    if (chosen.empty() || input.kinds.size() > 1)
        throw ReaderProblem(fmt::format("no group of particles {}; it has {}, of which one is read",
                                        quoted(fmt::format("{}", fmt::join(input.kinds, ","))),
                                        names));
    if (count > 1 && input.kinds.empty())
        sender.note(fmt::format("of its groups of particles, {}, {} is read: it is the largest",
                                names, quoted(chosen)));
    return chosen;
}

void sendFrameFacts(Element const& places, std::uint64_t frame, ReaderSender const& sender) {
    if (auto const step = numberIn(places.steps, places.firstStep, frame))
        sender.fact("step", fmt::format("{:.0f}", *step));
    if (auto const time = numberIn(places.times, places.firstTime, frame))
        sender.fact("time", fmt::format("{}", *time));
    std::string const unit = textOf(places.value.id(), "unit");
    if (unit == "nm")
        sender.fact("angstrom", "0.1");
    else if (unit == "pm")
        sender.fact("angstrom", "100");
}

bool isH5md(hid_t file) {
    return isGroup(file, "h5md") && isGroup(file, "particles");
}

void sendFrame(hid_t file, ReaderInput const& input, ReaderSender const& sender) {
    H5Handle const all = openGroup(file, "particles");
    std::string const name = chooseGroup(all, input, sender);
    H5Handle const particles = openGroup(all, name);
    Element const places = *findElement(particles, "position", input.bytes);
    if (places.further() > 1 || (places.further() == 1 && places.value.shape().back() > 3))
        throw ReaderProblem("its positions are no vectors of up to three numbers");
    auto const frame =
        static_cast<std::uint64_t>(input.frameOf(static_cast<std::size_t>(places.frames())));
    sender.fact("format", "HDF5 (H5MD)");
    sender.fact("frames", fmt::format("{}", places.frames()));
    if (input.findOnly)
        return;
    sendFrameFacts(places, frame, sender);
    sendBox(particles, places, frame, input.bytes, sender);

    ParticleGroup group;
    group.count = places.particles();
    for (std::string const& member : membersOf(particles)) {
        std::optional<Element> const element = findElement(particles, member, input.bytes);
        if (!element || member == "box")
            continue;
        std::optional<std::uint64_t> const at = frameLike(places, frame, *element);
        if (!at || element->particles() != group.count || element->further() > 1) {
            sender.note(fmt::format("{} is not read: it has no row for each of the {} particles at "
                                    "this step",
                                    quoted(member), group.count));
            continue;
        }
        bool const isPlace = member == "position" || member == "velocity" || member == "image";
        group.columns.push_back(elementSource(*element, *at, isPlace));
    }
    sendGroups({group}, input, sender);
}

} // namespace

H5Dialect const h5md = {isH5md, sendFrame};

} // namespace pipeline
