// The table of formats, and how a file's first bytes and name choose one.
#include "pipeline/files/formattable.h"

#include "pipeline/files/formats/readers.h"
#include "pipeline/files/textvalues.h"
#include "pipeline/files/unpacking.h"

#include <algorithm>
#include <iterator>
#include <vector>

namespace pipeline {

namespace {

template <char... magic> bool startsWith(std::string_view head) {
    constexpr char bytes[] = {magic...};
    return head.starts_with(std::string_view(bytes, sizeof bytes));
}

bool isPly(std::string_view head) {
    return startsWith<'p', 'l', 'y'>(head) && head.size() > 3 &&
           (head[3] == '\n' || head[3] == '\r');
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

/// XYZ starts with a line that holds one whole number and nothing else.
bool isXyz(std::string_view head) {
    std::string_view line = head.substr(0, head.find('\n'));
    std::string_view const count = nextWord(line);
    return line.size() < head.size() && !count.empty() && nextWord(line).empty() &&
           std::all_of(count.begin(), count.end(), isDigit);
}

/// GRO has a title, a line with a whole number, and rows in which a number ends in column 5 and
/// another in column 20, and decimal points follow at the same distance from each other.
bool isGro(std::string_view head) {
    auto const cutLine = [&head] {
        std::string_view const line = head.substr(0, head.find('\n'));
        head.remove_prefix(std::min(head.size(), line.size() + 1));
        return line;
    };
    cutLine();
    std::string_view count = cutLine();
    std::string_view const row = cutLine();
    std::uint64_t number = 0;
    if (!parseNumber(nextWord(count), number) || !nextWord(count).empty() || row.size() < 24)
        return false;
    std::size_t const first = row.find('.', 20);
    std::size_t const second = row.find('.', first + 1);
    bool const hasPoints = first != std::string_view::npos && second != std::string_view::npos &&
                           row.find('.', second + 1) == 2 * second - first;
    return hasPoints && isDigit(row[4]) && isDigit(row[19]);
}

/// A data file of LAMMPS has, behind a title, lines that end with "atoms" and with "xlo xhi".
bool isLammpsData(std::string_view head) {
    bool hasAtoms = false;
    bool hasBox = false;
    for (std::size_t begin = head.find('\n'); begin < head.size(); begin = head.find('\n', begin)) {
        ++begin;
        std::string_view line = head.substr(begin, head.find('\n', begin) - begin);
        double number = 0.0;
        if (!parseNumber(nextWord(line), number))
            continue;
        std::string_view const second = nextWord(line);
        hasAtoms = hasAtoms || second == "atoms";
        hasBox = hasBox || (parseNumber(second, number) && nextWord(line) == "xlo");
    }
    return hasAtoms && hasBox;
}

/// HDF5 may have something of others in front, as long as a power of two.
bool isHdf5(std::string_view head) {
    for (std::size_t begin = 0; begin < head.size(); begin = std::max<std::size_t>(512, 2 * begin))
        if (startsWith<'\x89', 'H', 'D', 'F', '\r', '\n', 0x1a, '\n'>(head.substr(begin)))
            return true;
    return false;
}

bool isNetcdf(std::string_view head) {
    return startsWith<'C', 'D', 'F', 1>(head) || startsWith<'C', 'D', 'F', 2>(head) ||
           startsWith<'C', 'D', 'F', 5>(head);
}

bool isXtc(std::string_view head) {
    return startsWith<0, 0, 7, '\xcb'>(head) || startsWith<0, 0, 7, '\xe7'>(head);
}

bool isPdb(std::string_view head) {
    constexpr std::string_view records[] = {"HEADER ", "ATOM  ",  "HETATM", "CRYST1",
                                            "REMARK ", "MODEL  ", "COMPND "};
    return std::any_of(std::begin(records), std::end(records),
                       [&](std::string_view record) { return head.starts_with(record); });
}

/// CIF starts with a block's name, behind comments and empty lines.
bool isMmCif(std::string_view head) {
    for (;;) {
        std::size_t const start = head.find_first_not_of(" \t\r\n");
        head.remove_prefix(std::min(head.size(), start));
        if (!head.starts_with('#'))
            return head.starts_with("data_");
        head.remove_prefix(std::min(head.size(), head.find('\n')));
    }
}

constexpr std::string_view newBgeo =
    "only classic BGEO (version 5) is read. Export as classic or PLY";

// In the order in which they are asked whether they recognise a file.
constexpr FileFormat formats[] = {
    {"ply", "PLY", ".ply", isPly, readPly},
    {"gro", "GRO", ".gro", isGro, makeGroFrames}, // before XYZ: its title may be a whole number
    {"xyz", "XYZ", ".xyz .extxyz", isXyz, makeXyzFrames},
    {"lammps", "LAMMPS dump", ".dump .lammpstrj", startsWith<'I', 'T', 'E', 'M', ':'>,
     makeLammpsFrames},
    {"lammps-data", "LAMMPS data", ".data .lmp", isLammpsData, readLammpsData},
    {"lammps-binary", "LAMMPS binary dump", ".bin", isLammpsBinary, makeLammpsBinaryFrames},
    {"dcd", "DCD", ".dcd", isDcd, makeDcdFrames},
    {"xtc", "XTC", ".xtc", isXtc, makeXtcFrames},
    {"trr", "TRR", ".trr", startsWith<0, 0, 7, '\xc9'>, makeTrrFrames},
    {"bgeo", "classic BGEO", ".bgeo", startsWith<'B', 'g', 'e', 'o', 'V'>, readBgeo},
    {"", "the JSON BGEO of newer Houdini", "", startsWith<0x7f, 'N', 'S', 'J'>, {}, newBgeo},
    {"",
     "the packed BGEO of newer Houdini",
     ".bgeo.sc",
     startsWith<'s', 'c', 'f', '1'>,
     {},
     newBgeo},
    {"pdb", "PDB", ".pdb .ent", isPdb, makePdbFrames, {}, true},
    {"mmcif", "CIF", ".cif .mmcif", isMmCif, readMmCif, {}, true},
    {"hdf5", "HDF5", ".hdf5 .h5 .h5md", isHdf5, readHdf5, {}, false, true},
    {"netcdf", "AMBER NetCDF", ".nc .ncdf .ncrst", isNetcdf, readNetcdf},
    {"vdb", "OpenVDB points", ".vdb", startsWith<' ', 'B', 'D', 'V'>, readVdb},
};

std::vector<std::string_view> allFormats(std::string_view FileFormat::*text) {
    std::vector<std::string_view> names;
    for (FileFormat const& format : formats)
        if (format.isRead())
            names.push_back(format.*text);
    return names;
}

/// What can be read, as a list that ends in "and" or the like: "PLY, XYZ and GRO".
std::string listFormats(std::string_view FileFormat::*text, std::string_view lastLink) {
    std::vector<std::string_view> names = allFormats(text);
    std::string_view const last = names.back();
    names.pop_back();
    return fmt::format("{} {} {}", fmt::join(names, ", "), lastLink, last);
}

} // namespace

bool FileFormat::hasSuffixOf(std::string_view path) const {
    std::string_view list = suffixes;
    for (std::string_view suffix = nextWord(list); !suffix.empty(); suffix = nextWord(list))
        if (path.ends_with(suffix))
            return true;
    return false;
}

FileFormat const& findFormat(InputFile& file, std::string const& wanted) {
    if (!wanted.empty()) {
        for (FileFormat const& format : formats)
            if (format.name == wanted)
                return format;
        file.fail("no format {}; {} can be read", quoted(wanted),
                  listFormats(&FileFormat::name, "and"));
    }
    constexpr std::size_t longestMagic = 16384; // CIF may begin with pages of comment
    std::string_view const head = file.peek(longestMagic);
    for (FileFormat const& format : formats)
        if (format.recognise(head))
            return format;
    std::string_view const path = withoutPacking(file.path());
    for (FileFormat const& format : formats)
        if (format.hasSuffixOf(path))
            return format;
    file.fail({Hint::To::nameFormat}, "starts with {}, which is neither {}",
              quoted(head.substr(0, std::min<std::size_t>(head.find_first_of("\r\n"), 40))),
              listFormats(&FileFormat::title, "nor"));
}

std::string readableFormats() {
    return listFormats(&FileFormat::title, "and");
}

std::string formatNames() {
    return fmt::format("{}", fmt::join(allFormats(&FileFormat::name), "|"));
}

} // namespace pipeline
