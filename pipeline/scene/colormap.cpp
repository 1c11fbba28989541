// The colour map, the range of values that it shows, and colours for kinds.
#include "pipeline/scene/colormap.h"

#include "pipeline/files/srgb.h"
#include "pipeline/scene/colormaptables.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <iterator>
#include <stdexcept>

namespace pipeline {

namespace {

int digitOf(char c) {
    return c <= '9' ? c - '0' : c - 'a' + 10;
}

} // namespace

ColorMap::ColorMap(std::string const& name) {
    bool const isReversed = name.ends_with("_r");
    std::string const plain = isReversed ? name.substr(0, name.size() - 2) : name;
    auto const table =
        std::ranges::find(colorMapTables, plain, [](ColorMapTable const& t) { return t.name; });
    if (table == colorMapTables.end()) {
        std::string message = "'" + name + "' is no colour map; there are ";
        for (ColorMapTable const& known : colorMapTables)
            message.append(known.name).append(", ");
        throw std::invalid_argument(message + "each also with _r behind it, reversed");
    }
    char const* digit = table->codes;
    for (Kelpa::Vector& color : colors) {
        int code = 0;
        for (char const* const end = digit + 6; digit != end; ++digit)
            code = 16 * code + digitOf(*digit);
        color = linearOfHex(code);
    }
    if (isReversed)
        std::reverse(colors.begin(), colors.end());
}

Kelpa::Vector ColorMap::at(double part) const {
    return colors[static_cast<std::size_t>(std::clamp(part, 0.0, 1.0) * (entries - 1) + 0.5)];
}

std::string colorMapNames() {
    std::string names;
    for (ColorMapTable const& table : colorMapTables)
        names += (names.empty() ? "" : "|") + std::string(table.name);
    return names;
}

std::array<float, 2> usualRange(std::vector<float> const& values) {
    std::vector<float> finite;
    std::copy_if(values.begin(), values.end(), std::back_inserter(finite),
                 [](float value) { return std::isfinite(value); });
    if (finite.empty())
        return {0.0F, 1.0F};
    // Between two values the rank has its share of both: of few values each keeps a colour.
    auto const at = [&finite](double share) {
        double const rank = share * static_cast<double>(finite.size() - 1);
        auto const place = finite.begin() + static_cast<std::ptrdiff_t>(rank);
        std::nth_element(finite.begin(), place, finite.end());
        auto const low = static_cast<double>(*place);
        if (place + 1 == finite.end())
            return *place;
        auto const next = static_cast<double>(*std::min_element(place + 1, finite.end()));
        return static_cast<float>(low + (next - low) * (rank - std::floor(rank)));
    };
    return {at(0.01), at(0.99)};
}

std::vector<Kelpa::Vector> mapColors(std::vector<float> const& values,
                                     std::optional<std::array<float, 2>> range,
                                     ColorMap const& map) {
    auto const [low, high] = range ? *range : usualRange(values);
    double const width = static_cast<double>(high) - static_cast<double>(low);
    std::vector<Kelpa::Vector> colors(values.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (std::isnan(values[i])) {
            colors[i] = {0.2F, 0.2F, 0.2F};
            continue;
        }
        double const part =
            width != 0.0 ? (static_cast<double>(values[i]) - static_cast<double>(low)) / width
                         : 0.5;
        colors[i] = map.at(part);
    }
    return colors;
}

bool areKinds(std::string_view column) {
    constexpr std::string_view kinds[] = {"type",    "element",   "mol",     "molecule",
                                          "residue", "chain",     "segment", "cluster",
                                          "site",    "operation", "copy"};
    return std::ranges::find(kinds, column) != std::end(kinds);
}

Kelpa::Vector colorOfKind(std::int64_t kind) {
    constexpr std::size_t colorCount = 10;
    constexpr std::array<int, colorCount> codes = {0x4878a8, 0xe08a3c, 0x5fa055, 0xc8504a,
                                                   0x8f6bb0, 0x8c6550, 0xd98bb8, 0x8a8a8a,
                                                   0xb8b04a, 0x4fb0b8};
    static std::array<Kelpa::Vector, colorCount> const palette = [&codes] {
        std::array<Kelpa::Vector, colorCount> colors{};
        std::transform(codes.begin(), codes.end(), colors.begin(), linearOfHex);
        return colors;
    }();
    // Unsigned, so that no kind, however odd, has a negative place.
    return palette[(static_cast<std::uint64_t>(kind) - 1) % colorCount];
}

std::vector<Kelpa::Vector> mapTypes(std::vector<std::int64_t> const& types) {
    std::vector<Kelpa::Vector> colors(types.size());
    std::transform(types.begin(), types.end(), colors.begin(), colorOfKind);
    return colors;
}

} // namespace pipeline
