// Widens boxes by a margin for rounding.
#include "kelpa/foundation/vector.h"

#include <cmath>

namespace Kelpa {

namespace {

// With e the coordinate's binary exponent (coordinate = m * 2^e, 0.5 <= |m| < 1), 2^(e - 13). What
// `frexp` reports for an infinity is unspecified; any step leaves an infinity where it is.
float marginOf(float coordinate) {
    int exponent = 0;
    if (std::isfinite(coordinate))
        static_cast<void>(std::frexp(coordinate, &exponent));
    return std::ldexp(1.0F, exponent - 13);
}

} // namespace

void widenByMargin(Box& box) {
    for (int axis = 0; axis < 3; ++axis) {
        box.min[axis] -= marginOf(box.min[axis]);
        box.max[axis] += marginOf(box.max[axis]);
    }
}

} // namespace Kelpa
