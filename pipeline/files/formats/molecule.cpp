#include "pipeline/files/columnuses.h"
#include "pipeline/files/formats/assembly.h"
#include "pipeline/files/formats/frames.h"
#include "pipeline/files/formats/gemmifile.h"
#include "pipeline/files/formats/readers.h"
#include "pipeline/files/formats/textrows.h"
#include "pipeline/files/inputfile.h"
#include "pipeline/files/textvalues.h"

#include <algorithm>
#include <cstddef>
#include <limits>
#include <map>
#include <set>

// PDB and mmCIF: the atoms of the first model, of alternate locations the first, and if asked for
// the whole biological assembly. Gemmi parses; what stands in the files is checked here, because
// gemmi takes damaged numbers for zeros, and PDB assemblies are read here, because it wants them in
// columns that real files of large viruses leave.

namespace kelpatool {

namespace {

/// An atom as `RowConverter` sees it.
struct AtomRow {
    double x = 0.0, y = 0.0, z = 0.0;
    std::int32_t serial = 0;
    float occupancy = 1.0F;
    float bFactor = 0.0F;
    std::int32_t residue = 0;
    std::int32_t chain = 0; ///< counted from 0 in the order of the file
    std::int32_t copy = 0;  ///< of the assembly
    std::uint8_t element = 0;
};

constexpr VectorColumns positionNames[] = {{"x y z", {"x", "y", "z"}}};
constexpr ColumnNames atomNames = {"column", positionNames, {}, {}, "element"};

/// The atoms of a file's first model.
struct Molecule {
    std::vector<AtomRow> atoms;
    std::vector<std::string> chains; ///< names, by `AtomRow::chain`
    std::vector<std::string> unknownElements;
    std::size_t models = 1;
    bool unended = false; ///< a headed PDB file without END
    std::vector<Assembly> assemblies;
};

/// Tells which of an atom's alternate locations is the first.
class AlternateFilter {
  public:
    /// Whether an atom is to be kept. `place` names chain and number of its residue; the atoms of a
    /// place come one after the other. Without an alternate location every atom is.
    bool keeps(std::string const& place, std::string const& residue, std::string const& atom,
               bool isAlternate) {
        if (place != currentPlace) {
            currentPlace = place;
            firstResidue = residue; // a place may even hold one residue or another
            seen.clear();
        }
        return !isAlternate || (residue == firstResidue && seen.insert(atom).second);
    }

  private:
    std::string currentPlace;
    std::string firstResidue;
    std::set<std::string> seen;
};

std::int32_t indexOfChain(Molecule& molecule, std::map<std::string, std::int32_t>& indices,
                          std::string const& name) {
    auto const [entry, isNew] =
        indices.emplace(name, static_cast<std::int32_t>(molecule.chains.size()));
    if (isNew)
        molecule.chains.push_back(name);
    return entry->second;
}

// PDB -----------------------------------------------------------------------------------------

bool isAtomRecord(std::string_view line) {
    return line.starts_with("ATOM  ") || line.starts_with("HETATM");
}

/// Refuses an atom's record whose coordinates, in columns 31 to 54, are no numbers.
void checkAtomRecord(InputFile const& file, std::string_view line) {
    constexpr std::size_t coordinatesBegin = 30;
    constexpr std::size_t fieldWidth = 8;
    constexpr std::size_t coordinatesEnd = coordinatesBegin + 3 * fieldWidth;
    if (line.size() < coordinatesEnd)
        file.failHere("the record of an atom ends in column {}, before its coordinates do in {}; "
                      "the file is incomplete",
                      line.size(), coordinatesEnd);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        std::string_view field = line.substr(coordinatesBegin + axis * fieldWidth, fieldWidth);
        std::string_view const word = nextWord(field);
        double number = 0.0;
        if (!parseNumber(word, number) || !nextWord(field).empty() ||
            word.find_first_not_of("0123456789.+-") != std::string_view::npos)
            file.failHere("{} where the coordinate {} of an atom belongs, in columns {} to {}",
                          quoted(word), "xyz"[axis], coordinatesBegin + axis * fieldWidth + 1,
                          coordinatesBegin + (axis + 1) * fieldWidth);
    }
}

void appendRecord(std::string& records, std::string_view line) {
    constexpr std::size_t recordColumns = 80;
    for (char const c : line.substr(0, recordColumns))
        records += c >= ' ' && c <= '~' ? c : '?';
    records += '\n';
}

/// The records of the first model that gemmi is to see. Models are parted by MODEL, ENDMDL or END,
/// as different programs write them.
std::string gatherRecords(InputFile& file, ReadOptions const& options, Molecule& molecule) {
    std::string records;
    AssemblyRemarks remarks;
    bool hasModelRecord = false;
    bool isInModel = false; // atoms of the current one have been seen
    bool isEnded = true;
    bool wasHeaded = false;
    molecule.models = 0;
    while (std::optional<std::string_view> const line = file.nextLine()) {
        wasHeaded = wasHeaded || line->starts_with("HEADER");
        if (isAtomRecord(*line)) {
            molecule.models += isInModel ? 0 : 1;
            isInModel = true;
            isEnded = false;
            if (molecule.models == 1) {
                checkAtomRecord(file, *line);
                appendRecord(records, *line);
                ++file.particles;
            }
        } else if (line->starts_with("TER") && isInModel && molecule.models == 1) {
            appendRecord(records, *line);
        } else if (line->starts_with("MODEL ") || line->starts_with("END")) {
            hasModelRecord = hasModelRecord || line->starts_with("MODEL ");
            isInModel = false;
            isEnded = true;
        } else if (!options.assembly.empty()) {
            remarks.read(file, *line);
        }
    }
    if (molecule.models == 0)
        file.fail("no ATOM or HETATM record");
    if (molecule.models == 1 && hasModelRecord && !isEnded)
        file.fail("the first model ends after {} atoms without an ENDMDL record; the file is "
                  "incomplete",
                  file.particles);
    molecule.assemblies = remarks.finish(file);
    if (wasHeaded && !isEnded)
        molecule.unended = true;
    return records;
}

/// Keeps the atoms that gemmi finds in the records.
void takeAtoms(std::string const& records, Molecule& molecule) {
    ElementReader elements(molecule.unknownElements);
    AlternateFilter alternates;
    std::map<std::string, std::int32_t> chainIndices;
    forEachPdbAtom(records, [&](PdbAtom const& atom) {
        if (!alternates.keeps(atom.place, atom.residue, atom.name, atom.isAlternate))
            return;
        molecule.atoms.push_back({.x = atom.x,
                                  .y = atom.y,
                                  .z = atom.z,
                                  .serial = atom.serial,
                                  .occupancy = atom.occupancy,
                                  .bFactor = atom.bFactor,
                                  .residue = atom.residueNumber,
                                  .chain = indexOfChain(molecule, chainIndices, atom.chain),
                                  .element = atom.element});
        if (atom.element == 0)
            elements.keep(atom.name, 0);
    });
}

Molecule parsePdb(InputFile& file, ReadOptions const& options) {
    Molecule molecule;
    std::string const records = gatherRecords(file, options, molecule);
    try {
        takeAtoms(records, molecule);
    } catch (std::runtime_error const& error) {
        file.fail("the atoms cannot be read: {}", quoted(error.what()));
    }
    return molecule;
}

// mmCIF ---------------------------------------------------------------------------------------

std::string readAll(InputFile& file) {
    std::string text;
    for (std::string_view bytes = file.peek(1); !bytes.empty(); bytes = file.peek(1)) {
        text += bytes;
        file.take(bytes.size());
    }
    return text;
}

/// A number of mmCIF: with its uncertainty in brackets behind it, or not.
template <class Number> bool parseCifNumber(std::string const& value, Number& number) {
    return parseNumber(std::string_view(value).substr(0, value.find('(')), number);
}

/// The atoms' table. Columns that may be missing come last.
struct AtomTable {
    enum Tag {
        x,
        y,
        z,
        type,
        atom,
        alternate,
        chain,
        residueName,
        residue,
        insertion,
        serial,
        occupancy,
        bFactor,
        model
    };

    explicit AtomTable(CifFile& cif)
        : table(cif.find("_atom_site.",
                         {"Cartn_x", "Cartn_y", "Cartn_z", "?type_symbol", "?label_atom_id",
                          "?label_alt_id", "?label_asym_id", "?label_comp_id", "?auth_seq_id",
                          "?pdbx_PDB_ins_code", "?id", "?occupancy", "?B_iso_or_equiv",
                          "?pdbx_PDB_model_num"})) {}

    std::string text(std::size_t row, Tag tag) { return table->text(row, tag); }
    template <class Number> void number(std::size_t row, Tag tag, Number& value) {
        Number given{};
        if (parseCifNumber(text(row, tag), given))
            value = given;
    }

    std::unique_ptr<CifTable> table;
};

double coordinateOf(InputFile const& file, AtomTable& table, std::size_t row, AtomTable::Tag axis) {
    std::string const word = table.text(row, axis);
    double number = 0.0;
    if (!parseCifNumber(word, number))
        file.fail("row {} of _atom_site: {} where Cartn_{} belongs", row + 1, quoted(word),
                  "xyz"[axis]);
    return number;
}

void takeAtoms(InputFile& file, CifFile& cif, Molecule& molecule) {
    AtomTable table(cif);
    if (table.table->rows() == 0)
        file.fail("no atoms: there is no _atom_site.Cartn_x with _y and _z. Of CIF files those of "
                  "macromolecules (mmCIF) are read");
    ElementReader elements(molecule.unknownElements);
    AlternateFilter alternates;
    std::map<std::string, std::int32_t> chainIndices;
    std::set<std::string> models;
    std::string const firstModel = table.text(0, AtomTable::model);
    for (std::size_t row = 0; row < table.table->rows(); ++row) {
        std::string const model = table.text(row, AtomTable::model);
        if (model != firstModel) {
            models.insert(model);
            continue;
        }
        std::string const chain = table.text(row, AtomTable::chain);
        std::string const residue = table.text(row, AtomTable::residue);
        std::string const place =
            chain + ' ' + residue + ' ' + table.text(row, AtomTable::insertion);
        if (!alternates.keeps(place, table.text(row, AtomTable::residueName),
                              table.text(row, AtomTable::atom),
                              !table.text(row, AtomTable::alternate).empty()))
            continue;
        AtomRow atom;
        atom.x = coordinateOf(file, table, row, AtomTable::x);
        atom.y = coordinateOf(file, table, row, AtomTable::y);
        atom.z = coordinateOf(file, table, row, AtomTable::z);
        table.number(row, AtomTable::serial, atom.serial);
        table.number(row, AtomTable::occupancy, atom.occupancy);
        table.number(row, AtomTable::bFactor, atom.bFactor);
        table.number(row, AtomTable::residue, atom.residue);
        atom.chain = indexOfChain(molecule, chainIndices, chain);
        atom.element = elements.read(table.text(row, AtomTable::type));
        molecule.atoms.push_back(atom);
        ++file.particles;
    }
    molecule.models = models.size() + 1;
}

std::map<std::string, Placement, std::less<>> takeOperators(InputFile const& file, CifFile& cif) {
    std::map<std::string, Placement, std::less<>> operators;
    std::unique_ptr<CifTable> const table =
        cif.find("_pdbx_struct_oper_list.",
                 {"id", "matrix[1][1]", "matrix[1][2]", "matrix[1][3]", "vector[1]", "matrix[2][1]",
                  "matrix[2][2]", "matrix[2][3]", "vector[2]", "matrix[3][1]", "matrix[3][2]",
                  "matrix[3][3]", "vector[3]"});
    for (std::size_t row = 0; row < table->rows(); ++row) {
        Placement placement;
        std::string const name = table->text(row, 0);
        for (std::size_t i = 0; i < 12; ++i)
            if (!parseCifNumber(table->text(row, i + 1), placement.rows[i / 4][i % 4]))
                file.fail("operator {} of _pdbx_struct_oper_list: {} where a number belongs",
                          quoted(name), quoted(table->text(row, i + 1)));
        operators.insert_or_assign(name, placement);
    }
    return operators;
}

std::vector<std::string> splitAtCommas(std::string const& list) {
    std::vector<std::string> names;
    for (std::string_view rest = list; !rest.empty();) {
        std::string_view item = rest.substr(0, rest.find(','));
        rest.remove_prefix(std::min(rest.size(), item.size() + 1));
        names.emplace_back(nextWord(item));
    }
    return names;
}

/// The assembly that is wanted, and of the others the names.
std::vector<Assembly> takeAssemblies(InputFile const& file, CifFile& cif,
                                     std::string const& wanted) {
    auto const operators = takeOperators(file, cif);
    auto const find = [&](std::string_view name) {
        auto const found = operators.find(name);
        if (found == operators.end())
            file.fail("an assembly asks for operator {}, which is not in _pdbx_struct_oper_list",
                      quoted(name));
        return found->second;
    };
    std::vector<Assembly> assemblies;
    std::unique_ptr<CifTable> const table =
        cif.find("_pdbx_struct_assembly_gen.", {"assembly_id", "oper_expression", "asym_id_list"});
    for (std::size_t row = 0; row < table->rows(); ++row) {
        std::string const name = table->text(row, 0);
        if (assemblies.empty() || assemblies.back().name != name)
            assemblies.push_back({name, {}});
        if (name == wanted)
            assemblies.back().parts.push_back({splitAtCommas(table->text(row, 2)),
                                               parseOperators(file, table->text(row, 1), find)});
    }
    return assemblies;
}

Molecule parseMmCif(InputFile& file, ReadOptions const& options) {
    try {
        CifFile cif(readAll(file));
        if (!cif.hasBlock())
            file.fail("an mmCIF file starts with data_ and a name");
        Molecule molecule;
        takeAtoms(file, cif, molecule);
        if (!options.assembly.empty())
            molecule.assemblies = takeAssemblies(file, cif, options.assembly);
        return molecule;
    } catch (CifError const& error) {
        std::string const place = error.line > 0 ? fmt::format(":{}", error.line) : "";
        throw InputError(fmt::format("{}{}: {}; the file is damaged or incomplete", file.path(),
                                     place, quoted(error.what())));
    }
}

// From atoms to particles -----------------------------------------------------------------------

/// Whether serial numbers tell the atoms apart; many programs start again after 99999.
bool areUnique(std::vector<AtomRow> const& atoms) {
    std::vector<std::int32_t> serials;
    for (AtomRow const& atom : atoms)
        serials.push_back(atom.serial);
    std::sort(serials.begin(), serials.end());
    return std::adjacent_find(serials.begin(), serials.end()) == serials.end();
}

std::vector<Column> columnsOf(Molecule const& molecule, bool isAssembly) {
    auto const column = [](char const* name, ScalarType type, std::size_t offset) {
        char const* const typeName = type == ScalarType::float64   ? "double"
                                     : type == ScalarType::float32 ? "float"
                                     : type == ScalarType::uint8   ? "element"
                                                                   : "int";
        return Column{name, typeName, type, type, offset};
    };
    bool const isIdentity = !isAssembly && areUnique(molecule.atoms);
    std::vector<Column> columns = {
        column("x", ScalarType::float64, offsetof(AtomRow, x)),
        column("y", ScalarType::float64, offsetof(AtomRow, y)),
        column("z", ScalarType::float64, offsetof(AtomRow, z)),
        column(isIdentity ? "id" : "serial", ScalarType::int32, offsetof(AtomRow, serial)),
        column("element", ScalarType::uint8, offsetof(AtomRow, element)),
        column("occupancy", ScalarType::float32, offsetof(AtomRow, occupancy)),
        column("b_factor", ScalarType::float32, offsetof(AtomRow, bFactor)),
        column("residue", ScalarType::int32, offsetof(AtomRow, residue)),
        column("chain", ScalarType::int32, offsetof(AtomRow, chain))};
    if (isAssembly)
        columns.push_back(column("copy", ScalarType::int32, offsetof(AtomRow, copy)));
    return columns;
}

/// The atoms of the chains that a part of an assembly is made of.
std::vector<AtomRow> atomsOf(Molecule const& molecule, ChainCopies const& part) {
    std::vector<char> isWanted;
    for (std::string const& name : molecule.chains) {
        std::string const known = name.empty() ? "NULL" : name; // as PDB calls one without a name
        isWanted.push_back(std::find(part.chains.begin(), part.chains.end(), known) !=
                           part.chains.end());
    }
    std::vector<AtomRow> atoms;
    for (AtomRow const& atom : molecule.atoms)
        if (isWanted[static_cast<std::size_t>(atom.chain)] != 0)
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

ParticleSet makeParticles(InputFile& file, Molecule& molecule, ReadOptions const& options,
                          std::string_view format) {
    if (molecule.models == 1)
        requireOnlyFrame(file, options, "this file");
    else if (options.frame != 0)
        file.fail("no frame {}; of {} files the first model, 0, is read", options.frame, format);
    bool const isAssembly = !options.assembly.empty();
    ParticleSet particles;
    particles.format = format;
    particles.unknownElements = std::move(molecule.unknownElements);
    if (molecule.models > 1)
        particles.notes.push_back(
            fmt::format("{} holds {} models; the first is read", file.path(), molecule.models));
    std::vector<Column> const columns = columnsOf(molecule, isAssembly);
    RowConverter converter(particles, columns,
                           chooseUses(file, columns, atomNames, options, particles),
                           options.summarise);
    if (isAssembly)
        appendAssembly(file, molecule, findAssembly(file, molecule.assemblies, options.assembly),
                       options, converter);
    else
        appendRows(molecule.atoms, converter);
    return particles;
}

} // namespace

ParticleSet readPdb(InputFile& file, ReadOptions const& options) {
    Molecule molecule = parsePdb(file, options);
    ParticleSet particles = makeParticles(file, molecule, options, "PDB");
    if (molecule.unended)
        particles.notes.push_back(
            fmt::format("{} has no END record; it may be incomplete", file.path()));
    return particles;
}

ParticleSet readMmCif(InputFile& file, ReadOptions const& options) {
    Molecule molecule = parseMmCif(file, options);
    return makeParticles(file, molecule, options, "mmCIF");
}

} // namespace kelpatool
