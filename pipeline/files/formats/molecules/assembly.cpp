// Chooses an assembly and makes its copies.
#include "pipeline/files/formats/molecules/assembly.h"

#include "pipeline/files/textvalues.h"

#include <algorithm>
#include <cmath>

namespace pipeline {

namespace {

using FindPlacement = std::function<Placement(std::string_view name)>;

constexpr std::size_t mostPlacements = 100000; // the largest capsids known have some thousands

/// Cuts the part of a list before the next comma off its front.
std::string_view cutAtComma(std::string_view& list) {
    std::string_view item = list.substr(0, list.find(','));
    list.remove_prefix(std::min(list.size(), item.size() + 1));
    return nextWord(item);
}

/// Adds what one item, "7" or "1-60", of a list of operators stands for.
void addPlacements(InputFile const& file, std::string_view item, FindPlacement const& find,
                   std::vector<Placement>& placements) {
    std::uint32_t first = 0;
    std::uint32_t last = 0;
    std::size_t const dash = item.find('-');
    bool const isRange = dash != std::string_view::npos &&
                         parseNumber(item.substr(0, dash), first) &&
                         parseNumber(item.substr(dash + 1), last);
    if (item.empty() || (isRange && last < first))
        file.fail("{} where operators of an assembly belong, such as 7 or 1-60", quoted(item));
    if (!isRange)
        placements.push_back(find(item));
    for (std::uint64_t number = first; isRange && number <= last; ++number)
        placements.push_back(find(std::to_string(number)));
}

void refuseMany(InputFile const& file, std::size_t count) {
    if (count > mostPlacements)
        file.fail("an assembly of more than {} copies is not built", mostPlacements);
}

std::vector<Placement> parseList(InputFile const& file, std::string_view list,
                                 FindPlacement const& find) {
    std::vector<Placement> placements;
    do {
        addPlacements(file, cutAtComma(list), find, placements);
        refuseMany(file, placements.size());
    } while (!list.empty());
    return placements;
}

} // namespace

std::array<double, 3> Placement::place(std::array<double, 3> const& point) const {
    std::array<double, 3> placed{};
    for (std::size_t axis = 0; axis < 3; ++axis)
        placed[axis] = rows[axis][0] * point[0] + rows[axis][1] * point[1] +
                       rows[axis][2] * point[2] + rows[axis][3];
    return placed;
}

Placement Placement::after(Placement const& first) const {
    Placement both;
    for (std::size_t row = 0; row < 3; ++row)
        for (std::size_t column = 0; column < 4; ++column) {
            double sum = column == 3 ? rows[row][3] : 0.0;
            for (std::size_t i = 0; i < 3; ++i)
                sum += rows[row][i] * first.rows[i][column];
            both.rows[row][column] = sum;
        }
    return both;
}

Assembly const& findAssembly(InputFile const& file, std::vector<Assembly> const& assemblies,
                             std::string_view name) {
    std::string present;
    for (Assembly const& assembly : assemblies) {
        if (assembly.name == name && !assembly.parts.empty())
            return assembly;
        present += " " + assembly.name;
    }
    if (present.empty())
        file.fail({Hint::To::askNoAssembly}, "describes no assembly");
    file.fail("no assembly {}; it has{}", quoted(name), present);
}

void AssemblyRemarks::read(InputFile const& file, std::string_view line) {
    constexpr std::string_view remark = "REMARK 350";
    if (!line.starts_with(remark))
        return;
    std::string_view text = line.substr(remark.size());
    std::string_view rest = text;
    std::string_view const word = nextWord(rest);
    if (word == "BIOMOLECULE:" || word == "APPLY")
        expectWholeMatrix(file);
    if (word == "BIOMOLECULE:")
        assemblies.push_back({std::string(nextWord(rest)), {}});
    else if (word.starts_with("BIOMT"))
        readMatrixRow(file, text.substr(text.find("BIOMT") + 5));
    else if (std::size_t const colon = text.find("CHAINS:"); colon != std::string_view::npos) {
        if (assemblies.empty())
            assemblies.push_back({"1", {}}); // old files that know of one only do not number it
        if (word == "APPLY" || assemblies.back().parts.empty())
            assemblies.back().parts.emplace_back();
        readChains(text.substr(colon + 7));
    }
}

void AssemblyRemarks::readChains(std::string_view list) {
    while (!list.empty())
        if (std::string_view const chain = cutAtComma(list); !chain.empty())
            assemblies.back().parts.back().chains.emplace_back(chain);
}

/// A row is "1 999 -0.015211 -0.290738 0.956682 -171.60935": its axis, its matrix, its numbers.
/// They are told apart by blanks: where the number of a matrix needs a fourth digit, files differ
/// in the columns.
void AssemblyRemarks::readMatrixRow(InputFile const& file, std::string_view text) {
    std::string_view const axis = text.substr(0, 1);
    text.remove_prefix(axis.size());
    std::string_view const matrix = nextWord(text);
    std::array<double, 4> row{};
    for (double& value : row)
        if (std::string_view const word = nextWord(text);
            !parseNumber(word, value) || !std::isfinite(value))
            file.failHere("{} where a number of a BIOMT matrix belongs", quoted(word));
    if (axis != std::to_string(rowsRead + 1) || (rowsRead > 0 && matrix != number))
        file.failHere("row {} of BIOMT matrix {} where row {} of {} belongs", quoted(axis),
                      quoted(matrix), rowsRead + 1,
                      rowsRead > 0 ? quoted(number) : std::string("the next"));
    if (assemblies.empty() || assemblies.back().parts.empty())
        file.failHere("a BIOMT matrix before a line that tells the chains it is for");
    std::vector<Placement>& placements = assemblies.back().parts.back().placements;
    if (rowsRead == 0)
        placements.emplace_back();
    placements.back().rows[static_cast<std::size_t>(rowsRead)] = row;
    number = matrix;
    rowsRead = (rowsRead + 1) % 3;
}

void AssemblyRemarks::expectWholeMatrix(InputFile const& file) const {
    if (rowsRead != 0)
        file.fail("BIOMT matrix {} has {} of 3 rows", quoted(number), rowsRead);
}

std::vector<Assembly> AssemblyRemarks::finish(InputFile const& file) {
    expectWholeMatrix(file);
    return std::move(assemblies);
}

std::vector<Placement> parseOperators(InputFile const& file, std::string_view expression,
                                      FindPlacement const& find) {
    if (expression.find('(') == std::string_view::npos)
        return parseList(file, expression, find);
    std::vector<Placement> products(1);
    for (std::string_view rest = expression; !rest.empty();) {
        std::size_t const end = rest.find(')');
        if (rest.front() != '(' || end == std::string_view::npos)
            file.fail("{} where operators of an assembly belong, such as (1-60) or (P)(1-5)",
                      quoted(expression));
        std::vector<Placement> const list = parseList(file, rest.substr(1, end - 1), find);
        rest.remove_prefix(end + 1);
        refuseMany(file, products.size() * list.size());
        std::vector<Placement> longer;
        for (Placement const& product : products)
            for (Placement const& placement : list)
                longer.push_back(product.after(placement));
        products = std::move(longer);
    }
    return products;
}

} // namespace pipeline
