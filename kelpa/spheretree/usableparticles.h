#pragma once
// Internal: which particles a tree takes.

#include "kelpa/foundation/exceptionmsg.h"
#include "kelpa/foundation/vector.h"

#include <cmath>
#include <cstdint>
#include <limits>

namespace Kelpa {

/// The comparison fails for NaN.
inline bool isUsableRadius(float radius) {
    return radius >= 1e-15F && radius <= std::numeric_limits<float>::max();
}

inline bool isFinite(Vector const& v) {
    return std::isfinite(v.x) && std::isfinite(v.y) && std::isfinite(v.z);
}

/// A total of particles as the trees keep it. More than it can say is more than fits in memory.
inline std::int32_t checkedTotal(std::int64_t particles) {
    if (particles > std::numeric_limits<std::int32_t>::max())
        throwOutOfMemory();
    return static_cast<std::int32_t>(particles);
}

} // namespace Kelpa
