// A hint for everything that an error can ask for.
#include "tool/options/hints.h"

#include <fmt/format.h>

namespace pipeline::tool {

std::string hintText(Hint const& hint) {
    switch (hint.to) {
    case Hint::To::nothing:
        return "";
    case Hint::To::nameFormat:
        return "; if it is one of them, name it with --format; what ASE or MDAnalysis read, "
               "Python takes (kelpa.from_ase, kelpa.from_mdanalysis), and arrays of yt and others";
    case Hint::To::askNoAssembly:
        return "; leave --assembly away";
    case Hint::To::askElsewhere:
        return "; --assembly is for PDB and mmCIF";
    case Hint::To::readEarlierFrame:
        return fmt::format("; use --frame {} or an earlier one", hint.frame);
    case Hint::To::moveByVelocity:
        return " for --motion velocity";
    case Hint::To::standStill:
        return "; use --motion none";
    case Hint::To::setRadius:
        return "; set --radius";
    case Hint::To::setRange:
        return "; set --range";
    case Hint::To::nameElements:
        return " for --elements";
    case Hint::To::nameMoreElements:
        return fmt::format(", and --elements names {}", hint.count);
    case Hint::To::renderTiles:
        return "; kelpa render --tile K/N makes some";
    }
    return "";
}

} // namespace pipeline::tool
