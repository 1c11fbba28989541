// A plane that cuts the particles open, or a slab of them.
#pragma once

#include "pipeline/scene/vec.h"

#include <optional>
#include <string>
#include <vector>

namespace pipeline::view {

/// Leaves out the particles in front of a plane, and those too far behind it.
struct Cut {
    Vec normal{};                    ///< towards what is left out; of any length but 0
    double at = 0.0;                 ///< where the plane lies along it, in the file's coordinates
    std::optional<double> thickness; ///< of what is kept; unset: all behind the plane

    bool operator==(Cut const& other) const;
};

/// The planes of a cut as the command line writes them, and as `parseSlice` reads them.
std::vector<std::string> slicesOf(Cut const& cut);

} // namespace pipeline::view
