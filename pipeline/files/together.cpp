// Appends column by column, and tells where files differ.
#include "pipeline/files/together.h"

#include "pipeline/files/errors.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

namespace pipeline {

namespace {

/// The sets that become one, and how many particles each has had.
struct Meeting {
    ParticleSet& all;
    ParticleSet& part;
    std::size_t before = all.positions.size();
    std::size_t more = part.positions.size();

    [[noreturn]] void differ(std::string const& what) const {
        throw InputError(
            fmt::format("{} and {}: {}; they are not one snapshot", all.name, part.name, what));
    }

    /// Appends what is one per particle, and empty where a file has no such thing.
    template <class Value>
    void join(std::vector<Value>& to, std::vector<Value>& from, char const* what) const {
        bool const isMissing = (before > 0 && to.empty()) || (more > 0 && from.empty());
        if (isMissing && !(to.empty() && from.empty()))
            differ(fmt::format("only one has {}", what));
        to.insert(to.end(), from.begin(), from.end());
        from = {};
    }
};

bool areSame(std::shared_ptr<NameTable const> const& a, std::shared_ptr<NameTable const> const& b) {
    return a == b || (a != nullptr && b != nullptr && a->all() == b->all());
}

/// A table with the names of both; `numbers` gives those of the second there.
std::shared_ptr<NameTable const> unite(NameTable const& first, NameTable const& second,
                                       std::vector<std::uint32_t>& numbers) {
    auto const table = std::make_shared<NameTable>(first);
    for (std::string const& name : second.all())
        numbers.push_back(table->numberOf(name));
    return table;
}

/// Gives values that count names of a table those that they have in the other's.
template <class Rename>
void renameFor(Meeting const& meeting, std::string const& column,
               std::shared_ptr<NameTable const>& names,
               std::shared_ptr<NameTable const> const& others, Rename const& rename) {
    if (areSame(names, others))
        return;
    if (names == nullptr || others == nullptr)
        meeting.differ(fmt::format("column {} holds names in one of them alone", column));
    std::vector<std::uint32_t> numbers;
    names = unite(*names, *others, numbers);
    rename(numbers);
}

void joinAttributes(Meeting const& meeting) {
    auto& [all, part, before, more] = meeting;
    if (all.attributes.size() != part.attributes.size())
        meeting.differ("their columns differ");
    for (std::size_t i = 0; i < all.attributes.size(); ++i) {
        Attribute& to = all.attributes[i];
        Attribute& from = part.attributes[i];
        renameFor(meeting, to.name, to.names, from.names,
                  [&from = from.values](std::vector<std::uint32_t> const& numbers) {
                      for (float& value : from)
                          value = static_cast<float>(numbers[static_cast<std::size_t>(value)]);
                  });
        meeting.join(to.values, from.values, fmt::format("column {}", to.name).c_str());
    }
}

void joinTyped(Meeting const& meeting) {
    auto& [all, part, before, more] = meeting;
    for (TypedColumn& to : all.typed) {
        auto const from = std::find_if(part.typed.begin(), part.typed.end(),
                                       [&to](TypedColumn const& c) { return c.name == to.name; });
        if (from == part.typed.end())
            meeting.differ(fmt::format("only one has column {}", to.name));
        if (from->type != to.type)
            meeting.differ(fmt::format("column {} is of two types", to.name));
        renameFor(meeting, to.name, to.names, from->names,
                  [from](std::vector<std::uint32_t> const& numbers) {
                      withType(from->type, [&]<class Number>(Number) {
                          for (std::size_t at = 0; at < from->bytes.size(); at += sizeof(Number)) {
                              Number number;
                              std::memcpy(&number, from->bytes.data() + at, sizeof number);
                              number =
                                  static_cast<Number>(numbers[static_cast<std::size_t>(number)]);
                              std::memcpy(from->bytes.data() + at, &number, sizeof number);
                          }
                      });
                  });
        meeting.join(to.bytes, from->bytes, fmt::format("column {}", to.name).c_str());
    }
    if (part.typed.size() > all.typed.size())
        meeting.differ("one has more columns");
}

/// What the summaries of a column tell of the rows of both files.
void joinSummary(AttributeSummary& to, std::size_t rowsBefore, AttributeSummary const& from,
                 std::size_t rowsMore) {
    bool const hadNumbers = rowsBefore > to.notFinite;
    if (rowsMore > from.notFinite) {
        to.min = hadNumbers ? std::min(to.min, from.min) : from.min;
        to.max = hadNumbers ? std::max(to.max, from.max) : from.max;
    }
    to.notFinite += from.notFinite;
    if (to.names == nullptr || from.names == nullptr)
        return;
    std::vector<std::uint32_t> numbers;
    to.names = unite(*to.names, *from.names, numbers);
    to.counts.resize(to.names->all().size());
    for (std::size_t i = 0; i < std::min(numbers.size(), from.counts.size()); ++i)
        to.counts[numbers[i]] += from.counts[i];
}

void joinSummaries(Meeting const& meeting) {
    auto& [all, part, before, more] = meeting;
    std::vector<AttributeSummary> common;
    std::vector<std::string> differing;
    auto const find = [](std::vector<AttributeSummary>& columns, AttributeSummary const& wanted) {
        return std::find_if(columns.begin(), columns.end(), [&](AttributeSummary const& column) {
            return column.name == wanted.name && column.type == wanted.type &&
                   (column.names == nullptr) == (wanted.names == nullptr);
        });
    };
    for (AttributeSummary& column : all.columns) {
        auto const other = find(part.columns, column);
        if (other == part.columns.end()) {
            differing.push_back(column.name);
            continue;
        }
        joinSummary(column, before + all.virtualSites.size(), *other,
                    more + part.virtualSites.size());
        common.push_back(std::move(column));
    }
    for (AttributeSummary const& column : part.columns)
        if (find(common, column) == common.end())
            differing.push_back(column.name);
    all.columns = std::move(common);
    if (!differing.empty())
        all.notes.emplace_back(fmt::format("{}: its columns and those before differ in {}",
                                           part.name, fmt::join(differing, ", ")));
}

/// Refuses files whose particles do not lie in the same space, or are not called alike.
void compareFacts(Meeting const& meeting) {
    auto const& [all, part, before, more] = meeting;
    bool const sameCell = all.cell.has_value() == part.cell.has_value() &&
                          (!all.cell || (all.cell->origin == part.cell->origin &&
                                         all.cell->edges == part.cell->edges &&
                                         all.cell->isPeriodic == part.cell->isPeriodic));
    if (!sameCell)
        meeting.differ("their cells differ");
    if (all.angstrom != part.angstrom || all.upAxis != part.upAxis ||
        all.isUnwrapped != part.isUnwrapped)
        meeting.differ("they hold positions of two kinds");
    if (!areSame(all.typeNames, part.typeNames))
        meeting.differ("their types have two sets of names");
    if (all.frame != part.frame)
        meeting.differ(fmt::format("one is frame {}, the other {}", all.frame, part.frame));
}

template <class Value> void take(std::vector<Value>& to, std::vector<Value>& from) {
    for (Value& value : from)
        if (std::find(to.begin(), to.end(), value) == to.end())
            to.push_back(std::move(value));
}

} // namespace

void append(ParticleSet& all, ParticleSet part) {
    Meeting const meeting{all, part};
    compareFacts(meeting);
    joinSummaries(meeting);
    std::size_t const rows = meeting.before + all.virtualSites.size();
    for (std::size_t const site : part.virtualSites)
        all.virtualSites.push_back(rows + site);
    joinAttributes(meeting);
    joinTyped(meeting);
    meeting.join(all.radii, part.radii, "radii");
    meeting.join(all.colors, part.colors, "colours");
    meeting.join(all.velocities, part.velocities, "velocities");
    meeting.join(all.ids, part.ids, "ids");
    meeting.join(all.elements, part.elements, "elements");
    meeting.join(all.types, part.types, "types");
    meeting.join(all.images, part.images, "images of the cell");
    meeting.join(all.positions, part.positions, "positions");
    if (all.radiusSource.empty())
        all.radiusSource = part.radiusSource;
    if (all.colorSource.empty())
        all.colorSource = part.colorSource;
    take(all.unknownElements, part.unknownElements);
    take(all.leftOut, part.leftOut);
    all.unfitIds += part.unfitIds;
    std::move(part.notes.begin(), part.notes.end(), std::back_inserter(all.notes));
    all.frameCount = std::min(all.frameCount, part.frameCount);
}

} // namespace pipeline
