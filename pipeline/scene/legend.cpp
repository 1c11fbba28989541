// Names the kinds that colours tell apart.
#include "pipeline/scene/legend.h"

#include "pipeline/files/elements.h"
#include "pipeline/files/printable.h"

#include <fmt/format.h>

#include <cmath>
#include <cstdint>
#include <map>

namespace pipeline {

namespace {

std::string nameOf(NameTable const* names, std::int64_t number) {
    auto const place = static_cast<std::uint64_t>(number);
    return names != nullptr && place < names->all().size()
               ? oneLine(names->all()[static_cast<std::size_t>(place)])
               : std::to_string(number);
}

/// Adds the kinds of particles in rising order, each with the colour of its first one.
template <class Number>
void addKinds(Legend& legend, std::vector<Number> const& numbers, NameTable const* names,
              std::vector<Kelpa::Vector> const& colors) {
    constexpr std::size_t most = 16;
    std::map<std::int64_t, std::size_t> first;
    for (std::size_t i = 0; i < numbers.size() && i < colors.size(); ++i)
        if (std::abs(static_cast<double>(numbers[i])) < 1e15)
            first.emplace(static_cast<std::int64_t>(numbers[i]), i);
    for (auto const& [kind, particle] : first)
        if (legend.kinds.size() < most)
            legend.kinds.push_back({nameOf(names, kind), colors[particle]});
    legend.moreKinds = first.size() - legend.kinds.size();
}

} // namespace

Legend legendOf(ColorOptions const& options, ParticleSet const& particles,
                std::vector<Kelpa::Vector> const& colors,
                std::optional<std::array<float, 2>> const& range) {
    Legend legend;
    legend.map = options.map.value_or(ColorMap());
    if (Attribute const* const column = coloredColumn(options, particles)) {
        legend.title = oneLine(column->name);
        legend.range = range;
        if (!range)
            addKinds(legend, column->values, column->names.get(), colors);
    } else if (!options.color && particles.colors.empty() && !particles.elements.empty()) {
        addKinds(legend, particles.elements, elementSymbols().get(), colors);
    } else if (!options.color && particles.colors.empty() && !particles.types.empty()) {
        legend.title = "type";
        addKinds(legend, particles.types, particles.typeNames.get(), colors);
    }
    if (!legend.range && legend.kinds.empty())
        throw InputError(fmt::format("{}: there is nothing to tell of the colours, which are those "
                                     "of the file or all the same",
                                     particles.name));
    return legend;
}

} // namespace pipeline
