#include "pipeline/files/formats/gemmifile.h"

// The only file that includes gemmi, which takes its time to compile.
#include <gemmi/cif.hpp>
#include <gemmi/numb.hpp>
#include <gemmi/pdb.hpp>
#include <gemmi/symmetry.hpp>

namespace kelpatool {

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

gemmi::SpaceGroup const* groupOf(gemmi::cif::Block& block) {
    for (char const* const tag : {"_space_group_name_H-M_alt", "_symmetry_space_group_name_H-M"})
        if (std::string const* const name = block.find_value(tag))
            if (auto const* const group =
                    gemmi::find_spacegroup_by_name(gemmi::cif::as_string(*name)))
                return group;
    for (char const* const tag : {"_space_group_IT_number", "_symmetry_Int_Tables_number"})
        if (std::string const* const number = block.find_value(tag))
            if (auto const* const group =
                    gemmi::find_spacegroup_by_number(gemmi::cif::as_int(*number, 0)))
                return group;
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
    if (gemmi::SpaceGroup const* const group = groupOf(block))
        for (gemmi::Op const& op : group->operations())
            operations.push_back(operationOf(op));
    return operations;
}

std::unique_ptr<CifTable> CifFile::find(std::string const& category,
                                        std::vector<std::string> const& tags) {
    return std::make_unique<Table>(document->parsed.blocks[current].find(category, tags));
}

} // namespace kelpatool
