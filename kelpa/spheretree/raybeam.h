// Internal: what rays that go together have in common, to pass over spheres that none of them hits.
#pragma once

#include "kelpa/spheretree/lanes.h"
#include "kelpa/spheretree/raylanes.h"
#include "kelpa/spheretree/spherearrays.h"

#include <cmath>
#include <cstdint>

namespace Kelpa {

namespace {

/// A widening tube around some rays: at every parameter t of the middle one, none is farther from
/// it than a shift and |t| times a spread.
///
/// Rays may start far behind one another, as those from a surface towards a light do: what counts
/// is how far their origins lie aside of the middle line. One that starts a aside of its point at s
/// has come at its own parameter u to within a + |u| B of the middle ray's at u + s, where B is the
/// spread of the directions; as |u| <= |u + s| + |s|, the shift A is the largest a, and B times the
/// largest |s|.
///
/// Let L be the length of the middle direction and r the radius of a sphere that one of the rays
/// meets where the middle one is at t'. Then its centre is within r + A + |t'| B of the middle
/// ray's point at t', and so of the middle line, and where that line comes closest to it, at t,
/// |t'| <= (|t| + (r + A) / L) / (1 - B / L). With s = B / (L - B) the distance from the line is at
/// most (r + A) (1 + s) + |t| L s. Margins of 2^-19 of all lengths, 32 roundings, and 1e-4 of the
/// rest stand for what the tests of spheres and this one round.
class RayBeam {
  public:
    RayBeam(RayLanes const& rays, std::uint32_t lanes) {
        int const first = __builtin_ctz(lanes);
        int const last = 31 - __builtin_clz(lanes);
        Floats const none = Lanes::all(0.0F);
        Floats spread = none;
        Floats along = none;
        Floats shifted[3];
        float squaredLength = 0.0F;
        float fromZero = 0.0F;
        for (int axis = 0; axis < 3; ++axis) {
            dir[axis] = 0.5F * (rays.dir[axis][first] + rays.dir[axis][last]);
            origin[axis] = 0.5F * (rays.origin[axis][first] + rays.origin[axis][last]);
            Floats const turned = Lanes::load(rays.dir[axis]) - Lanes::all(dir[axis]);
            shifted[axis] = Lanes::load(rays.origin[axis]) - Lanes::all(origin[axis]);
            spread = spread + turned * turned;
            along = along + shifted[axis] * Lanes::all(dir[axis]);
            squaredLength += dir[axis] * dir[axis];
            fromZero += std::fabs(origin[axis]);
        }
        inverseSquare = 1.0F / squaredLength;
        along = along * Lanes::all(inverseSquare);
        Floats aside = none;
        for (int axis = 0; axis < 3; ++axis) {
            Floats const rest = shifted[axis] - along * Lanes::all(dir[axis]);
            aside = aside + rest * rest;
        }
        float const length = std::sqrt(squaredLength);
        float const b = widestIn(lanes, spread) + margin * length;
        float const a =
            widestIn(lanes, aside) + margin * fromZero + b * widestIn(lanes, along * along);
        // False where something is not a number or infinite, too.
        narrow = b < 0.25F * length && a < 1e18F && length < 1e18F;
        if (!narrow)
            return;
        float const s = b / (length - b);
        perRadius = (1.0F + s) * slack;
        constant = a * perRadius;
        perParameter = (s * slack + margin) * length;
    }

    /// Whether `mayMeet` tells anything.
    bool isNarrow() const { return narrow; }

    /// Those of the group of spheres from `first` on that some ray may meet; only if it is narrow.
    [[gnu::always_inline]] std::uint32_t mayMeet(SphereArrays const& spheres,
                                                 std::int32_t first) const {
        Floats const x = Lanes::load(spheres.x + first) - Lanes::all(origin[0]);
        Floats const y = Lanes::load(spheres.y + first) - Lanes::all(origin[1]);
        Floats const z = Lanes::load(spheres.z + first) - Lanes::all(origin[2]);
        Floats const dirX = Lanes::all(dir[0]);
        Floats const dirY = Lanes::all(dir[1]);
        Floats const dirZ = Lanes::all(dir[2]);
        Floats const radius = spheres.radiusStep == 0 ? Lanes::all(spheres.radii[0])
                                                      : Lanes::load(spheres.radii + first);
        Floats const t = (x * dirX + y * dirY + z * dirZ) * Lanes::all(inverseSquare);
        Floats const ex = dirX * t - x;
        Floats const ey = dirY * t - y;
        Floats const ez = dirZ * t - z;
        Floats const reach = radius * Lanes::all(perRadius) + Lanes::all(constant) +
                             Lanes::higher(t, -t) * Lanes::all(perParameter);
        // What overflows is not passed over: infinity is not greater than infinity.
        return allLanes & ~Lanes::isGreater(ex * ex + ey * ey + ez * ez, reach * reach);
    }

  private:
    using Floats = Lanes::Floats;
    static constexpr float margin = 0x1p-19F;
    static constexpr float slack = 1.0001F;

    /// The root of the largest of some lanes, none of which is negative; infinite if one of them is
    /// not a number.
    KELPA_INLINE float widestIn(std::uint32_t lanes, Floats squares) {
        if ((lanes & ~Lanes::isEqual(squares, squares)) != 0)
            return __builtin_inff();
        Floats const negative = Lanes::select(lanes, -squares, Lanes::all(0.0F));
        return std::sqrt(-Lanes::lowest(negative)) * slack;
    }

    float origin[3];
    float dir[3];
    float inverseSquare;
    float perRadius;
    float constant;
    float perParameter;
    bool narrow;
};

} // namespace

} // namespace Kelpa
