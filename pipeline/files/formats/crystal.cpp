#include "pipeline/files/formats/crystal.h"

#include "pipeline/files/elements.h"
#include "pipeline/files/formats/frames.h"
#include "pipeline/files/formats/textrows.h"

#include <algorithm>
#include <cmath>

namespace kelpatool {

namespace {

using Fraction = std::array<double, 3>; // of a cell's three edges

/// An atom of the part of a cell from which symmetry makes the rest.
struct Site {
    Fraction place{};
    float occupancy = 1.0F;
    std::uint8_t element = 0;
};

/// The element of a site by its name where its type is not told: "Fe1", "CL2", "O1W".
std::uint8_t elementOfLabel(std::string_view label) {
    auto const isSmall = [](char c) { return c >= 'a' && c <= 'z'; };
    std::uint8_t const one = atomicNumberOf(label.substr(0, 1));
    std::uint8_t const two = label.size() > 1 ? atomicNumberOf(label.substr(0, 2)) : 0;
    bool const isTwo = two != 0 && (one == 0 || isSmall(label[1]) || label.starts_with("CL") ||
                                    label.starts_with("BR"));
    return isTwo ? two : one;
}

/// The sites of a block; those without a place are counted in `unplaced`.
std::vector<Site> takeSites(CifTable& table, std::vector<std::string>& unknown,
                            std::size_t& unplaced) {
    enum { x, y, z, label, type, occupancy };
    ElementReader elements(unknown);
    std::vector<Site> sites;
    for (std::size_t row = 0; row < table.rows(); ++row) {
        Site site;
        bool isPlaced = true;
        for (std::size_t axis = 0; axis < 3; ++axis)
            isPlaced = parseCifNumber(table.text(row, x + axis), site.place[axis]) &&
                       std::isfinite(site.place[axis]) && isPlaced;
        unplaced += isPlaced ? 0 : 1;
        if (!isPlaced)
            continue;
        parseCifNumber(table.text(row, occupancy), site.occupancy);
        std::string const symbol = table.text(row, type);
        std::string const name = symbol.empty() ? table.text(row, label) : symbol;
        std::uint8_t const known = symbol.empty() ? 0 : atomicNumberOf(symbol);
        site.element = elements.keep(name, known != 0 ? known : elementOfLabel(name));
        sites.push_back(site);
    }
    return sites;
}

Fraction apply(CifOperation const& operation, Fraction const& place) {
    Fraction result{};
    for (std::size_t row = 0; row < 3; ++row) {
        result[row] = operation[row][3];
        for (std::size_t column = 0; column < 3; ++column)
            result[row] += operation[row][column] * place[column];
        result[row] -= std::floor(result[row]);
        if (!(result[row] < 1.0)) // what lay barely below 0
            result[row] = 0.0;
    }
    return result;
}

std::array<double, 3> placeIn(PeriodicCell const& cell, Fraction const& fraction) {
    std::array<double, 3> place{};
    for (std::size_t edge = 0; edge < 3; ++edge)
        for (std::size_t axis = 0; axis < 3; ++axis)
            place[axis] += fraction[edge] * cell.edges[edge][axis];
    return place;
}

/// Whether two places are one, but for how the file rounds them.
bool areSame(PeriodicCell const& cell, Fraction const& a, Fraction const& b) {
    constexpr double rounding = 0.1; // Angstrom; no two atoms come so near
    Fraction way{};
    for (std::size_t edge = 0; edge < 3; ++edge)
        way[edge] = a[edge] - b[edge] - std::round(a[edge] - b[edge]);
    std::array<double, 3> const step = placeIn(cell, way);
    return (step[0] * step[0]) + (step[1] * step[1]) + (step[2] * step[2]) < rounding * rounding;
}

/// Appends the copies of a site by all operations; one where several put it to the same place.
void appendCopies(Site const& site, std::int32_t number,
                  std::vector<CifOperation> const& operations, Molecule& molecule) {
    std::vector<Fraction> taken;
    std::int32_t operation = 0;
    for (CifOperation const& each : operations) {
        ++operation;
        Fraction const place = apply(each, site.place);
        if (std::any_of(taken.begin(), taken.end(), [&](Fraction const& other) {
                return areSame(*molecule.cell, place, other);
            }))
            continue;
        taken.push_back(place);
        auto const [x, y, z] = placeIn(*molecule.cell, place);
        molecule.atoms.push_back({.x = x,
                                  .y = y,
                                  .z = z,
                                  .serial = number,
                                  .occupancy = site.occupancy,
                                  .copy = operation,
                                  .element = site.element});
    }
}

std::unique_ptr<CifTable> findSites(CifFile& cif) {
    return cif.find("_atom_site_",
                    {"fract_x", "fract_y", "fract_z", "?label", "?type_symbol", "?occupancy"});
}

/// Turns to the first block with sites; a file may begin with one about a journal.
void turnToSites(InputFile const& file, CifFile& cif, std::vector<std::string>& notes) {
    std::size_t const none = cif.blocks();
    std::size_t first = none;
    std::size_t further = 0;
    for (std::size_t block = 0; block < cif.blocks(); ++block) {
        cif.turnTo(block);
        if (findSites(cif)->rows() == 0)
            continue;
        further += first != none ? 1 : 0;
        first = std::min(first, block);
    }
    if (first == none)
        file.fail(
            "no atoms: there is neither _atom_site.Cartn_x nor _atom_site_fract_x, with y and "
            "z");
    cif.turnTo(first);
    if (further > 0)
        notes.push_back(fmt::format("{} holds {} further structures; the first, {}, is read",
                                    file.path(), further, quoted(cif.blockName())));
}

} // namespace

std::optional<PeriodicCell> cellOf(CifFile& cif, std::string const& category) {
    std::unique_ptr<CifTable> const table = cif.find(
        category, {"length_a", "length_b", "length_c", "angle_alpha", "angle_beta", "angle_gamma"});
    std::array<double, 6> numbers{};
    for (std::size_t i = 0; i < numbers.size(); ++i)
        if (table->rows() == 0 || !parseCifNumber(table->text(0, i), numbers[i]))
            return std::nullopt;
    return cellOfAngles({numbers[0], numbers[1], numbers[2]}, {numbers[3], numbers[4], numbers[5]});
}

ParticleSet readCrystal(InputFile& file, CifFile& cif, ReadOptions const& options) {
    requireOnlyFrame(file, options, "a CIF file of a crystal");
    if (!options.assembly.empty())
        file.fail("a crystal has no assemblies; its cell is filled by its symmetry");
    std::vector<std::string> notes;
    turnToSites(file, cif, notes);
    Molecule molecule;
    molecule.cell = cellOf(cif, "_cell_");
    if (!molecule.cell)
        file.fail("places are fractions of a cell, and _cell_length_a and the like tell of none");
    std::vector<CifOperation> const operations = cif.symmetry();
    constexpr std::size_t mostOperations = 192; // of any group in space
    if (operations.size() > mostOperations)
        file.fail("{} operations of symmetry; no group has more than {}", operations.size(),
                  mostOperations);
    if (operations.empty())
        notes.push_back(
            fmt::format("{} tells of no symmetry; its sites are all that is shown", file.path()));

    std::unique_ptr<CifTable> const table = findSites(cif);
    std::size_t unplaced = 0;
    std::vector<Site> const sites = takeSites(*table, molecule.unknownElements, unplaced);
    if (sites.empty())
        file.fail("none of its {} sites has a place", unplaced);
    CifOperation const stay = {{{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}}};
    std::int32_t number = 0;
    for (Site const& site : sites) {
        appendCopies(site, ++number, operations.empty() ? std::vector{stay} : operations, molecule);
        file.particles = molecule.atoms.size();
    }
    if (unplaced > 0)
        notes.push_back(
            fmt::format("{}: {} sites without a place are left out", file.path(), unplaced));
    ParticleSet particles = makeParticles(file, molecule, AtomKind::crystal, options, "CIF");
    particles.notes.insert(particles.notes.end(), notes.begin(), notes.end());
    return particles;
}

} // namespace kelpatool
