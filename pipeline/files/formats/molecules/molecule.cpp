// Models, residues and elements of atoms, and what is told of them.
#include "pipeline/files/formats/molecules/molecule.h"

#include "pipeline/files/columnuses.h"
#include "pipeline/files/elements.h"
#include "pipeline/files/textvalues.h"

#include <algorithm>
#include <cstddef>
#include <limits>

namespace pipeline {

namespace {

constexpr VectorColumns positionNames[] = {{"x y z", {"x", "y", "z"}}};
constexpr ColumnNames atomNames = {"column", positionNames, {}, {}, "element"};

/// Whether serial numbers tell the atoms apart; many programs start again after 99999.
bool areUnique(std::vector<AtomRow> const& atoms) {
    std::vector<std::int32_t> serials;
    for (AtomRow const& atom : atoms)
        serials.push_back(atom.serial);
    std::sort(serials.begin(), serials.end());
    return std::adjacent_find(serials.begin(), serials.end()) == serials.end();
}

std::vector<Column> columnsOf(Molecule const& molecule, AtomKind kind) {
    std::vector<Column> columns;
    auto const add = [&](char const* name, char const* typeName, ScalarType type,
                         std::size_t offset) {
        columns.push_back({name, typeName, type, type, offset});
    };
    auto const addNames = [&](char const* name, std::size_t offset,
                              std::shared_ptr<NameTable const> names) {
        add(name, "text", ScalarType::uint32, offset);
        columns.back().names = std::move(names);
    };
    add("x", "double", ScalarType::float64, offsetof(AtomRow, x));
    add("y", "double", ScalarType::float64, offsetof(AtomRow, y));
    add("z", "double", ScalarType::float64, offsetof(AtomRow, z));
    bool const isIdentity = kind == AtomKind::molecule && areUnique(molecule.atoms);
    add(kind == AtomKind::crystal ? "site"
        : isIdentity              ? "id"
                                  : "serial",
        "int", ScalarType::int32, offsetof(AtomRow, serial));
    add("element", "element", ScalarType::uint8, offsetof(AtomRow, element));
    columns.back().names = elementSymbols();
    addNames("name", offsetof(AtomRow, name), molecule.names);
    add("occupancy", "float", ScalarType::float32, offsetof(AtomRow, occupancy));
    if (kind == AtomKind::crystal) {
        add("operation", "int", ScalarType::int32, offsetof(AtomRow, copy));
        return columns;
    }
    add("b_factor", "float", ScalarType::float32, offsetof(AtomRow, bFactor));
    add("residue", "int", ScalarType::int32, offsetof(AtomRow, residue));
    addNames("residue_name", offsetof(AtomRow, residueName), molecule.residueNames);
    addNames("chain", offsetof(AtomRow, chain), molecule.chains);
    if (kind == AtomKind::assembly)
        add("copy", "int", ScalarType::int32, offsetof(AtomRow, copy));
    return columns;
}

/// The atoms of the chains that a part of an assembly is made of.
std::vector<AtomRow> atomsOf(Molecule const& molecule, ChainCopies const& part) {
    std::vector<char> isWanted;
    for (std::string const& name : molecule.chains->all()) {
        std::string const known = name.empty() ? "NULL" : name; // as PDB calls one without a name
        bool const isListed =
            std::find(part.chains.begin(), part.chains.end(), known) != part.chains.end();
        isWanted.push_back(isListed ? 1 : 0);
    }
    std::vector<AtomRow> atoms;
    for (AtomRow const& atom : molecule.atoms)
        if (isWanted[atom.chain] != 0)
            atoms.push_back(atom);
    return atoms;
}

void appendRows(std::vector<AtomRow> const& rows, RowConverter& converter) {
    converter.append(reinterpret_cast<char const*>(rows.data()), rows.size(), sizeof(AtomRow),
                     false);
}

/// Appends an assembly, in blocks that stay in the cache.
void appendAssembly(InputFile& file, Molecule const& molecule, Assembly const& assembly,
                    ReadOptions const& options, RowConverter& converter) {
    constexpr std::uint64_t mostAtoms = std::numeric_limits<std::int32_t>::max();
    constexpr std::size_t rowsAtOnce = 4096;
    std::vector<std::vector<AtomRow>> parts;
    std::uint64_t count = 0;
    for (ChainCopies const& part : assembly.parts) {
        parts.push_back(atomsOf(molecule, part));
        count += std::uint64_t{parts.back().size()} * part.placements.size();
    }
    if (count == 0 || count > mostAtoms)
        file.fail("assembly {} has {} atoms; 1 to {} can be read", quoted(assembly.name), count,
                  mostAtoms);
    converter.reserve(static_cast<std::size_t>(count));

    std::vector<AtomRow> rows;
    std::uint64_t built = 0;
    auto const flush = [&] {
        appendRows(rows, converter);
        built += rows.size();
        rows.clear();
        if (options.progress)
            options.progress(static_cast<double>(built) / static_cast<double>(count), built);
    };
    std::int32_t copy = 0;
    for (std::size_t part = 0; part < parts.size(); ++part)
        for (Placement const& placement : assembly.parts[part].placements) {
            ++copy;
            for (AtomRow const& atom : parts[part]) {
                auto const [x, y, z] = placement.place({atom.x, atom.y, atom.z});
                rows.push_back(atom);
                rows.back().x = x;
                rows.back().y = y;
                rows.back().z = z;
                rows.back().copy = copy;
                if (rows.size() == rowsAtOnce)
                    flush();
            }
        }
    flush();
}

} // namespace

ParticleSet makeParticles(InputFile& file, Molecule& molecule, AtomKind kind,
                          ReadOptions const& options, std::string_view format) {
    ParticleSet particles;
    particles.format = format;
    particles.cell = molecule.cell;
    particles.unknownElements = std::move(molecule.unknownElements);
    std::vector<Column> const columns = columnsOf(molecule, kind);
    RowConverter converter(particles, columns,
                           chooseUses(file, columns, atomNames, options, particles),
                           options.summarise);
    if (kind == AtomKind::assembly)
        appendAssembly(file, molecule, findAssembly(file, molecule.assemblies, options.assembly),
                       options, converter);
    else
        appendRows(molecule.atoms, converter);
    return particles;
}

} // namespace pipeline
