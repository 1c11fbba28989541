// The calls of gemmi: atoms of PDB files, tables of CIF, operations of space groups.
#include "pipeline/files/formats/molecules/gemmifile.h"

// The only file that includes gemmi, which takes its time to compile.
#include <gemmi/cif.hpp>
#include <gemmi/numb.hpp>
#include <gemmi/pdb.hpp>
#include <gemmi/symmetry.hpp>

namespace pipeline {

void forEachPdbAtom(std::string const& records, std::function<void(PdbAtom const&)> const& take) {
    gemmi::Structure const structure = gemmi::read_pdb_string(records, "");
    if (structure.models.empty())
        return;
    for (gemmi::Chain const& chain : structure.models.front().chains)
        for (gemmi::Residue const& residue : chain.residues) {
            std::string const place = chain.name + ' ' + residue.seqid.str();
            for (gemmi::Atom const& atom : residue.atoms)
                take({atom.pos.x, atom.pos.y, atom.pos.z, atom.serial, atom.occ, atom.b_iso,
                      residue.seqid.num.has_value() ? *residue.seqid.num : 0,
                      static_cast<std::uint8_t>(atom.element.atomic_number()), atom.altloc != '\0',
                      atom.name, residue.name, place, chain.name});
        }
}

struct CifFile::Document {
    gemmi::cif::Document parsed;
};

namespace {

class Table : public CifTable {
  public:
    explicit Table(gemmi::cif::Table found) : table(std::move(found)) {}

    std::size_t rows() const override { return table.ok() ? table.length() : 0; }
    std::string text(std::size_t row, std::size_t column) override {
        if (!table.has_column(static_cast<int>(column)))
            return {};
        return gemmi::cif::as_string(table[static_cast<int>(row)][column]);
    }

  private:
    gemmi::cif::Table table;
};

} // namespace

CifFile::CifFile(std::string const& text) try
    : document(new Document{gemmi::cif::read_memory(text.data(), text.size(), "")}) {
} catch (tao::pegtl::parse_error const& error) {
    throw CifError(std::string(error.message()), error.positions().front().line);
} catch (std::runtime_error const& error) {
    throw CifError(error.what(), 0);
}

CifFile::~CifFile() = default;

std::size_t CifFile::blocks() const {
    return document->parsed.blocks.size();
}

std::string CifFile::blockName() const {
    return document->parsed.blocks[current].name;
}

namespace {

CifOperation operationOf(gemmi::Op const& op) {
    CifOperation operation{};
    for (std::size_t row = 0; row < 3; ++row) {
        for (std::size_t column = 0; column < 3; ++column)
            operation[row][column] = static_cast<double>(op.rot[row][column]) / gemmi::Op::DEN;
        operation[row][3] = static_cast<double>(op.tran[row]) / gemmi::Op::DEN;
    }
    return operation;
}

std::vector<CifOperation> operationsOf(gemmi::GroupOps const& group) {
    std::vector<CifOperation> operations;
    for (gemmi::Op const& op : group)
        operations.push_back(operationOf(op));
    return operations;
}

/// The angles that tell the two settings apart that a group named R has.
struct CellAngles {
    explicit CellAngles(gemmi::cif::Block& block) {
        if (std::string const* const angle = block.find_value("_cell_angle_alpha"))
            alpha = gemmi::cif::as_number(*angle, 0.0);
        if (std::string const* const angle = block.find_value("_cell_angle_gamma"))
            gamma = gemmi::cif::as_number(*angle, 0.0);
    }
    /// The cell of a rhombohedron, where that of the hexagonal setting has 90 and 120 degrees.
    bool areRhombohedral() const { return gamma < 1.125 * alpha; }

    double alpha = 0.0, gamma = 0.0;
};

/// A group's name as gemmi knows it: others mark the setting by a last letter without a colon.
std::string withMarkedSetting(std::string name) {
    std::size_t const last = name.size() - 1;
    std::string const settings = "H:HR:RS:1Z:2"; // the letter, and what gemmi has for it
    std::size_t const mark =
        name.size() > 2 && name[last - 1] == ' ' ? settings.find(name[last]) : std::string::npos;
    return mark == std::string::npos || mark % 3 != 0
               ? name
               : name.substr(0, last - 1) + settings.substr(mark + 1, 2);
}

/// By Hall's symbol, which leaves no choice of setting and origin open.
std::vector<CifOperation> operationsByHall(gemmi::cif::Block& block, CellAngles const& angles) {
    for (char const* const tag : {"_space_group_name_Hall", "_symmetry_space_group_name_Hall"}) {
        std::string const* const value = block.find_value(tag);
        std::string const symbol = value != nullptr ? gemmi::cif::as_string(*value) : "";
        // R is the lattice of the hexagonal setting, and is written for the other by mistake.
        bool const isOther = angles.areRhombohedral() && symbol.find_first_of("Rr") < 2;
        try {
            if (!symbol.empty() && !isOther)
                return operationsOf(gemmi::symops_from_hall(symbol.c_str()));
        } catch (std::runtime_error const&) { // the group's name or number may tell
        }
    }
    return {};
}

gemmi::SpaceGroup const* groupOf(gemmi::cif::Block& block, CellAngles const& angles) {
    for (char const* const tag : {"_space_group_name_H-M_alt", "_symmetry_space_group_name_H-M"})
        if (std::string const* const name = block.find_value(tag))
            if (auto const* const group = gemmi::find_spacegroup_by_name(
                    withMarkedSetting(gemmi::cif::as_string(*name)), angles.alpha, angles.gamma))
                return group;
    for (char const* const tag : {"_space_group_IT_number", "_symmetry_Int_Tables_number"})
        if (std::string const* const number = block.find_value(tag))
            if (auto const* const group =
                    gemmi::find_spacegroup_by_number(gemmi::cif::as_int(*number, 0)))
                return gemmi::find_spacegroup_by_name(group->hm, angles.alpha, angles.gamma);
    return nullptr;
}

} // namespace

std::vector<CifOperation> CifFile::symmetry() {
    gemmi::cif::Block& block = document->parsed.blocks[current];
    std::vector<CifOperation> operations;
    for (char const* const tag :
         {"_space_group_symop_operation_xyz", "_symmetry_equiv_pos_as_xyz"}) {
        for (std::string const& value : block.find_values(tag))
            try {
                operations.push_back(
                    operationOf(gemmi::parse_triplet(gemmi::cif::as_string(value))));
            } catch (std::runtime_error const& error) {
                throw CifError(error.what(), 0);
            }
        if (!operations.empty())
            return operations;
    }
    CellAngles const angles(block);
    operations = operationsByHall(block, angles);
    if (operations.empty())
        if (gemmi::SpaceGroup const* const group = groupOf(block, angles))
            operations = operationsOf(group->operations());
    return operations;
}

std::unique_ptr<CifTable> CifFile::find(std::string const& category,
                                        std::vector<std::string> const& tags) {
    return std::make_unique<Table>(document->parsed.blocks[current].find(category, tags));
}

} // namespace pipeline
