// Names that columns have in the wild, in the order of preference.
#include "pipeline/files/columnuses.h"

#include "pipeline/files/elements.h"
#include "pipeline/files/inputfile.h"
#include "pipeline/files/printable.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <optional>
#include <utility>

namespace pipeline {

namespace {

struct RadiusName {
    std::string_view name;
    bool aloneOnly = false; ///< not if there are columns `g` or `b`: then it is a colour
    bool isDiameter = false;
};

constexpr RadiusName radiusNames[] = {
    {"radius"},
    {"pscale"},
    {"psz"},
    {.name = "r", .aloneOnly = true},
    {.name = "diameter", .isDiameter = true},
    {.name = "width", .isDiameter = true},
    {.name = "widths", .isDiameter = true},
};

/// Finds columns by name and collects what they are used for.
struct UseChooser {
    InputFile const& file;
    std::vector<Column> const& columns;
    ColumnNames const& names;
    std::vector<ColumnUse> uses{};

    std::size_t find(std::string_view name) const {
        auto const found = std::find_if(columns.begin(), columns.end(),
                                        [&](Column const& column) { return column.name == name; });
        return static_cast<std::size_t>(found - columns.begin());
    }
    bool has(std::string_view name) const { return find(name) < columns.size(); }

    /// The same for a column that has to be there.
    std::size_t require(std::string_view name) const {
        std::size_t const column = find(name);
        if (column < columns.size())
            return column;
        std::string present;
        for (Column const& other : columns)
            present += " " + other.name;
        file.fail("no {} {}; it has{}", names.word, quoted(name),
                  present.empty() ? " none" : present);
    }

    /// Keeps a column by the name that was asked for, or the length of the vector that has it.
    void keepAttribute(std::string const& name, bool withParts, ParticleSet& particles) {
        std::size_t const place = particles.attributes.size();
        auto const vector = has(name) ? std::nullopt : vectorNamed(name);
        particles.attributes.push_back({name, {}});
        // Whatever the file calls the column that tells elements, they are that.
        bool const isElement = name == "element" && !has(name) && has(names.element);
        if (isElement || !vector) {
            std::size_t const column = isElement ? find(names.element) : require(name);
            uses.push_back({column, Target::attribute, place});
            particles.attributes.back().names =
                isElement || name == names.element ? elementSymbols() : columns[column].names;
            return;
        }
        std::string& source = particles.attributes.back().source = "length of";
        for (std::string const& part : *vector) {
            uses.push_back({require(part), Target::length, place});
            source += " " + part;
        }
        for (std::size_t axis = 0; withParts && axis < 3; ++axis) {
            uses.push_back({require((*vector)[axis]), Target::attribute, place + 1 + axis});
            particles.attributes.push_back({(*vector)[axis], {}});
        }
    }

    /// The columns of a vector, as the programs of the field call them.
    std::optional<std::array<std::string, 3>> vectorNamed(std::string const& name) const {
        constexpr std::string_view endings[][3] = {
            {".1", ".2", ".3"}, {"[1]", "[2]", "[3]"}, {"_x", "_y", "_z"}, {".x", ".y", ".z"},
            {"x", "y", "z"},    {"_0", "_1", "_2"},    {"_1", "_2", "_3"}};
        constexpr std::pair<std::string_view, std::string_view> letters[] = {
            {"force", "f"},      {"forces", "f"},  {"velocity", "v"},
            {"velocities", "v"}, {"speed", "v"},   {"normal", "n"},
            {"normals", "n"},    {"dipole", "mu"}, {"dipoles", "mu"}};
        std::vector<std::string> stems = {name};
        for (auto const& [word, letter] : letters)
            if (word == name)
                stems.emplace_back(letter);
        for (std::string const& stem : stems)
            for (auto const& [first, second, third] : endings) {
                std::array<std::string, 3> parts = {stem + std::string(first),
                                                    stem + std::string(second),
                                                    stem + std::string(third)};
                if (has(parts[0]) && has(parts[1]) && has(parts[2]))
                    return parts;
            }
        return std::nullopt;
    }

    /// Uses the first of several vectors whose three columns are there; says which, if any.
    std::string chooseVector(Target target, std::span<VectorColumns const> choices) {
        for (VectorColumns const& choice : choices) {
            if (!has(choice.names[0]) || !has(choice.names[1]) || !has(choice.names[2]))
                continue;
            for (std::size_t axis = 0; axis < 3; ++axis)
                uses.push_back({find(choice.names[axis]), target, axis});
            return std::string(choice.source);
        }
        return {};
    }

    /// Keeps every column that the arrays of particles do not hold to the last digit.
    void keepAll(ParticleSet& particles) {
        std::vector<bool> isUsed(columns.size(), false);
        std::vector<std::string> taken;
        std::vector<ColumnUse> const chosen = uses;
        for (ColumnUse const& use : chosen) {
            isUsed[use.column] = isUsed[use.column] || use.target != Target::image;
            taken.push_back(nameOf(use));
            if (!fitsItsArray(use))
                keep(use.column, taken.back(), use.factor, particles);
        }
        for (std::size_t column = 0; column < columns.size(); ++column) {
            if (isUsed[column] || columns[column].isDerived)
                continue;
            std::string const& name = columns[column].name;
            if (std::find(taken.begin(), taken.end(), name) != taken.end())
                particles.leftOut.push_back("column " + quoted(name));
            else
                keep(column, name, 1.0F, particles);
        }
    }

    void keep(std::size_t column, std::string name, float factor, ParticleSet& particles) {
        uses.push_back({column, Target::typed, particles.typed.size(), factor});
        particles.typed.push_back({std::move(name),
                                   columns[column].stored,
                                   columns[column].isText,
                                   {},
                                   columns[column].names});
    }

    /// The name that a column's numbers go by when they are particles.
    static std::string nameOf(ColumnUse const& use) {
        constexpr std::string_view names[][3] = {
            {"x", "y", "z"}, {"red", "green", "blue"}, {"vx", "vy", "vz"}};
        switch (use.target) {
        case Target::position:
            return std::string(names[0][use.part]);
        case Target::color:
            return std::string(names[1][use.part]);
        case Target::velocity:
            return std::string(names[2][use.part]);
        case Target::radius:
            return "radius";
        case Target::id:
            return "id";
        default:
            return {};
        }
    }

    /// Whether the array that a column is read into holds all of its digits.
    bool fitsItsArray(ColumnUse const& use) const {
        ScalarType const type = columns[use.column].stored;
        switch (use.target) {
        case Target::color: // codes become light
            return !isFloating(columns[use.column].declared) || type == ScalarType::float32;
        case Target::position:
        case Target::velocity:
        case Target::radius:
            return type == ScalarType::float32 || scalarBytes(type) < 4;
        case Target::id:
            return type != ScalarType::uint64;
        default:
            return true;
        }
    }

    std::string useRadius(std::string_view name) {
        bool const halved = std::any_of(
            std::begin(radiusNames), std::end(radiusNames),
            [&](RadiusName const& radius) { return radius.isDiameter && radius.name == name; });
        uses.push_back({require(name), Target::radius, 0, halved ? 0.5F : 1.0F});
        return std::string(name) + (halved ? " / 2" : "");
    }

    std::string chooseRadius() {
        bool const rIsColor = has("g") || has("b");
        for (RadiusName const& radius : radiusNames)
            if (has(radius.name) && !(radius.aloneOnly && rIsColor))
                return useRadius(radius.name);
        return {};
    }
};

} // namespace

std::vector<std::string> namesUsed(ColumnNames const& names, ReadOptions const& options) {
    std::vector<std::string> used = options.attributes;
    for (std::span<VectorColumns const> const choices :
         {names.positions, names.colors, names.velocities, names.images})
        for (VectorColumns const& choice : choices)
            used.insert(used.end(), std::begin(choice.names), std::end(choice.names));
    for (RadiusName const& radius : radiusNames)
        used.emplace_back(radius.name);
    for (std::string_view const name :
         {std::string_view(options.radiusFrom), names.element, names.type, std::string_view("id")})
        used.emplace_back(name);
    return used;
}

std::vector<ColumnUse> chooseUses(InputFile const& file, std::vector<Column> const& columns,
                                  ColumnNames const& names, ReadOptions const& options,
                                  ParticleSet& particles) {
    UseChooser chooser{file, columns, names};
    if (chooser.chooseVector(Target::position, names.positions).empty())
        for (std::string_view const name : names.positions.back().names)
            chooser.require(name);
    particles.radiusSource =
        options.radiusFrom.empty() ? chooser.chooseRadius() : chooser.useRadius(options.radiusFrom);
    particles.colorSource = chooser.chooseVector(Target::color, names.colors);
    chooser.chooseVector(Target::velocity, names.velocities);
    chooser.chooseVector(Target::image, names.images);
    if (chooser.has("id"))
        chooser.uses.push_back({chooser.find("id"), Target::id});
    if (chooser.has(names.element))
        chooser.uses.push_back({chooser.find(names.element), Target::element});
    if (chooser.has(names.type))
        chooser.uses.push_back({chooser.find(names.type), Target::type});
    for (std::string const& name : options.attributes)
        chooser.keepAttribute(name, options.vectorParts, particles);
    if (options.allAttributes)
        chooser.keepAll(particles);
    return std::move(chooser.uses);
}

} // namespace pipeline
