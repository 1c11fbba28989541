// Facts of a file as text and as JSON.
#include "tool/report/filefacts.h"

#include "pipeline/files/elements.h"
#include "pipeline/files/printable.h"

#include "tool/process/standardstreams.h"
#include "tool/report/phases.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <map>

namespace pipeline::tool {

namespace {

/// A name that particles have, and how many.
struct NameCount {
    std::string name;
    std::uint64_t particles = 0;
};

/// Those that particles have, the most frequent first.
std::vector<NameCount> sorted(std::vector<NameCount> counts) {
    std::erase_if(counts, [](NameCount const& count) { return count.particles == 0; });
    std::stable_sort(counts.begin(), counts.end(), [](NameCount const& a, NameCount const& b) {
        return a.particles > b.particles;
    });
    return counts;
}

std::vector<NameCount> countsOf(AttributeSummary const& column) {
    std::vector<NameCount> counts;
    for (std::size_t i = 0; i < column.counts.size(); ++i)
        counts.push_back({column.names->all()[i], column.counts[i]});
    return sorted(std::move(counts));
}

std::vector<NameCount> elementsOf(ParticleSet const& particles) {
    std::vector<NameCount> counts;
    for (std::string const& symbol : elementSymbols()->all())
        counts.push_back({symbol});
    for (std::uint8_t const element : particles.elements)
        if (element < counts.size())
            ++counts[element].particles;
    return sorted(std::move(counts));
}

/// Types by number, with the names that a file gives them.
std::vector<NameCount> typesOf(ParticleSet const& particles) {
    std::map<std::int64_t, std::uint64_t> found;
    for (std::int64_t const type : particles.types)
        ++found[type];
    std::vector<NameCount> counts;
    for (auto const& [type, count] : found) {
        bool const isNamed = particles.typeNames != nullptr && type >= 0 &&
                             static_cast<std::size_t>(type) < particles.typeNames->all().size();
        counts.push_back({isNamed ? particles.typeNames->all()[static_cast<std::size_t>(type)]
                                  : std::to_string(type),
                          count});
    }
    return particles.typeNames != nullptr ? sorted(std::move(counts)) : counts;
}

std::string listText(std::vector<NameCount> const& counts) {
    constexpr std::size_t few = 8;
    std::string text;
    for (std::size_t i = 0; i < std::min(few, counts.size()); ++i)
        text += fmt::format("{}{} {}", i > 0 ? ", " : "", printable(counts[i].name),
                            withCommas(counts[i].particles));
    return counts.size() > few ? fmt::format("{} and {} more", text, counts.size() - few) : text;
}

Json jsonOfCounts(std::vector<NameCount> const& counts) {
    std::vector<Json> list;
    for (NameCount const& count : counts)
        list.push_back(
            JsonObject().add("name", count.name).add("particles", count.particles).onOneLine());
    return jsonList(list, 4);
}

std::string frameText(ParticleSet const& particles) {
    std::string text =
        particles.frameCount > 1
            ? fmt::format("{}, this is {}",
                          withCommas(static_cast<std::uint64_t>(particles.frameCount)),
                          particles.frame)
            : std::string("1");
    if (particles.step)
        text += fmt::format(", step {}", *particles.step);
    if (particles.time)
        text += fmt::format(", time {:.7g}", *particles.time);
    return text;
}

std::string vectorText(std::array<double, 3> const& v) {
    return fmt::format("({:.7g}, {:.7g}, {:.7g})", v[0], v[1], v[2]);
}

std::string cellText(PeriodicCell const& cell) {
    bool isStraight = true;
    for (std::size_t edge = 0; edge < 3; ++edge)
        for (std::size_t axis = 0; axis < 3; ++axis)
            isStraight = isStraight && (edge == axis || cell.edges[edge][axis] == 0.0);
    auto const& [a, b, c] = cell.edges;
    std::string text =
        isStraight ? fmt::format("{:.7g} x {:.7g} x {:.7g}", a[0], b[1], c[2])
                   : fmt::format("edges {}, {}, {}", vectorText(a), vectorText(b), vectorText(c));
    if (cell.origin != std::array<double, 3>{})
        text += " from " + vectorText(cell.origin);
    std::string along;
    for (std::size_t edge = 0; edge < 3; ++edge)
        if (cell.isPeriodic[edge])
            along += fmt::format("{}{}", along.empty() ? "" : ", ",
                                 isStraight ? "xyz"[edge] : "abc"[edge]);
    return text + (along.empty() ? ", not periodic" : ", periodic along " + along);
}

Json jsonOfCell(PeriodicCell const& cell) {
    auto const vector = [](auto const& v) {
        return fmt::format("[{}, {}, {}]", jsonNumber(v[0]), jsonNumber(v[1]), jsonNumber(v[2]));
    };
    auto const& [x, y, z] = cell.isPeriodic;
    return JsonObject()
        .add("origin", Json{vector(cell.origin)})
        .add("edges", Json{fmt::format("[{}, {}, {}]", vector(cell.edges[0]), vector(cell.edges[1]),
                                       vector(cell.edges[2]))})
        .add("periodic", Json{fmt::format("[{}, {}, {}]", x, y, z)})
        .onOneLine();
}

} // namespace

std::vector<std::string> factLines(ParticleSet const& particles) {
    std::vector<std::string> lines;
    if (particles.frameCount > 1 || particles.step || particles.time)
        lines.push_back("frames: " + frameText(particles));
    if (particles.cell)
        lines.push_back("cell: " + cellText(*particles.cell));
    if (!particles.elements.empty())
        lines.push_back("elements: " + listText(elementsOf(particles)));
    if (!particles.types.empty())
        lines.push_back("types: " + listText(typesOf(particles)));
    return lines;
}

void addFacts(JsonObject& json, ParticleSet const& particles) {
    json.add("frame", particles.frame);
    if (particles.step)
        json.add("step", Json{std::to_string(*particles.step)});
    if (particles.time)
        json.add("time", *particles.time);
    if (particles.cell)
        json.add("cell", jsonOfCell(*particles.cell));
    if (!particles.elements.empty())
        json.add("elements", jsonOfCounts(elementsOf(particles)));
    if (!particles.types.empty())
        json.add("types", jsonOfCounts(typesOf(particles)));
}

std::string columnLine(AttributeSummary const& column) {
    std::string text = fmt::format("{:<20} {:<8} ", printable(column.name), printable(column.type));
    if (column.names != nullptr) {
        std::vector<NameCount> const counts = countsOf(column);
        return text + fmt::format("{} names: {}", withCommas(counts.size()), listText(counts));
    }
    text += fmt::format("{:.7g} to {:.7g}", column.min, column.max);
    return column.notFinite > 0
               ? fmt::format("{}, {} not finite", text, withCommas(column.notFinite))
               : text;
}

Json jsonOfColumn(AttributeSummary const& column) {
    JsonObject json;
    json.add("name", column.name).add("type", column.type);
    if (column.names != nullptr)
        return json.add("names", jsonOfCounts(countsOf(column))).onOneLine();
    return json.add("min", column.min)
        .add("max", column.max)
        .add("notFinite", column.notFinite)
        .onOneLine();
}

} // namespace pipeline::tool
