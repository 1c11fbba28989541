// Writes each column with the type that loses none of its digits, binary or as text.
#include "pipeline/files/plywriter.h"

#include "pipeline/files/formats/plyheader.h"
#include "pipeline/files/outputfile.h"
#include "pipeline/files/srgb.h"
#include "pipeline/files/textvalues.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <functional>
#include <iterator>
#include <set>
#include <utility>

namespace pipeline {

namespace {

constexpr std::size_t pollEvery = 1024; // particles; as text they take a millisecond

/// Appends one value of a particle, binary or as text.
using Append = std::function<void(std::string& bytes, std::size_t particle)>;

struct OutputColumn {
    std::string type;
    std::string name;
    Append append;
};

template <class Number> void appendNumber(std::string& bytes, Number number, bool ascii) {
    if (ascii) {
        fmt::format_to(std::back_inserter(bytes), "{} ", number); // shortest that reads back alike
        return;
    }
    char raw[sizeof number];
    std::memcpy(raw, &number, sizeof number);
    if constexpr (std::endian::native == std::endian::big)
        std::reverse(std::begin(raw), std::end(raw));
    bytes.append(raw, sizeof raw);
}

/// The 8-bit sRGB code that stands for exactly this linear value, or -1.
int exactCode(float linear) {
    auto const& table = linearOfCode();
    auto const found = std::lower_bound(table.begin(), table.end(), linear);
    return found != table.end() && *found == linear ? static_cast<int>(found - table.begin()) : -1;
}

bool isExactInBytes(std::vector<Kelpa::Vector> const& colors, PhaseProgress const& progress) {
    for (std::size_t i = 0; i < colors.size(); ++i) {
        if (progress && i % pollEvery == 0)
            progress(0.0, 0);
        Kelpa::Vector const& color = colors[i];
        if (exactCode(color.x) < 0 || exactCode(color.y) < 0 || exactCode(color.z) < 0)
            return false;
    }
    return true;
}

/// A name as a PLY header can hold it: without blanks.
std::string headerName(std::string name) {
    std::replace_if(
        name.begin(), name.end(), [](char c) { return c <= ' ' || c > '~'; }, '_');
    return name.empty() ? "_" : name;
}

/// What PLY calls a type.
char const* plyType(ScalarType type) {
    constexpr char const* names[] = {"char", "uchar", "short",  "ushort", "int",
                                     "uint", "int64", "uint64", "float",  "double"};
    return names[static_cast<int>(type)];
}

/// Whether a number is the nearest to a decimal of up to 6 digits, 12 of them behind the point at
/// most. Each such decimal has a single-precision number of its own, whose shortest text it is.
bool hasFewDigits(double value) {
    constexpr double powers[] = {1e0, 1e1, 1e2, 1e3,  1e4,  1e5, 1e6,
                                 1e7, 1e8, 1e9, 1e10, 1e11, 1e12};
    double const size = std::abs(value);
    for (double const power : powers) {
        double const digits = std::rint(size * power);
        if (!(digits <= 999999.0))
            return false;
        if (digits / power == size) // exact numbers, rounded once: what the decimal is read as
            return true;
    }
    return false;
}

/// Whether a single-precision number has all digits of the text that a number was parsed from.
bool isToldByFloat(double value) {
    auto const single = static_cast<float>(value);
    if (static_cast<double>(single) == value || std::isnan(value) || hasFewDigits(value))
        return true;
    double reread = 0.0;
    parseNumber(fmt::format("{}", single), reread);
    return reread == value;
}

template <class Number> Number valueAt(TypedColumn const& column, std::size_t particle) {
    Number value;
    std::memcpy(&value, column.bytes.data() + particle * sizeof value, sizeof value);
    return value;
}

/// Lists the columns that a set has.
class ColumnList {
  public:
    ColumnList(ParticleSet const& set, bool asText, PhaseProgress const& phase)
        : particles(set), progress(phase), ascii(asText) {
        addVectors({"x", "y", "z"}, particles.positions);
        if (!particles.radii.empty() && !addKept("radius"))
            addNumbers("float", "radius", particles.radii);
        if (!particles.colors.empty())
            addColors(particles.colors, isExactInBytes(particles.colors, progress));
        if (!particles.velocities.empty())
            addVectors({"vx", "vy", "vz"}, particles.velocities);
        if (!particles.ids.empty() && !addKept("id"))
            addWholeNumbers("id", [&ids = particles.ids](std::size_t i) { return ids[i]; });
        if (!particles.types.empty())
            addTypes();
        if (!particles.elements.empty())
            addNumbers("uchar", "element", particles.elements);
        for (Attribute const& attribute : particles.attributes)
            if (std::string const name = headerName(attribute.name); !has(name))
                addAttribute(name, attribute); // else such as `z` kept for colouring
        for (TypedColumn const& column : particles.typed)
            if (!has(headerName(column.name)))
                addTyped(column);
    }

    std::vector<OutputColumn> columns;
    /// What the values of columns of names count, for the header.
    std::vector<std::pair<std::string, NameTable const*>> nameTables;

  private:
    bool has(std::string const& name) const {
        return std::any_of(columns.begin(), columns.end(),
                           [&](OutputColumn const& column) { return column.name == name; });
    }

    template <class Get> void add(std::string type, std::string name, Get get) {
        columns.push_back({std::move(type), std::move(name),
                           [get, text = ascii](std::string& bytes, std::size_t particle) {
                               appendNumber(bytes, get(particle), text);
                           }});
    }

    void addTypes() {
        addWholeNumbers("type", [&types = particles.types](std::size_t i) { return types[i]; });
        if (particles.typeNames != nullptr)
            nameTables.emplace_back("type", particles.typeNames.get());
    }

    template <class Number>
    void addNumbers(std::string type, std::string name, std::vector<Number> const& values) {
        add(std::move(type), std::move(name), [&values](std::size_t i) { return values[i]; });
    }

    /// Each axis as it is kept in its own type, if it is.
    void addVectors(std::array<char const*, 3> names, std::vector<Kelpa::Vector> const& values) {
        for (int axis = 0; axis < 3; ++axis)
            if (char const* const name = names[static_cast<std::size_t>(axis)]; !addKept(name))
                add("float", name, [&values, axis](std::size_t i) { return values[i][axis]; });
    }

    /// Colours that came from bytes go back to the same bytes; others stay linear numbers, so that
    /// nothing is lost.
    void addColors(std::vector<Kelpa::Vector> const& colors, bool areBytes) {
        constexpr std::array<char const*, 3> names = {"red", "green", "blue"};
        if (!areBytes)
            return addVectors(names, colors);
        for (int axis = 0; axis < 3; ++axis)
            add("uchar", names[static_cast<std::size_t>(axis)], [&colors, axis](std::size_t i) {
                return static_cast<std::uint8_t>(exactCode(colors[i][axis]));
            });
    }

    void addAttribute(std::string const& name, Attribute const& attribute) {
        if (attribute.names != nullptr)
            nameTables.emplace_back(name, attribute.names.get());
        addNumbers("float", name, attribute.values);
    }

    /// Adds a column that is kept in its own type; false when there is none of this name.
    bool addKept(std::string_view name) {
        for (TypedColumn const& column : particles.typed)
            if (column.name == name) {
                addTyped(column);
                return true;
            }
        return false;
    }

    void addTyped(TypedColumn const& column) {
        std::string const name = headerName(column.name);
        if (column.names != nullptr)
            nameTables.emplace_back(name, column.names.get());
        if (column.type == ScalarType::int64)
            return addWholeNumbers(
                name, [&column](std::size_t i) { return valueAt<std::int64_t>(column, i); });
        if (column.type == ScalarType::float64 && column.isText && isToldByFloats(column))
            return add("float", name, [&column](std::size_t i) {
                return static_cast<float>(valueAt<double>(column, i));
            });
        withType(column.type, [&]<class Number>(Number) {
            add(plyType(column.type), name,
                [&column](std::size_t i) { return valueAt<Number>(column, i); });
        });
    }

    bool isToldByFloats(TypedColumn const& column) const {
        for (std::size_t i = 0; i < particles.positions.size(); ++i) {
            poll(i);
            if (!isToldByFloat(valueAt<double>(column, i)))
                return false;
        }
        return true;
    }

    /// The type that most readers know and that loses nothing: 64-bit types are no part of PLY as
    /// it was published.
    template <class Get> void addWholeNumbers(std::string name, Get get) {
        std::int64_t low = 0;
        std::int64_t high = 0;
        for (std::size_t i = 0; i < particles.positions.size(); ++i) {
            poll(i);
            low = std::min<std::int64_t>(low, get(i));
            high = std::max<std::int64_t>(high, get(i));
        }
        auto const fits = [&]<class Whole>(Whole) {
            return std::in_range<Whole>(low) && std::in_range<Whole>(high);
        };
        constexpr std::int64_t exactInDouble = std::int64_t{1} << 53;
        if (fits(std::int32_t{}))
            add("int", std::move(name),
                [get](std::size_t i) { return static_cast<std::int32_t>(get(i)); });
        else if (fits(std::uint32_t{}))
            add("uint", std::move(name),
                [get](std::size_t i) { return static_cast<std::uint32_t>(get(i)); });
        else if (low >= -exactInDouble && high <= exactInDouble)
            add("double", std::move(name),
                [get](std::size_t i) { return static_cast<double>(get(i)); });
        else
            add("int64", std::move(name), get);
    }

    void poll(std::size_t particle) const {
        if (progress && particle % pollEvery == 0)
            progress(0.0, 0);
    }

    ParticleSet const& particles;
    PhaseProgress const& progress;
    bool ascii;
};

/// The names of a column in comments, which readers of other makers pass over: short lines that say
/// "comment kelpa-names COLUMN" and the names in turn.
void appendNames(std::string& text, std::string const& column, NameTable const& names) {
    constexpr std::size_t longestLine = 240; // some readers hold no more
    std::string const start = fmt::format("comment {} {}", plyNamesMark, column);
    std::string line = start;
    std::set<std::string> written;
    for (std::string const& name : names.all()) {
        std::string word = headerName(name);
        while (!written.insert(word).second) // names that only differ in what a header cannot hold
            word += '_';
        if (line.size() > start.size() && line.size() + 1 + word.size() > longestLine) {
            text += line + "\n";
            line = start;
        }
        line += " " + word;
    }
    text += line + "\n";
}

std::string headerText(ColumnList const& list, std::size_t count, bool ascii) {
    std::string text = fmt::format("ply\nformat {} 1.0\ncomment particles, written by kelpa\n",
                                   ascii ? "ascii" : "binary_little_endian");
    for (auto const& [column, names] : list.nameTables)
        appendNames(text, column, *names);
    text += fmt::format("element vertex {}\n", count);
    for (OutputColumn const& column : list.columns)
        text += fmt::format("property {} {}\n", column.type, column.name);
    return text + "end_header\n";
}

} // namespace

void writePly(std::string const& path, ParticleSet const& particles, bool ascii,
              PhaseProgress const& progress) {
    constexpr std::size_t bytesAtOnce = 128 * 1024;
    ColumnList const list(particles, ascii, progress);
    std::size_t const count = particles.positions.size();

    std::size_t particle = 0;
    auto const report = [&] {
        if (progress)
            progress(static_cast<double>(particle) /
                         static_cast<double>(std::max<std::size_t>(count, 1)),
                     particle);
    };
    OutputFile file(path, report);
    std::string bytes = headerText(list, count, ascii);
    for (; particle < count; ++particle) {
        if (particle % pollEvery == 0)
            report();
        for (OutputColumn const& column : list.columns)
            column.append(bytes, particle);
        if (ascii)
            bytes.back() = '\n';
        if (bytes.size() >= bytesAtOnce) {
            file.write(bytes);
            bytes.clear();
        }
    }
    file.write(bytes);
    file.commit();
}

} // namespace pipeline
