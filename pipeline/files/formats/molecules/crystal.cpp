// Sites, symmetry and images of a crystal, until a cell is full.
#include "pipeline/files/formats/molecules/crystal.h"

#include "pipeline/files/elements.h"
#include "pipeline/files/formats/cellofangles.h"
#include "pipeline/files/formats/frames.h"
#include "pipeline/files/formats/textrows.h"

#include <algorithm>
#include <cmath>
#include <unordered_map>

namespace pipeline {

namespace {

using Fraction = std::array<double, 3>; // of a cell's three edges

/// An atom of the part of a cell from which symmetry makes the rest.
struct Site {
    Fraction place{};
    std::int32_t number = 0; ///< among those that have a place, from 1
    std::size_t row = 0;     ///< of the file's table
    float occupancy = 1.0F;
    std::uint8_t element = 0;
    std::uint32_t name = 0; ///< by its number in the molecule's table
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

/// Columns of the sites' table.
enum SiteColumn : std::size_t { xColumn, yColumn, zColumn, label, type, occupancy, flag };

/// What a site is called.
std::string nameOf(CifTable& table, std::size_t row) {
    std::string name = table.text(row, label);
    return name.empty() ? table.text(row, type) : name;
}

/// Sites that are no atoms.
struct LeftOut {
    std::size_t unplaced = 0; ///< without a place
    std::size_t dummies = 0;  ///< places that only help to describe others
};

/// The sites of a block.
std::vector<Site> takeSites(CifTable& table, Molecule& molecule, LeftOut& leftOut) {
    ElementReader elements(molecule.unknownElements);
    std::vector<Site> sites;
    for (std::size_t row = 0; row < table.rows(); ++row) {
        Site site;
        site.row = row;
        bool isPlaced = true;
        for (std::size_t axis = 0; axis < 3; ++axis)
            isPlaced = parseCifNumber(table.text(row, xColumn + axis), site.place[axis]) &&
                       std::isfinite(site.place[axis]) && isPlaced;
        bool const isDummy = table.text(row, flag) == "dum";
        leftOut.dummies += isDummy ? 1 : 0;
        leftOut.unplaced += isPlaced || isDummy ? 0 : 1;
        if (!isPlaced || isDummy)
            continue;
        site.number = static_cast<std::int32_t>(sites.size() + 1);
        if (float share = 1.0F;
            parseCifNumber(table.text(row, occupancy), share) && std::isfinite(share))
            site.occupancy = share;
        std::string const symbol = table.text(row, type);
        std::string const name = symbol.empty() ? table.text(row, label) : symbol;
        std::uint8_t const known = symbol.empty() ? 0 : atomicNumberOf(symbol);
        site.element = elements.keep(name, known != 0 ? known : elementOfLabel(name));
        site.name = molecule.names->numberOf(nameOf(table, row));
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

/// The places of a cell that atoms have, found by what is near.
class TakenPlaces {
  public:
    explicit TakenPlaces(PeriodicCell const& periodic) : cell(periodic) {
        auto const& [a, b, c] = cell.edges;
        measureEdge(0, b, c, a);
        measureEdge(1, c, a, b);
        measureEdge(2, a, b, c);
    }

    static constexpr std::size_t none = ~std::size_t{0};

    /// The atom that is at this place, but for how files round; `none` where it is free.
    std::size_t atomAt(Fraction const& place) const {
        std::array<std::int64_t, 3> first{};
        std::array<std::int64_t, 3> last{};
        for (std::size_t edge = 0; edge < 3; ++edge) {
            auto const bins = static_cast<double>(binCounts[edge]);
            first[edge] = static_cast<std::int64_t>(std::floor((place[edge] - reach[edge]) * bins));
            last[edge] = static_cast<std::int64_t>(std::floor((place[edge] + reach[edge]) * bins));
        }
        std::size_t found = none;
        for (std::int64_t i = first[0]; i <= last[0]; ++i)
            for (std::int64_t j = first[1]; j <= last[1]; ++j)
                for (std::int64_t k = first[2]; k <= last[2]; ++k) {
                    auto const [from, to] = atoms.equal_range(binOf({i, j, k}));
                    for (auto each = from; each != to; ++each)
                        if (areSame(place, each->second.first))
                            found = std::min(found, each->second.second);
                }
        return found;
    }
    void add(Fraction const& place, std::size_t atom) {
        std::array<std::int64_t, 3> bin{};
        for (std::size_t edge = 0; edge < 3; ++edge)
            bin[edge] =
                static_cast<std::int64_t>(place[edge] * static_cast<double>(binCounts[edge]));
        atoms.insert({binOf(bin), {place, atom}});
    }

  private:
    using Edge = std::array<double, 3>;
    static constexpr double rounding = 0.1; // Angstrom; no two atoms come so near

    /// What part of an edge places may part in that are the same, and its number of bins, each ten
    /// times as wide. The others span the face that the edge leaves.
    void measureEdge(std::size_t edge, Edge const& b, Edge const& c, Edge const& along) {
        Edge const face = {(b[1] * c[2]) - (b[2] * c[1]), (b[2] * c[0]) - (b[0] * c[2]),
                           (b[0] * c[1]) - (b[1] * c[0])};
        double const height =
            std::abs((face[0] * along[0]) + (face[1] * along[1]) + (face[2] * along[2])) /
            std::hypot(face[0], face[1], face[2]);
        constexpr double mostBins = 1 << 20;
        reach[edge] = height > 2 * rounding ? rounding / height : 0.5; // and for NaN
        binCounts[edge] = static_cast<std::int64_t>(std::clamp(0.1 / reach[edge], 1.0, mostBins));
    }
    std::uint64_t binOf(std::array<std::int64_t, 3> const& bin) const {
        std::uint64_t number = 0;
        for (std::size_t edge = 0; edge < 3; ++edge) {
            std::int64_t const count = binCounts[edge];
            number = (number * static_cast<std::uint64_t>(count)) +
                     static_cast<std::uint64_t>((bin[edge] % count + count) % count);
        }
        return number;
    }
    bool areSame(Fraction const& a, Fraction const& b) const {
        Fraction way{};
        for (std::size_t edge = 0; edge < 3; ++edge)
            way[edge] = a[edge] - b[edge] - std::round(a[edge] - b[edge]);
        auto const [x, y, z] = placeIn(cell, way);
        return (x * x) + (y * y) + (z * z) < rounding * rounding;
    }

    PeriodicCell const& cell;
    std::array<double, 3> reach{};
    std::array<std::int64_t, 3> binCounts{};
    std::unordered_multimap<std::uint64_t, std::pair<Fraction, std::size_t>> atoms;
};

/// Sites that get no atoms, since others have their places.
struct Overlaps {
    std::size_t images = 0;        ///< of others of the same element
    std::vector<std::size_t> rows; ///< of those with other elements
};

/// Appends the copies of a site by all operations; one where several put it to the same place, and
/// none where an atom of a site before is.
void appendCopies(Site const& site, std::vector<CifOperation> const& operations, Molecule& molecule,
                  TakenPlaces& taken, Overlaps& overlaps) {
    std::size_t const first = molecule.atoms.size();
    std::int32_t operation = 0;
    std::size_t other = TakenPlaces::none;
    for (CifOperation const& each : operations) {
        ++operation;
        Fraction const place = apply(each, site.place);
        if (std::size_t const there = taken.atomAt(place); there != TakenPlaces::none) {
            other = std::min(other, there);
            continue;
        }
        taken.add(place, molecule.atoms.size());
        auto const [x, y, z] = placeIn(*molecule.cell, place);
        molecule.atoms.push_back({.x = x,
                                  .y = y,
                                  .z = z,
                                  .serial = site.number,
                                  .occupancy = site.occupancy,
                                  .name = site.name,
                                  .copy = operation,
                                  .element = site.element});
    }
    if (molecule.atoms.size() > first)
        return;
    if (molecule.atoms[other].element == site.element)
        ++overlaps.images;
    else
        overlaps.rows.push_back(site.row);
}

/// Fills the cell of `molecule` with the copies of sites, one atom a place.
Overlaps fillCell(InputFile& file, std::vector<Site> sites,
                  std::vector<CifOperation> const& operations, Molecule& molecule) {
    // Of sites that share a place, the one that is there most often comes first.
    std::stable_sort(sites.begin(), sites.end(),
                     [](Site const& a, Site const& b) { return a.occupancy > b.occupancy; });
    TakenPlaces taken(*molecule.cell);
    Overlaps overlaps;
    for (Site const& site : sites) {
        appendCopies(site, operations, molecule, taken, overlaps);
        file.particles = molecule.atoms.size();
    }
    std::stable_sort(molecule.atoms.begin(), molecule.atoms.end(),
                     [](AtomRow const& a, AtomRow const& b) { return a.serial < b.serial; });
    return overlaps;
}

void noteOverlaps(InputFile const& file, CifTable& table, Overlaps const& overlaps,
                  std::vector<std::string>& notes) {
    if (overlaps.images > 0)
        notes.push_back(fmt::format("{}: {} sites are images of others by its symmetry, and are "
                                    "not shown twice",
                                    file.path(), overlaps.images));
    if (overlaps.rows.empty())
        return;
    std::string names; // the first few
    for (std::size_t i = 0; i < std::min<std::size_t>(overlaps.rows.size(), 5); ++i)
        names += (i > 0 ? ", " : "") + quoted(nameOf(table, overlaps.rows[i]));
    notes.push_back(fmt::format("{}: {} sites share their places with other elements, of which "
                                "those with the largest occupancy are shown; left out: {}{}",
                                file.path(), overlaps.rows.size(), names,
                                overlaps.rows.size() > 5 ? ", ..." : ""));
}

std::unique_ptr<CifTable> findSites(CifFile& cif) {
    return cif.find("_atom_site_", {"fract_x", "fract_y", "fract_z", "?label", "?type_symbol",
                                    "?occupancy", "?calc_flag"});
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
    LeftOut leftOut;
    std::vector<Site> const sites = takeSites(*table, molecule, leftOut);
    if (sites.empty())
        file.fail("none of its {} sites has a place", table->rows() - leftOut.dummies);
    CifOperation const stay = {{{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}}};
    noteOverlaps(
        file, *table,
        fillCell(file, sites, operations.empty() ? std::vector{stay} : operations, molecule),
        notes);
    if (leftOut.unplaced > 0)
        notes.push_back(fmt::format("{}: {} sites without a place are left out", file.path(),
                                    leftOut.unplaced));
    if (leftOut.dummies > 0)
        notes.push_back(fmt::format("{}: dummy sites, which are no atoms, are left out: {}",
                                    file.path(), leftOut.dummies));
    ParticleSet particles = makeParticles(file, molecule, AtomKind::crystal, options, "CIF");
    particles.notes.insert(particles.notes.end(), notes.begin(), notes.end());
    return particles;
}

} // namespace pipeline
