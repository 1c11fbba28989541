// Which particles of a file are shown.
#include "pipeline/scene/selection.h"

#include "pipeline/files/elements.h"
#include "pipeline/files/particlerows.h"
#include "pipeline/files/textvalues.h"
#include "pipeline/scene/motion.h"
#include "pipeline/scene/spacing.h"

#include <fmt/format.h>

#include <algorithm>
#include <limits>
#include <numeric>
#include <stdexcept>
#include <unordered_set>
#include <utility>

namespace pipeline {

namespace {

using Rows = std::vector<std::uint32_t>;

/// What an expression calls the arrays of a particle set, if it has them.
struct OwnArray {
    char const* name;
    std::vector<Kelpa::Vector> ParticleSet::*vectors = nullptr;
    int axis = 0;
};
constexpr OwnArray vectorNames[] = {
    {"x", &ParticleSet::positions, 0},   {"y", &ParticleSet::positions, 1},
    {"z", &ParticleSet::positions, 2},   {"vx", &ParticleSet::velocities, 0},
    {"vy", &ParticleSet::velocities, 1}, {"vz", &ParticleSet::velocities, 2}};
constexpr std::string_view numberNames[] = {"radius", "id", "type", "element"};

bool isOwn(std::string const& name) {
    auto const isIt = [&](OwnArray const& own) { return own.name == name; };
    return std::ranges::any_of(vectorNames, isIt) ||
           std::ranges::find(numberNames, name) != std::end(numberNames);
}

template <class Value>
std::optional<ExpressionColumn> columnOver(std::vector<Value> const& values, bool isSingle) {
    if (values.empty())
        return std::nullopt;
    return ExpressionColumn{[&values](std::size_t i) { return static_cast<double>(values[i]); },
                            isSingle};
}

/// A column whose numbers count the entries of a table, if there is one.
std::optional<ExpressionColumn> withWords(std::optional<ExpressionColumn> column,
                                          NameTable const* names) {
    if (column && names != nullptr)
        column->numberOf = [names](std::string_view word) -> std::optional<double> {
            auto const number = names->find(word);
            return number ? std::optional<double>(*number) : std::nullopt;
        };
    return column;
}

std::optional<ExpressionColumn> elementColumn(ParticleSet const& particles) {
    std::optional<ExpressionColumn> column = columnOver(particles.elements, false);
    if (column)
        column->numberOf = [](std::string_view word) -> std::optional<double> {
            std::uint8_t const number = atomicNumberOf(word);
            return number != 0 ? std::optional<double>(number) : std::nullopt;
        };
    return column;
}

std::optional<ExpressionColumn> columnNamed(ParticleSet const& particles, std::string const& name) {
    for (OwnArray const& own : vectorNames)
        if (auto const& array = particles.*own.vectors; own.name == name && !array.empty())
            return ExpressionColumn{[&array, axis = own.axis](std::size_t i) {
                return static_cast<double>(array[i][axis]);
            }};
    if (name == "radius")
        return columnOver(particles.radii, true);
    if (name == "id")
        return columnOver(particles.ids, false);
    if (name == "type")
        return withWords(columnOver(particles.types, false), particles.typeNames.get());
    if (name == "element")
        return elementColumn(particles);
    for (Attribute const& attribute : particles.attributes)
        if (attribute.name == name)
            return withWords(columnOver(attribute.values, true), attribute.names.get());
    return std::nullopt;
}

/// The names that an expression may use, as far as they are known.
std::string namesIn(ParticleSet const& particles) {
    std::string names;
    for (OwnArray const& own : vectorNames)
        if (!(particles.*own.vectors).empty())
            names += std::string(" ") + own.name;
    for (std::string_view const name : numberNames)
        if (columnNamed(particles, std::string(name)))
            names += " " + std::string(name);
    for (Attribute const& attribute : particles.attributes)
        if (!isOwn(attribute.name))
            names += " " + attribute.name;
    return names;
}

Rows allRows(ParticleSet const& particles) {
    Rows rows(particles.positions.size());
    std::iota(rows.begin(), rows.end(), 0U);
    return rows;
}

Rows rowsMatching(Expression const& expression, ParticleSet const& particles) {
    try {
        return expression.matches(particles.positions.size(), [&](std::string const& name) {
            return columnNamed(particles, name);
        });
    } catch (std::invalid_argument const& error) {
        throw InputError(fmt::format("{}: {}\nbeside the file's further columns there are{}",
                                     particles.name, error.what(), namesIn(particles)));
    }
}

double along(Vec const& normal, Kelpa::Vector const& p) {
    return dot(normal, wide(p));
}

/// Where the plane lies along its normal.
double coordinateOf(Slice const& slice, ParticleSet const& particles) {
    if (!slice.isShare)
        return slice.at;
    double low = std::numeric_limits<double>::infinity();
    double high = -low;
    for (Kelpa::Vector const& p : particles.positions)
        if (double const c = along(slice.normal, p); std::isfinite(c)) {
            low = std::min(low, c);
            high = std::max(high, c);
        }
    return low + (high - low) * slice.at;
}

/// A number for an id in which neighbours have nothing in common (S. Vigna's splitmix64).
std::uint64_t mixedId(std::uint64_t id) {
    id += 0x9E3779B97F4A7C15U;
    id = (id ^ (id >> 30U)) * 0xBF58476D1CE4E5B9U;
    id = (id ^ (id >> 27U)) * 0x94D049BB133111EBU;
    return id ^ (id >> 31U);
}

/// The rows that the options leave.
Rows chosenRows(SelectionOptions const& options, ParticleSet const& particles,
                std::vector<double> const& planes) {
    Rows rows = options.select ? rowsMatching(*options.select, particles) : allRows(particles);
    for (std::size_t i = 0; i < options.slices.size(); ++i)
        std::erase_if(rows, [&](std::uint32_t row) {
            return !(along(options.slices[i].normal, particles.positions[row]) <= planes[i]);
        });
    // By the id itself, the same atom of every molecule would stay.
    if (options.every > 1)
        std::erase_if(rows, [&](std::uint32_t row) {
            return mixedId(particles.ids.empty() ? row
                                                 : static_cast<std::uint64_t>(particles.ids[row])) %
                       options.every !=
                   0;
        });
    return rows;
}

void wrapInto(ParticleSet& particles) {
    if (!particles.cell)
        throw InputError(particles.name + ": has no cell to wrap particles into");
    particles.positions = wrapped(particles.positions, *particles.cell);
    particles.images.clear();
    particles.isUnwrapped = false;
}

/// Sets copies beside each other along the cell's edges. Their ids go on from copy to copy, such
/// that the same copy of a particle has the same id in every frame.
void replicate(std::array<int, 3> const& counts, ParticleSet& particles) {
    if (!particles.cell)
        throw InputError(particles.name + ": has no cell to copy particles along");
    std::size_t const single = particles.positions.size();
    auto const copies = static_cast<std::size_t>(counts[0]) * static_cast<std::size_t>(counts[1]) *
                        static_cast<std::size_t>(counts[2]);
    constexpr std::size_t most = std::numeric_limits<std::int32_t>::max();
    if (single > most / copies)
        throw InputError(fmt::format("{}: {} copies of {} particles are more than {}",
                                     particles.name, copies, single, most));
    Rows rows(single * copies);
    for (std::size_t i = 0; i < rows.size(); ++i)
        rows[i] = static_cast<std::uint32_t>(i % single);
    takeRows(particles, rows);
    auto const& edges = particles.cell->edges;
    std::size_t row = 0;
    for (std::size_t copy = 0; copy < copies; ++copy) {
        std::size_t const across = copy / static_cast<std::size_t>(counts[0]);
        std::size_t const upward = across / static_cast<std::size_t>(counts[1]);
        double const steps[3] = {static_cast<double>(copy % static_cast<std::size_t>(counts[0])),
                                 static_cast<double>(across % static_cast<std::size_t>(counts[1])),
                                 static_cast<double>(upward)};
        double shift[3] = {};
        for (std::size_t edge = 0; edge < 3; ++edge)
            for (std::size_t axis = 0; axis < 3; ++axis)
                shift[axis] += steps[edge] * edges[edge][axis];
        for (std::size_t i = 0; i < single; ++i, ++row) {
            Kelpa::Vector& p = particles.positions[row];
            p = narrow(wide(p) + Vec{shift[0], shift[1], shift[2]});
            if (!particles.ids.empty())
                particles.ids[row] = particles.ids[row] * static_cast<std::int64_t>(copies) +
                                     static_cast<std::int64_t>(copy);
        }
    }
    particles.copies = counts;
}

void arrange(SelectionOptions const& options, ParticleSet& particles) {
    if (options.wrap)
        wrapInto(particles);
    if (options.replicate != std::array{1, 1, 1})
        replicate(options.replicate, particles);
}

/// Of the second snapshot, the particles that are shown of the first, and of those that are new
/// the ones that the options leave.
Rows partnerRows(SelectionOptions const& options, ParticleSet const& first, Rows const& shown,
                 ParticleSet const& second, std::vector<double> const& planes) {
    if (first.ids.empty() || second.ids.empty()) // matched by their order
        return first.positions.size() == second.positions.size() ? shown : allRows(second);
    std::unordered_set<std::int64_t> const known(first.ids.begin(), first.ids.end());
    std::unordered_set<std::int64_t> wanted;
    for (std::uint32_t const row : shown)
        wanted.insert(first.ids[row]);
    for (std::uint32_t const row : chosenRows(options, second, planes))
        if (!known.contains(second.ids[row]))
            wanted.insert(second.ids[row]);
    Rows rows = allRows(second);
    std::erase_if(rows, [&](std::uint32_t row) { return !wanted.contains(second.ids[row]); });
    return rows;
}

} // namespace

Slice parseSlice(std::string const& text) {
    auto const refuse = [&text] {
        throw std::invalid_argument("'" + text +
                                    "' is none of x, -y, 1,0,1 with :COORDINATE or "
                                    ":PERCENT% behind it, if wanted");
    };
    std::size_t const colon = std::min(text.find(':'), text.size());
    std::string const where = text.substr(std::min(colon + 1, text.size()));
    std::string direction = text.substr(0, colon);
    Slice slice{};
    double const sign = direction.starts_with('-') && direction.size() == 2 ? -1.0 : 1.0;
    std::string const axis = sign < 0.0 ? direction.substr(1) : direction;
    if (axis == "x" || axis == "y" || axis == "z") {
        slice.normal =
            Vec{axis == "x" ? sign : 0.0, axis == "y" ? sign : 0.0, axis == "z" ? sign : 0.0};
    } else {
        double parts[3] = {};
        direction += ',';
        for (double& part : parts) {
            std::size_t const comma = direction.find(',');
            if (comma == std::string::npos || !parseNumber(direction.substr(0, comma), part))
                refuse();
            direction.erase(0, comma + 1);
        }
        Vec const normal{parts[0], parts[1], parts[2]};
        if (!direction.empty() || !(dot(normal, normal) > 0.0) ||
            !std::isfinite(dot(normal, normal)))
            refuse();
        slice.normal = unit(normal);
    }
    slice.isShare = where.empty() || where.ends_with('%');
    std::string const number = where.ends_with('%') ? where.substr(0, where.size() - 1) : where;
    if (!where.empty() && !(parseNumber(number, slice.at) && std::isfinite(slice.at)))
        refuse();
    if (where.ends_with('%'))
        slice.at /= 100.0;
    if (colon < text.size() && where.empty())
        refuse();
    return slice;
}

std::vector<std::string> columnsOf(SelectionOptions const& options) {
    std::vector<std::string> names;
    if (options.select)
        names = options.select->names();
    std::erase_if(names, isOwn);
    return names;
}

void selectParticles(SelectionOptions const& options, RadiusOptions const& radius,
                     ParticleSet& particles, ParticleSet* second,
                     std::vector<double>& sliceCoordinates, Note const& note,
                     PhaseProgress const& progress) {
    if (options.isAll())
        return;
    bool const asksSpacing =
        !radius.radius && particles.radii.empty() && particles.elements.empty();
    if (asksSpacing && !particles.spacing)
        particles.spacing = spacingOf(particles, progress);
    arrange(options, particles);
    if (second != nullptr)
        arrange(options, *second);
    for (std::size_t i = sliceCoordinates.size(); i < options.slices.size(); ++i)
        sliceCoordinates.push_back(coordinateOf(options.slices[i], particles));
    std::size_t const count = particles.positions.size();
    Rows const shown = chosenRows(options, particles, sliceCoordinates);
    if (second != nullptr)
        takeRows(*second, partnerRows(options, particles, shown, *second, sliceCoordinates));
    takeRows(particles, shown);
    note(fmt::format("{} of {} particles are shown", shown.size(), count));
    if (shown.empty())
        throw InputError(
            fmt::format("{}: none of {} particles is selected", particles.name, count));
}

} // namespace pipeline
