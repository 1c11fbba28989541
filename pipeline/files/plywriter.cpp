#include "pipeline/files/plywriter.h"

#include "pipeline/files/outputfile.h"
#include "pipeline/files/srgb.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <functional>
#include <iterator>
#include <limits>

namespace kelpatool {

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

/// Lists the columns that a set has.
class ColumnList {
  public:
    ColumnList(ParticleSet const& particles, bool asText, PhaseProgress const& progress)
        : ascii(asText) {
        addVectors({"x", "y", "z"}, particles.positions);
        if (!particles.radii.empty())
            addNumbers("float", "radius", particles.radii);
        if (!particles.colors.empty())
            addColors(particles.colors, isExactInBytes(particles.colors, progress));
        if (!particles.velocities.empty())
            addVectors({"vx", "vy", "vz"}, particles.velocities);
        if (!particles.ids.empty())
            addWholeNumbers("id", particles.ids);
        if (!particles.types.empty())
            addWholeNumbers("type", particles.types);
        if (!particles.elements.empty())
            addNumbers("uchar", "element", particles.elements);
        for (Attribute const& attribute : particles.attributes) {
            std::string const name = headerName(attribute.name);
            bool const isTaken =
                std::any_of(columns.begin(), columns.end(),
                            [&](OutputColumn const& column) { return column.name == name; });
            if (!isTaken) // such as `z` kept for colouring
                addNumbers("float", name, attribute.values);
        }
    }

    std::vector<OutputColumn> columns;

  private:
    template <class Number>
    void addNumbers(std::string type, std::string name, std::vector<Number> const& values) {
        columns.push_back({std::move(type), std::move(name),
                           [&values, text = ascii](std::string& bytes, std::size_t particle) {
                               appendNumber(bytes, values[particle], text);
                           }});
    }

    void addVectors(std::array<std::string, 3> names, std::vector<Kelpa::Vector> const& values) {
        for (int axis = 0; axis < 3; ++axis)
            columns.push_back(
                {"float", names[static_cast<std::size_t>(axis)],
                 [&values, axis, text = ascii](std::string& bytes, std::size_t particle) {
                     appendNumber(bytes, values[particle][axis], text);
                 }});
    }

    /// Colours that came from bytes go back to the same bytes; others stay linear numbers, so that
    /// nothing is lost.
    void addColors(std::vector<Kelpa::Vector> const& colors, bool areBytes) {
        if (!areBytes)
            return addVectors({"red", "green", "blue"}, colors);
        char const* const names[] = {"red", "green", "blue"};
        for (int axis = 0; axis < 3; ++axis)
            columns.push_back(
                {"uchar", names[axis],
                 [&colors, axis, text = ascii](std::string& bytes, std::size_t particle) {
                     appendNumber(
                         bytes, static_cast<std::uint8_t>(exactCode(colors[particle][axis])), text);
                 }});
    }

    /// The type that most readers know and that loses nothing: 64-bit types are no part of PLY as
    /// it was published.
    void addWholeNumbers(char const* name, std::vector<std::int64_t> const& numbers) {
        auto const [least, most] = std::minmax_element(numbers.begin(), numbers.end());
        auto const fits = [low = *least, high = *most](std::int64_t from, std::int64_t to) {
            return low >= from && high <= to;
        };
        constexpr std::int64_t exactInDouble = std::int64_t{1} << 53;
        if (fits(std::numeric_limits<std::int32_t>::min(),
                 std::numeric_limits<std::int32_t>::max()))
            addNumbersAs<std::int32_t>("int", name, numbers);
        else if (fits(0, std::numeric_limits<std::uint32_t>::max()))
            addNumbersAs<std::uint32_t>("uint", name, numbers);
        else if (fits(-exactInDouble, exactInDouble))
            addNumbersAs<double>("double", name, numbers);
        else
            addNumbers("int64", name, numbers);
    }

    template <class Number>
    void addNumbersAs(std::string type, std::string name,
                      std::vector<std::int64_t> const& numbers) {
        columns.push_back({std::move(type), std::move(name),
                           [&numbers, text = ascii](std::string& bytes, std::size_t particle) {
                               appendNumber(bytes, static_cast<Number>(numbers[particle]), text);
                           }});
    }

    bool ascii;
};

std::string headerText(std::vector<OutputColumn> const& columns, std::size_t count, bool ascii) {
    std::string text = fmt::format("ply\nformat {} 1.0\ncomment particles, written by kelpa\n"
                                   "element vertex {}\n",
                                   ascii ? "ascii" : "binary_little_endian", count);
    for (OutputColumn const& column : columns)
        text += fmt::format("property {} {}\n", column.type, column.name);
    return text + "end_header\n";
}

} // namespace

void writePly(std::string const& path, ParticleSet const& particles, bool ascii,
              PhaseProgress const& progress) {
    constexpr std::size_t bytesAtOnce = 128 * 1024;
    std::vector<OutputColumn> const columns = ColumnList(particles, ascii, progress).columns;
    std::size_t const count = particles.positions.size();

    std::size_t particle = 0;
    auto const report = [&] {
        if (progress)
            progress(static_cast<double>(particle) /
                         static_cast<double>(std::max<std::size_t>(count, 1)),
                     particle);
    };
    OutputFile file(path, report);
    std::string bytes = headerText(columns, count, ascii);
    for (; particle < count; ++particle) {
        if (particle % pollEvery == 0)
            report();
        for (OutputColumn const& column : columns)
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

} // namespace kelpatool
