// Reads mmCIF.
#include "pipeline/files/formats/molecules/assembly.h"
#include "pipeline/files/formats/molecules/crystal.h"
#include "pipeline/files/formats/molecules/gemmifile.h"
#include "pipeline/files/formats/molecules/molecule.h"
#include "pipeline/files/formats/readers.h"
#include "pipeline/files/formats/textrows.h"
#include "pipeline/files/textvalues.h"

#include <algorithm>
#include <map>

// CIF: of macromolecules (mmCIF) the models are frames, of alternate locations the first is read,
// and if asked for the whole biological assembly. Files of small molecules are crystals.

namespace pipeline {

namespace {

std::string readAll(InputFile& file) {
    std::string text;
    for (std::string_view bytes = file.peek(1); !bytes.empty(); bytes = file.peek(1)) {
        text += bytes;
        file.take(bytes.size());
    }
    return text;
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

    std::string text(std::size_t row, Tag tag) const { return table->text(row, tag); }
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

/// Takes the atoms of the frame that `options` ask for; returns how many models there are.
int takeAtoms(InputFile& file, AtomTable& table, ReadOptions const& options, Molecule& molecule) {
    std::vector<std::string> models;
    for (std::size_t row = 0; row < table.table->rows(); ++row)
        if (std::string name = table.text(row, AtomTable::model);
            models.empty() || (name != models.back() &&
                               std::find(models.begin(), models.end(), name) == models.end()))
            models.push_back(std::move(name));
    int const count = static_cast<int>(models.size());
    int const frame = options.frame + (options.frame < 0 ? count : 0);
    if (frame < 0 || frame >= count)
        throw NoSuchFrame(fmt::format("{}: no frame {}; it has {} (the first is 0, the last -1)",
                                      file.path(), options.frame, count));

    std::string const& wanted = models[static_cast<std::size_t>(frame)];
    ElementReader elements(molecule.unknownElements);
    AlternateFilter alternates;
    for (std::size_t row = 0; row < table.table->rows(); ++row) {
        if (table.text(row, AtomTable::model) != wanted)
            continue;
        std::string const chain = table.text(row, AtomTable::chain);
        std::string const residue = table.text(row, AtomTable::residue);
        std::string place = chain;
        place.append(1, ' ').append(residue).append(1, ' ');
        place += table.text(row, AtomTable::insertion);
        std::string const name = table.text(row, AtomTable::atom);
        std::string const residueName = table.text(row, AtomTable::residueName);
        if (!alternates.keeps(place, residueName, name,
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
        atom.chain = molecule.chains->numberOf(chain);
        atom.name = molecule.names->numberOf(name);
        atom.residueName = molecule.residueNames->numberOf(residueName);
        atom.element = elements.read(table.text(row, AtomTable::type));
        molecule.atoms.push_back(atom);
        ++file.particles;
    }
    return count;
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

/// The line behind which a file ends whose tables end with # elsewhere; 0: it ends with one too.
std::size_t lineOfCut(std::string_view text) {
    std::size_t const end = text.find_last_not_of(" \t\r\n");
    bool const endsTables = text.find("\n#\n") != std::string_view::npos ||
                            text.find("\n# \n") != std::string_view::npos ||
                            text.find("\n#\r\n") != std::string_view::npos;
    if (end == std::string_view::npos || !endsTables)
        return 0;
    std::size_t const lastLine = text.rfind('\n', end) + 1;
    if (text[lastLine] == '#')
        return 0;
    return static_cast<std::size_t>(
               std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(end), '\n')) +
           1;
}

ParticleSet readAtoms(InputFile& file, CifFile& cif, ReadOptions const& options) {
    if (!cif.hasBlock())
        file.fail("a CIF file starts with data_ and a name");
    AtomTable table(cif);
    if (table.table->rows() == 0)
        return readCrystal(file, cif, options);
    Molecule molecule;
    int const models = takeAtoms(file, table, options, molecule);
    molecule.cell = cellOf(cif, "_cell.");
    bool const isAssembly = !options.assembly.empty();
    if (isAssembly)
        molecule.assemblies = takeAssemblies(file, cif, options.assembly);
    ParticleSet particles = makeParticles(
        file, molecule, isAssembly ? AtomKind::assembly : AtomKind::molecule, options, "mmCIF");
    particles.frameCount = models;
    return particles;
}

} // namespace

ParticleSet readMmCif(InputFile& file, ReadOptions const& options) {
    std::string const text = readAll(file);
    try {
        CifFile cif(text);
        ParticleSet particles = readAtoms(file, cif, options);
        if (std::size_t const line = lineOfCut(text); line > 0 && particles.format == "mmCIF")
            particles.notes.push_back(fmt::format(
                "{}:{}: the file ends here, behind a row and without the # that ends its "
                "other tables; it may be incomplete",
                file.path(), line));
        return particles;
    } catch (CifError const& error) {
        std::string const place = error.line > 0 ? fmt::format(":{}", error.line) : "";
        throw InputError(fmt::format("{}{}: {}; the file is damaged or incomplete", file.path(),
                                     place, quoted(error.what())));
    }
}

} // namespace pipeline
