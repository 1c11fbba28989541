// How values of every type become positions, radii, colours, ids and columns.
#include "pipeline/files/columns.h"

#include "pipeline/files/inputfile.h"
#include "pipeline/files/srgb.h"
#include "pipeline/files/textvalues.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <span>
#include <type_traits>
#include <utility>

namespace pipeline {

namespace {

/// A whole number for an id; NaN and what no 64-bit number can hold become -1. Counts those, and
/// numbers that lose a fraction, in `unfit`.
template <class Number>
std::int64_t idOf(Number value, std::uint64_t& unfit, std::uint64_t& wrapped) {
    if constexpr (std::is_floating_point_v<Number>) {
        constexpr Number limit = 9223372036854775808.0; // 2^63, exact in both types
        bool const isHeld = value >= -limit && value < limit;
        std::int64_t const whole = isHeld ? static_cast<std::int64_t>(value) : -1;
        unfit += isHeld && static_cast<Number>(whole) == value ? 0 : 1;
        return whole;
    } else {
        wrapped += std::in_range<std::int64_t>(value) ? 0 : 1;
        return static_cast<std::int64_t>(value);
    }
}

/// An 8-bit sRGB code as linear light; what lies outside, NaN too, becomes the nearest end.
float linearOfNumber(double code) {
    double const clamped = code > 0.0 ? (code < 255.0 ? code : 255.0) : 0.0;
    return linearOfCode()[static_cast<std::size_t>(clamped)];
}

std::uint8_t elementOf(double number) {
    return number >= 1.0 && number < 119.0 ? static_cast<std::uint8_t>(number) : std::uint8_t{0};
}

/// Which entry of a table a number counts; what counts none becomes the first.
template <class Number> std::size_t entryOf(Number number, NameTable const& names) {
    auto const entry = static_cast<double>(number);
    return entry >= 0.0 && entry < static_cast<double>(names.all().size())
               ? static_cast<std::size_t>(entry)
               : 0;
}

/// One column through `convert`: numbers at `from`, every `fromStep` bytes, become results at `to`,
/// every `toStep` bytes.
template <class Result, class Convert>
void convertColumn(ScalarType type, char const* from, std::size_t fromStep, std::size_t count,
                   void* to, std::size_t toStep, Convert convert) {
    withType(type, [&]<class Number>(Number) {
        char const* source = from;
        char* target = static_cast<char*>(to);
        for (std::size_t row = 0; row < count; ++row) {
            Number number;
            std::memcpy(&number, source, sizeof number);
            Result const result = convert(number);
            std::memcpy(target, &result, sizeof result);
            source += fromStep;
            target += toStep;
        }
    });
}

/// Makes vectors longer by one of their parts, which is at right angles to those before.
void addToLengths(Column const& column, char const* from, std::size_t rowBytes,
                  std::span<float> lengths) {
    withType(column.stored, [&]<class Number>(Number part) {
        for (float& length : lengths) {
            std::memcpy(&part, from, sizeof part);
            length = static_cast<float>(
                std::hypot(static_cast<double>(length), static_cast<double>(part)));
            from += rowBytes;
        }
    });
}

template <std::size_t bytes> void reverseColumn(char* at, std::size_t step, std::size_t count) {
    for (std::size_t row = 0; row < count; ++row, at += step)
        std::reverse(at, at + bytes);
}

void reverseColumn(std::size_t bytes, char* at, std::size_t step, std::size_t count) {
    if (bytes == 2)
        reverseColumn<2>(at, step, count);
    else if (bytes == 4)
        reverseColumn<4>(at, step, count);
    else if (bytes == 8)
        reverseColumn<8>(at, step, count);
}

} // namespace

ScalarType storedFromText(std::string_view name, ScalarType declared) {
    // Beyond 2^53 a double would merge neighbours.
    if (declared == ScalarType::int64 || declared == ScalarType::uint64)
        return declared;
    if (name == "id")
        return ScalarType::int64;
    return declared == ScalarType::float32 ? ScalarType::float32 : ScalarType::float64;
}

bool storeWord(Column const& column, std::string_view word, char* row, std::uint64_t& unfitIds) {
    auto const store = [&](auto number) {
        std::memcpy(row + column.offset, &number, sizeof number);
        return true;
    };
    auto const storeWhole = [&]<class Whole>(Whole whole) {
        if (parseNumber(word, whole))
            return store(whole);
        double number = 0.0; // such as 1e3
        return parseNumber(word, number) &&
               store(static_cast<Whole>(idOf(number, unfitIds, unfitIds)));
    };
    if (column.stored == ScalarType::int64)
        return storeWhole(std::int64_t{});
    if (column.stored == ScalarType::uint64)
        return storeWhole(std::uint64_t{});
    float single = 0.0F;
    if (column.stored == ScalarType::float32)
        return parseNumber(word, single) && store(single);
    double number = 0.0;
    return parseNumber(word, number) && store(number);
}

RowConverter::RowConverter(ParticleSet& set, std::vector<Column> rowColumns,
                           std::vector<ColumnUse> columnUses, bool wantsSummary)
    : particles(set), columns(std::move(rowColumns)), uses(std::move(columnUses)) {
    if (!wantsSummary)
        return;
    for (Column const& column : columns)
        if (!column.isDerived)
            particles.columns.push_back({.name = column.name,
                                         .type = column.typeName,
                                         .min = 0.0,
                                         .max = 0.0,
                                         .names = column.names});
    finiteCount.resize(particles.columns.size());
}

template <class Operation> void RowConverter::forEachArray(Operation operation) {
    for (ColumnUse const& use : uses) {
        switch (use.target) {
        case Target::position:
            operation(particles.positions);
            break;
        case Target::radius:
            operation(particles.radii);
            break;
        case Target::color:
            operation(particles.colors);
            break;
        case Target::velocity:
            operation(particles.velocities);
            break;
        case Target::image:
            operation(particles.images);
            break;
        case Target::id:
            operation(particles.ids);
            break;
        case Target::element:
            operation(particles.elements);
            break;
        case Target::type:
            operation(particles.types);
            break;
        case Target::attribute:
        case Target::length:
            operation(particles.attributes[use.part].values);
            break;
        case Target::typed: // grows by bytes
            break;
        }
    }
}

void RowConverter::reserve(std::size_t count) {
    forEachArray([=](auto& array) { array.reserve(count); });
    for (TypedColumn& column : particles.typed)
        column.bytes.reserve(count * scalarBytes(column.type));
}

void RowConverter::append(char const* rows, std::size_t count, std::size_t rowBytes,
                          bool swapBytes) {
    if (count == 0)
        return; // no rows may come without an address that columns could be offset from
    if (swapBytes) {
        swapped.assign(rows, rows + count * rowBytes);
        for (Column const& column : columns)
            reverseColumn(scalarBytes(column.stored), swapped.data() + column.offset, rowBytes,
                          count);
        rows = swapped.data();
    }
    forEachArray([=, this](auto& array) { array.resize(converted + count); });
    for (ColumnUse const& use : uses)
        convert(use, rows, count, rowBytes);
    for (std::size_t column = 0; column < finiteCount.size(); ++column)
        summarise(column, rows, count, rowBytes);
    converted += count;
}

void RowConverter::convert(ColumnUse const& use, char const* rows, std::size_t count,
                           std::size_t rowBytes) {
    Column const& column = columns[use.column];
    char const* const from = rows + column.offset;
    auto const asIs = [](auto number) { return static_cast<float>(number); };
    auto const toVectors = [&](std::vector<Kelpa::Vector>& array, auto conversion) {
        convertColumn<float>(column.stored, from, rowBytes, count,
                             &array[converted][static_cast<int>(use.part)], sizeof(Kelpa::Vector),
                             conversion);
    };
    switch (use.target) {
    case Target::position:
        return toVectors(particles.positions, asIs);
    case Target::velocity:
        return toVectors(particles.velocities, asIs);
    case Target::image:
        return toVectors(particles.images, asIs);
    case Target::color:
        if (isFloating(column.declared))
            return toVectors(particles.colors, asIs);
        if (column.declared == ScalarType::uint16)
            return toVectors(particles.colors, [](auto number) {
                return linearFromSrgb(static_cast<double>(number) / 65535.0);
            });
        return toVectors(particles.colors,
                         [](auto number) { return linearOfNumber(static_cast<double>(number)); });
    case Target::radius:
        return convertColumn<float>(
            column.stored, from, rowBytes, count, &particles.radii[converted], sizeof(float),
            [&](auto number) { return use.factor * static_cast<float>(number); });
    case Target::attribute: {
        Attribute& attribute = particles.attributes[use.part];
        float* const to = &attribute.values[converted];
        if (attribute.names == nullptr)
            return convertColumn<float>(column.stored, from, rowBytes, count, to, sizeof(float),
                                        asIs);
        return convertColumn<float>(column.stored, from, rowBytes, count, to, sizeof(float),
                                    [&names = *attribute.names](auto number) {
                                        return static_cast<float>(entryOf(number, names));
                                    });
    }
    case Target::length:
        return addToLengths(column, from, rowBytes,
                            std::span(particles.attributes[use.part].values).subspan(converted));
    case Target::id:
        return convertColumn<std::int64_t>(
            column.stored, from, rowBytes, count, &particles.ids[converted], sizeof(std::int64_t),
            [&](auto number) { return idOf(number, particles.unfitIds, particles.wrappedIds); });
    case Target::type:
        return convertColumn<std::int64_t>(
            column.stored, from, rowBytes, count, &particles.types[converted], sizeof(std::int64_t),
            [&](auto number) { return idOf(number, particles.unfitIds, particles.wrappedIds); });
    case Target::typed:
        return keep(use, from, count, rowBytes);
    case Target::element:
        return convertColumn<std::uint8_t>(
            column.stored, from, rowBytes, count, &particles.elements[converted], 1,
            [](auto number) { return elementOf(static_cast<double>(number)); });
    }
}

/// Appends a column's values as they are, but for a diameter's, which become radii.
void RowConverter::keep(ColumnUse const& use, char const* from, std::size_t count,
                        std::size_t rowBytes) {
    std::vector<char>& bytes = particles.typed[use.part].bytes;
    withType(columns[use.column].stored, [&]<class Number>(Number value) {
        std::size_t at = bytes.size();
        bytes.resize(at + count * sizeof value);
        for (std::size_t row = 0; row < count; ++row) {
            std::memcpy(&value, from + row * rowBytes, sizeof value);
            if constexpr (std::is_same_v<Number, double>)
                value *= static_cast<double>(use.factor);
            std::memcpy(bytes.data() + at, &value, sizeof value);
            at += sizeof value;
        }
    });
}

void RowConverter::summarise(std::size_t column, char const* rows, std::size_t count,
                             std::size_t rowBytes) {
    AttributeSummary& summary = particles.columns[column];
    if (summary.names != nullptr)
        return countNames(column, rows, count, rowBytes);
    char const* at = rows + columns[column].offset;
    withType(columns[column].stored, [&]<class Number>(Number) {
        for (std::size_t row = 0; row < count; ++row, at += rowBytes) {
            Number number;
            std::memcpy(&number, at, sizeof number);
            double const value = static_cast<double>(number);
            if (!std::isfinite(value)) {
                ++summary.notFinite;
                continue;
            }
            bool const isFirst = finiteCount[column]++ == 0;
            summary.min = isFirst ? value : std::min(summary.min, value);
            summary.max = isFirst ? value : std::max(summary.max, value);
        }
    });
}

void RowConverter::countNames(std::size_t column, char const* rows, std::size_t count,
                              std::size_t rowBytes) {
    AttributeSummary& summary = particles.columns[column];
    summary.counts.resize(summary.names->all().size());
    char const* at = rows + columns[column].offset;
    withType(columns[column].stored, [&]<class Number>(Number number) {
        for (std::size_t row = 0; row < count; ++row, at += rowBytes) {
            std::memcpy(&number, at, sizeof number);
            ++summary.counts[entryOf(number, *summary.names)];
        }
    });
}

void readRows(InputFile& file, std::uint64_t count, std::size_t rowBytes, bool swapBytes,
              RowConverter& converter, std::function<bool(char* row)> const& fill) {
    constexpr std::uint64_t rowsAtOnce = 256;
    std::vector<char> rows(static_cast<std::size_t>(rowsAtOnce) * rowBytes);
    while (file.particles < count) {
        std::size_t kept = 0;
        for (std::uint64_t left = std::min(rowsAtOnce, count - file.particles); left > 0; --left) {
            kept += fill(rows.data() + kept * rowBytes) ? 1 : 0;
            ++file.particles;
        }
        converter.append(rows.data(), kept, rowBytes, swapBytes);
    }
}

std::size_t plausibleRows(InputFile const& file, std::uint64_t promised, std::size_t rowBytes) {
    constexpr std::uint64_t usualCompression = 4;
    std::uint64_t const bytes = file.bytesLeft().value_or(usualCompression * file.sizeOnDisk());
    std::size_t const most = static_cast<std::size_t>(bytes / std::max<std::size_t>(1, rowBytes));
    return static_cast<std::size_t>(std::min<std::uint64_t>(promised, most));
}

} // namespace pipeline
