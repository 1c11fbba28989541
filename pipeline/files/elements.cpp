// The table of elements, and how names of atoms tell theirs.
#include "pipeline/files/elements.h"

#include "pipeline/files/srgb.h"

#include <algorithm>
#include <cctype>

namespace pipeline {

namespace {

struct Element {
    char symbol[3];
    short outer;    ///< in 1/100 Angstrom: van der Waals, of metals metallic; 0: nobody knows one
    short covalent; ///< in 1/100 Angstrom; 0: as above
    int color;      ///< sRGB, 0xrrggbb
};

constexpr int unknownColor = 0xff1493;
constexpr float unknownRadius = 1.70F; // carbon's, the usual stand-in

// Metallic radii, since metals drawn with van der Waals radii of well over 2 are one lump: for
// twelve neighbours, with the values that tables of the elements commonly have. Half the distance
// of neighbours in the metals' own lattices is within 3 % of them. Van der Waals radii of the other
// main groups: M. Mantina, A. C. Chamberlin, R. Valero, C. J. Cramer, D. G. Truhlar,
// "Consistent van der Waals Radii for the Whole Main Group", J. Phys. Chem. A 113 (2009),
// doi 10.1021/jp8111556. Of the other elements: S. Alvarez, "A cartography of the van der Waals
// territories", Dalton Trans. 42 (2013), doi 10.1039/c3dt50599e. Covalent radii: B. Cordero and
// others, "Covalent radii revisited", Dalton Trans. (2008), doi 10.1039/b801115j; carbon as in sp3,
// Mn, Fe and Co in low spin. Colours: the CPK set of Jmol, which ends with Mt.
// clang-format off
constexpr Element elements[] = {
    {"H", 110, 31, 0xffffff}, {"He", 140, 28, 0xd9ffff}, {"Li", 152, 128, 0xcc80ff}, {"Be", 112, 96, 0xc2ff00},
    {"B", 192, 84, 0xffb5b5}, {"C", 170, 76, 0x909090}, {"N", 155, 71, 0x3050f8}, {"O", 152, 66, 0xff0d0d},
    {"F", 147, 57, 0x90e050}, {"Ne", 154, 58, 0xb3e3f5}, {"Na", 186, 166, 0xab5cf2}, {"Mg", 160, 141, 0x8aff00},
    {"Al", 143, 121, 0xbfa6a6}, {"Si", 210, 111, 0xf0c8a0}, {"P", 180, 107, 0xff8000}, {"S", 180, 105, 0xffff30},
    {"Cl", 175, 102, 0x1ff01f}, {"Ar", 188, 106, 0x80d1e3}, {"K", 227, 203, 0x8f40d4}, {"Ca", 197, 176, 0x3dff00},
    {"Sc", 162, 170, 0xe6e6e6}, {"Ti", 147, 160, 0xbfc2c7}, {"V", 134, 153, 0xa6a6ab}, {"Cr", 128, 139, 0x8a99c7},
    {"Mn", 127, 139, 0x9c7ac7}, {"Fe", 126, 132, 0xe06633}, {"Co", 125, 126, 0xf090a0}, {"Ni", 124, 124, 0x50d050},
    {"Cu", 128, 132, 0xc88033}, {"Zn", 134, 122, 0x7d80b0}, {"Ga", 135, 122, 0xc28f8f}, {"Ge", 211, 120, 0x668f8f},
    {"As", 185, 119, 0xbd80e3}, {"Se", 190, 120, 0xffa100}, {"Br", 183, 120, 0xa62929}, {"Kr", 202, 116, 0x5cb8d1},
    {"Rb", 248, 220, 0x702eb0}, {"Sr", 215, 195, 0x00ff00}, {"Y", 180, 190, 0x94ffff}, {"Zr", 160, 175, 0x94e0e0},
    {"Nb", 146, 164, 0x73c2c9}, {"Mo", 139, 154, 0x54b5b5}, {"Tc", 136, 147, 0x3b9e9e}, {"Ru", 134, 146, 0x248f8f},
    {"Rh", 134, 142, 0x0a7d8c}, {"Pd", 137, 139, 0x006985}, {"Ag", 144, 145, 0xc0c0c0}, {"Cd", 151, 144, 0xffd98f},
    {"In", 167, 142, 0xa67573}, {"Sn", 151, 139, 0x668080}, {"Sb", 206, 139, 0x9e63b5}, {"Te", 206, 138, 0xd47a00},
    {"I", 198, 139, 0x940094}, {"Xe", 216, 140, 0x429eb0}, {"Cs", 265, 244, 0x57178f}, {"Ba", 222, 215, 0x00c900},
    {"La", 187, 207, 0x70d4ff}, {"Ce", 182, 204, 0xffffc7}, {"Pr", 182, 203, 0xd9ffc7}, {"Nd", 181, 201, 0xc7ffc7},
    {"Pm", 183, 199, 0xa3ffc7}, {"Sm", 180, 198, 0x8fffc7}, {"Eu", 204, 198, 0x61ffc7}, {"Gd", 180, 196, 0x45ffc7},
    {"Tb", 177, 194, 0x30ffc7}, {"Dy", 178, 192, 0x1fffc7}, {"Ho", 176, 192, 0x00ff9c}, {"Er", 176, 189, 0x00e675},
    {"Tm", 176, 190, 0x00d452}, {"Yb", 194, 187, 0x00bf38}, {"Lu", 174, 187, 0x00ab24}, {"Hf", 159, 175, 0x4dc2ff},
    {"Ta", 146, 170, 0x4da6ff}, {"W", 139, 162, 0x2194d6}, {"Re", 137, 151, 0x267dab}, {"Os", 135, 144, 0x266696},
    {"Ir", 136, 141, 0x175487}, {"Pt", 139, 136, 0xd0d0e0}, {"Au", 144, 136, 0xffd123}, {"Hg", 151, 132, 0xb8b8d0},
    {"Tl", 170, 145, 0xa6544d}, {"Pb", 175, 146, 0x575961}, {"Bi", 207, 148, 0x9e4fb5}, {"Po", 197, 140, 0xab5c00},
    {"At", 202, 150, 0x754f45}, {"Rn", 220, 150, 0x428296}, {"Fr", 348, 260, 0x420066}, {"Ra", 283, 221, 0x007d00},
    {"Ac", 188, 215, 0x70abfa}, {"Th", 179, 206, 0x00baff}, {"Pa", 163, 200, 0x00a1ff}, {"U", 156, 196, 0x008fff},
    {"Np", 155, 190, 0x0080ff}, {"Pu", 159, 187, 0x006bff}, {"Am", 173, 180, 0x545cf2}, {"Cm", 174, 169, 0x785ce3},
    {"Bk", 170, 0, 0x8a4fe3}, {"Cf", 186, 0, 0xa136d4}, {"Es", 186, 0, 0xb31fd4}, {"Fm", 0, 0, 0xb31fba},
    {"Md", 0, 0, 0xb30da6}, {"No", 0, 0, 0xbd0d87}, {"Lr", 0, 0, 0xc70066}, {"Rf", 0, 0, 0xcc0059},
    {"Db", 0, 0, 0xd1004f}, {"Sg", 0, 0, 0xd90045}, {"Bh", 0, 0, 0xe00038}, {"Hs", 0, 0, 0xe6002e},
    {"Mt", 0, 0, 0xeb0026}, {"Ds", 0, 0, 0xff1493}, {"Rg", 0, 0, 0xff1493}, {"Cn", 0, 0, 0xff1493},
    {"Nh", 0, 0, 0xff1493}, {"Fl", 0, 0, 0xff1493}, {"Mc", 0, 0, 0xff1493}, {"Lv", 0, 0, 0xff1493},
    {"Ts", 0, 0, 0xff1493}, {"Og", 0, 0, 0xff1493},
};
// clang-format on
constexpr int elementCount = static_cast<int>(std::size(elements));
static_assert(elementCount == 118);

bool isKnown(std::uint8_t atomicNumber) {
    return atomicNumber >= 1 && atomicNumber <= elementCount;
}

} // namespace

std::string_view symbolOf(std::uint8_t atomicNumber) {
    return isKnown(atomicNumber) ? elements[atomicNumber - 1].symbol : "?";
}

std::shared_ptr<NameTable const> const& elementSymbols() {
    static std::shared_ptr<NameTable const> const symbols = [] {
        auto table = std::make_shared<NameTable>();
        table->numberOf("?");
        for (Element const& element : elements)
            table->numberOf(element.symbol);
        return table;
    }();
    return symbols;
}

std::uint8_t atomicNumberOf(std::string_view symbol) {
    auto const isLetter = [](char c) { return std::isalpha(static_cast<unsigned char>(c)) != 0; };
    auto const lettersEnd = std::find_if_not(symbol.begin(), symbol.end(), isLetter);
    auto const length = lettersEnd - symbol.begin();
    bool const endsWell = std::all_of(lettersEnd, symbol.end(), [](char c) {
        return (c >= '0' && c <= '9') || c == '+' || c == '-';
    });
    if (length < 1 || length > 2 || !endsWell)
        return 0;
    char const name[3] = {
        static_cast<char>(std::toupper(static_cast<unsigned char>(symbol[0]))),
        length > 1 ? static_cast<char>(std::tolower(static_cast<unsigned char>(symbol[1]))) : '\0'};
    if (std::string_view(name) == "D" || std::string_view(name) == "T")
        return 1;
    auto const* const found =
        std::find_if(std::begin(elements), std::end(elements), [&](Element const& element) {
            return std::string_view(element.symbol) == name;
        });
    return found == std::end(elements)
               ? std::uint8_t{0}
               : static_cast<std::uint8_t>(found - std::begin(elements) + 1);
}

float elementRadius(std::uint8_t atomicNumber, bool covalent) {
    if (!isKnown(atomicNumber))
        return unknownRadius;
    Element const& element = elements[atomicNumber - 1];
    short const hundredths = covalent ? element.covalent : element.outer;
    return hundredths > 0 ? static_cast<float>(hundredths) / 100.0F : unknownRadius;
}

Kelpa::Vector elementColor(std::uint8_t atomicNumber) {
    int const color = isKnown(atomicNumber) ? elements[atomicNumber - 1].color : unknownColor;
    return linearOfHex(color);
}

} // namespace pipeline
