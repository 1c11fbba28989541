#include "pipeline/scene/colormap.h"

#include "pipeline/files/srgb.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace pipeline {

namespace {

/// The colour map viridis (S. van der Walt and N. Smith, 2015, CC0) as polynomials in sRGB, a fit
/// by M. Zucker (CC0) that stays within 0.01 of its table of 256 entries.
Kelpa::Vector viridis(double t) {
    constexpr double coefficients[7][3] = {
        {0.2777273272234177, 0.005407344544966578, 0.3340998053353061},
        {0.1050930431085774, 1.404613529898575, 1.384590162594685},
        {-0.3308618287255563, 0.214847559468213, 0.09509516302823659},
        {-4.634230498983486, -5.799100973351585, -19.33244095627987},
        {6.228269936347081, 14.17993336680509, 56.69055260068105},
        {4.776384997670288, -13.74514537774601, -65.35303263337234},
        {-5.435455855934631, 4.645852612178535, 26.3124352495832}};
    double rgb[3] = {0.0, 0.0, 0.0};
    for (int power = 6; power >= 0; --power)
        for (int channel = 0; channel < 3; ++channel)
            rgb[channel] = rgb[channel] * t + coefficients[power][channel];
    return {linearFromSrgb(std::clamp(rgb[0], 0.0, 1.0)),
            linearFromSrgb(std::clamp(rgb[1], 0.0, 1.0)),
            linearFromSrgb(std::clamp(rgb[2], 0.0, 1.0))};
}

} // namespace

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
                                     std::optional<std::array<float, 2>> range) {
    constexpr std::size_t entries = 256;
    static std::array<Kelpa::Vector, entries> const table = [] {
        std::array<Kelpa::Vector, entries> colors{};
        for (std::size_t i = 0; i < entries; ++i)
            colors[i] = viridis(static_cast<double>(i) / (entries - 1));
        return colors;
    }();
    auto const [low, high] = range ? *range : usualRange(values);
    double const width = static_cast<double>(high) - static_cast<double>(low);
    std::vector<Kelpa::Vector> colors(values.size());
    for (std::size_t i = 0; i < values.size(); ++i) {
        if (std::isnan(values[i])) {
            colors[i] = {0.2F, 0.2F, 0.2F};
            continue;
        }
        double const t = width != 0.0
                             ? (static_cast<double>(values[i]) - static_cast<double>(low)) / width
                             : 0.5;
        colors[i] = table[static_cast<std::size_t>(std::clamp(t, 0.0, 1.0) * (entries - 1) + 0.5)];
    }
    return colors;
}

std::vector<Kelpa::Vector> mapTypes(std::vector<std::int64_t> const& types) {
    constexpr std::size_t colorCount = 10;
    constexpr std::array<int, colorCount> codes = {0x4878a8, 0xe08a3c, 0x5fa055, 0xc8504a,
                                                   0x8f6bb0, 0x8c6550, 0xd98bb8, 0x8a8a8a,
                                                   0xb8b04a, 0x4fb0b8};
    std::array<Kelpa::Vector, colorCount> palette{};
    std::transform(codes.begin(), codes.end(), palette.begin(), linearOfHex);
    std::vector<Kelpa::Vector> colors(types.size());
    // Unsigned, so that no type, however odd, has a negative place.
    std::transform(types.begin(), types.end(), colors.begin(), [&palette](std::int64_t type) {
        return palette[(static_cast<std::uint64_t>(type) - 1) % colorCount];
    });
    return colors;
}

} // namespace pipeline
