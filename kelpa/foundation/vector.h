// Vectors of three numbers, and boxes of two vectors.
#pragma once

#include "kelpa/foundation/language.h"

namespace Kelpa {

/// Three single-precision numbers: a centre, a direction, a normal, a velocity or a colour.
struct Vector {
    float x; ///< x, y and z are in the host's unit, or have none
    float y; ///< see `x`
    float z; ///< see `x`

    /// Component 0 (x), 1 (y) or 2 (z); no other index is allowed.
    float& operator[](int axis);
    /// The same for a vector that is not to be changed.
    float const& operator[](int axis) const;
};
static_assert(sizeof(Vector) == 12);

/// The components of a `Vector` by axis number.
inline constexpr float Vector::*vectorComponents[3] = {&Vector::x, &Vector::y, &Vector::z};

inline float& Vector::operator[](int axis) {
    return this->*vectorComponents[axis];
}
inline float const& Vector::operator[](int axis) const {
    return this->*vectorComponents[axis];
}

/// An axis-aligned box: its lowest and its highest corner, both inside.
struct Box {
    Vector min; ///< lowest corner
    Vector max; ///< highest corner; in no component below `min` unless the box is empty

    /// The box that holds nothing: growing it by anything gives that thing.
    static constexpr Box empty() { return {{1e20F, 1e20F, 1e20F}, {-1e20F, -1e20F, -1e20F}}; }

    /// Extends the box until `other` lies within; an empty `other` changes nothing.
    void grow(Box const& other) {
        for (int axis = 0; axis < 3; ++axis) {
            min[axis] = other.min[axis] < min[axis] ? other.min[axis] : min[axis];
            max[axis] = other.max[axis] > max[axis] ? other.max[axis] : max[axis];
        }
    }
};
static_assert(sizeof(Box) == 24);

/// Moves every side of the box outwards by 2^-13 to 2^-12 of its coordinate's magnitude (by 2^-13
/// where the coordinate is 0), so that rays meet the box before they meet what touches it.
void widenByMargin(Box& box);

} // namespace Kelpa
