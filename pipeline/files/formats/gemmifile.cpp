#include "pipeline/files/formats/gemmifile.h"

// The only file that includes gemmi, which takes its time to compile.
#include <gemmi/cif.hpp>
#include <gemmi/pdb.hpp>

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

bool CifFile::hasBlock() const {
    return !document->parsed.blocks.empty();
}

std::unique_ptr<CifTable> CifFile::find(std::string const& category,
                                        std::vector<std::string> const& tags) {
    return std::make_unique<Table>(document->parsed.blocks.front().find(category, tags));
}

} // namespace kelpatool
