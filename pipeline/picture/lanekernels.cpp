// Arithmetic of many samples at once, the same bits as one at a time.
#include "pipeline/picture/lanekernels.h"

#include "pipeline/picture/sampling.h"
#include "pipeline/scene/forprocessor.h"
#include "pipeline/scene/vec.h"

#include <cmath>
#include <vector>

// Each loop is written once and inlined into functions for the kinds of processors. Neither errno
// nor trapped exceptions are wanted of roots and comparisons (see the options of this file): with
// them no compiler makes such loops wide.
#define KELPA_INLINE [[gnu::always_inline]] inline
// The arrays of the loop behind it do not overlap.
#if defined(__clang__)
#define KELPA_INDEPENDENT _Pragma("clang loop vectorize(assume_safety)")
#else
#define KELPA_INDEPENDENT _Pragma("GCC ivdep")
#endif

namespace pipeline {

namespace {

using Kelpa::Vector;

KELPA_INLINE void cameraRaysLoop(Camera const& camera, std::size_t count, Points2 corner,
                                 Points2 pattern, Pointers3<double> origin, Pointers3<float> dir) {
    Camera const held = camera; // no store below can change it
    if (held.isParallel) {
        KELPA_INDEPENDENT
        for (std::size_t i = 0; i < count; ++i) {
            Vec const from = held.parallelOrigin(corner.x[i] + fraction(pattern.x[i]),
                                                 corner.y[i] + fraction(pattern.y[i]));
            origin.x[i] = from.x;
            origin.y[i] = from.y;
            origin.z[i] = from.z;
        }
        Vector const along = narrow(held.forward);
        for (std::size_t i = 0; i < count; ++i) {
            dir.x[i] = along.x;
            dir.y[i] = along.y;
            dir.z[i] = along.z;
        }
        return;
    }
    KELPA_INDEPENDENT
    for (std::size_t i = 0; i < count; ++i) {
        Vec const along = held.pinholeDirection(corner.x[i] + fraction(pattern.x[i]),
                                                corner.y[i] + fraction(pattern.y[i]));
        dir.x[i] = static_cast<float>(along.x);
        dir.y[i] = static_cast<float>(along.y);
        dir.z[i] = static_cast<float>(along.z);
        origin.x[i] = held.eye.x;
        origin.y[i] = held.eye.y;
        origin.z[i] = held.eye.z;
    }
}

struct SineCosine {
    double sine;
    double cosine;
};

/// Of `turns` in [0, 1) whole turns.
///
/// Reduced to an eighth of a turn to either side of a quarter's end, then by Taylor's series, whose
/// first missing terms are below 1e-13 there; plain arithmetic gives the same bits everywhere,
/// which library functions do not.
KELPA_INLINE SineCosine sineCosine(double turns) {
    auto const quarter = static_cast<std::int32_t>(4.0 * turns + 0.5);
    double const rest = turns - 0.25 * quarter;
    double const a = rest * 6.283185307179586477;
    double const q = a * a;
    double const s =
        a + a * q *
                (-1.0 / 6 +
                 q * (1.0 / 120 + q * (-1.0 / 5040 + q * (1.0 / 362880 + q * (-1.0 / 39916800 +
                                                                              q / 6227020800.0)))));
    double const c =
        1.0 +
        q * (-0.5 + q * (1.0 / 24 + q * (-1.0 / 720 + q * (1.0 / 40320 + q * (-1.0 / 3628800 +
                                                                              q / 479001600.0)))));
    bool const isOdd = (quarter & 1) != 0;
    double const sine = isOdd ? c : s;
    double const cosine = isOdd ? s : c;
    return {(quarter & 2) != 0 ? -sine : sine, ((quarter + 1) & 2) != 0 ? -cosine : cosine};
}

KELPA_INLINE void aroundNormalsLoop(std::size_t count, Pointers3<float const> normal,
                                    Points2 pattern, Pointers3<float> dir) {
    KELPA_INDEPENDENT
    for (std::size_t i = 0; i < count; ++i) {
        Vector const n = {normal.x[i], normal.y[i], normal.z[i]};
        SineCosine const around = sineCosine(fraction(pattern.x[i]));
        double const height = fraction(pattern.y[i]);
        double const sine = std::sqrt(height);
        auto const across = static_cast<float>(around.cosine * sine);
        auto const along = static_cast<float>(around.sine * sine);
        auto const upward = static_cast<float>(std::sqrt(1.0 - height));
        float const other = std::abs(n.x) < 0.6F ? 1.0F : 0.0F;
        Vector const tangent = unit(cross(n, {other, 1.0F - other, 0.0F}));
        Vector const d = unit(tangent * across + cross(n, tangent) * along + n * upward);
        dir.x[i] = d.x;
        dir.y[i] = d.y;
        dir.z[i] = d.z;
    }
}

KELPA_INLINE void goAlongLoop(std::size_t count, Pointers3<float const> dir, double const* t,
                              Pointers3<double> place) {
    KELPA_INDEPENDENT
    for (std::size_t i = 0; i < count; ++i) {
        place.x[i] += t[i] * static_cast<double>(dir.x[i]);
        place.y[i] += t[i] * static_cast<double>(dir.y[i]);
        place.z[i] += t[i] * static_cast<double>(dir.z[i]);
    }
}

KELPA_INLINE void normaliseLoop(std::size_t count, Lighting const& light, Pointers3<float> normal,
                                float* cosine) {
    Vector const towardsKey = light.towardsKey;
    KELPA_INDEPENDENT
    for (std::size_t i = 0; i < count; ++i) {
        Vector const n = unit(Vector{normal.x[i], normal.y[i], normal.z[i]});
        normal.x[i] = n.x;
        normal.y[i] = n.y;
        normal.z[i] = n.z;
        cosine[i] = dot(n, towardsKey);
    }
}

/// x^40, for highlights.
KELPA_INLINE double power40(double x) {
    double const x2 = x * x;
    double const x4 = x2 * x2;
    double const x8 = x4 * x4;
    double const x16 = x8 * x8;
    return x16 * x16 * x8;
}

KELPA_INLINE void shadeLoop(std::size_t count, Lighting const& light, Pointers3<float const> normal,
                            Pointers3<float const> dir, float const* cosine, float const* open,
                            std::int32_t const* lit, Pointers3<float> color) {
    Lighting const held = light;
    KELPA_INDEPENDENT
    for (std::size_t i = 0; i < count; ++i) {
        Vector const n = {normal.x[i], normal.y[i], normal.z[i]};
        // Sky light from above, less from below.
        float const height = 0.5F + 0.5F * dot(n, held.up);
        float const ambient = (held.ground + (held.sky - held.ground) * height) * open[i];
        Vector const half = unit(held.towardsKey + Vector{-dir.x[i], -dir.y[i], -dir.z[i]});
        float const towardsHalf = dot(n, half);
        float const aligned = towardsHalf > 0.0F ? towardsHalf : 0.0F;
        auto const shine = static_cast<float>(power40(static_cast<double>(aligned)));
        float const brightness = lit[i] != 0 ? ambient + held.key * cosine[i] : ambient;
        float const highlight = lit[i] != 0 ? 0.06F * shine : 0.0F;
        color.x[i] = color.x[i] * brightness + highlight;
        color.y[i] = color.y[i] * brightness + highlight;
        color.z[i] = color.z[i] * brightness + highlight;
    }
}

/// The first of cells that begin at `place`, from 0 to `end`; 0 where that is no number.
KELPA_INLINE std::int32_t firstCell(double place, double end) {
    double const above = place > 0.0 ? place : 0.0;
    return static_cast<std::int32_t>(above < end ? above : end);
}

/// The last of cells that end at `place`, from -1 to `end` - 1, which it is where that is no
/// number.
KELPA_INLINE std::int32_t lastCell(double place, double end) {
    double const next = place + 1.0;
    double const below = next < end ? next : end;
    return static_cast<std::int32_t>(below > 0.0 ? below : 0.0) - 1;
}

/// A sphere's extent on one axis of the picture, by the tangents from the pinhole.
///
/// Seen along the other axis it is a disc at (`across`, `depth`) of a radius below `depth`. The
/// tangents from (0, 0) have the slopes (across * depth +- radius * sqrt(across^2 + depth^2 -
/// radius^2)) / (depth^2 - radius^2).
struct Extent {
    double low;
    double high;
};
KELPA_INLINE Extent tangents(double across, double depth, double radius) {
    double const squares = depth * depth - radius * radius;
    double const root = radius * std::sqrt(squares + across * across);
    double const scale = 1.0 / squares;
    return {(across * depth - root) * scale, (across * depth + root) * scale};
}

template <bool isParallel>
KELPA_INLINE void findBlocksOf(Camera const& camera, CellGrid const& grid, std::size_t count,
                               Vector const* centers, float const* radii, CellBlocks blocks) {
    Camera const held = camera;
    double const perCell = 1.0 / grid.cellWidth;
    double const perUnit = held.height / (2.0 * held.tanHalfHeight);
    double const middleX = held.width * 0.5 - grid.left;
    double const middleY = held.height * 0.5 - grid.top;
    double const columns = grid.columns;
    double const rows = grid.rows;
    double const eyeDistance = std::sqrt(dot(held.eye, held.eye));
    KELPA_INDEPENDENT
    for (std::size_t i = 0; i < count; ++i) {
        Vec const fromEye = wide(centers[i]) - held.eye;
        double const x = dot(fromEye, held.right);
        double const y = dot(fromEye, held.up);
        double const depth = dot(fromEye, held.forward);
        // Rays and spheres meet in single precision: 2^-24 of the lengths in play, some ten times.
        constexpr double rounding = 0x1p-18;
        double const distance = std::sqrt(dot(fromEye, fromEye));
        double const given = static_cast<double>(radii[i]);
        double const radius = given + rounding * (given + 2.0 * distance + eyeDistance);

        Extent const seenX =
            isParallel ? Extent{x - radius, x + radius} : tangents(x, depth, radius);
        Extent const seenY =
            isParallel ? Extent{y - radius, y + radius} : tangents(y, depth, radius);
        double const x0 = (middleX + seenX.low * perUnit) * perCell;
        double const x1 = (middleX + seenX.high * perUnit) * perCell;
        double const y0 = (middleY - seenY.high * perUnit) * perCell;
        double const y1 = (middleY - seenY.low * perUnit) * perCell;
        // What reaches behind the pinhole may show anywhere, what lies behind it nowhere.
        double const wider = isParallel || depth > radius ? 0.0 : 0x1p60;
        double const more = depth + radius < 0.0 ? -0x1p60 : wider;
        blocks.x0[i] = firstCell(x0 - more, columns);
        blocks.y0[i] = firstCell(y0 - more, rows);
        blocks.x1[i] = lastCell(x1 + more, columns);
        blocks.y1[i] = lastCell(y1 + more, rows);
    }
}

KELPA_INLINE void findBlocksLoop(Camera const& camera, CellGrid const& grid, std::size_t count,
                                 Vector const* centers, float const* radii, CellBlocks blocks) {
    if (camera.isParallel)
        findBlocksOf<true>(camera, grid, count, centers, radii, blocks);
    else
        findBlocksOf<false>(camera, grid, count, centers, radii, blocks);
}

// The six loops as functions for one kind of processors.
#define KELPA_KERNELS(kind, ...)                                                                   \
    namespace kind {                                                                               \
    __VA_ARGS__ void cameraRays(Camera const& camera, std::size_t count, Points2 corner,           \
                                Points2 pattern, Pointers3<double> origin, Pointers3<float> dir) { \
        cameraRaysLoop(camera, count, corner, pattern, origin, dir);                               \
    }                                                                                              \
    __VA_ARGS__ void aroundNormals(std::size_t count, Pointers3<float const> normal,               \
                                   Points2 pattern, Pointers3<float> dir) {                        \
        aroundNormalsLoop(count, normal, pattern, dir);                                            \
    }                                                                                              \
    __VA_ARGS__ void goAlong(std::size_t count, Pointers3<float const> dir, double const* t,       \
                             Pointers3<double> place) {                                            \
        goAlongLoop(count, dir, t, place);                                                         \
    }                                                                                              \
    __VA_ARGS__ void normalise(std::size_t count, Lighting const& light, Pointers3<float> normal,  \
                               float* cosine) {                                                    \
        normaliseLoop(count, light, normal, cosine);                                               \
    }                                                                                              \
    __VA_ARGS__ void shade(std::size_t count, Lighting const& light,                               \
                           Pointers3<float const> normal, Pointers3<float const> dir,              \
                           float const* cosine, float const* open, std::int32_t const* lit,        \
                           Pointers3<float> color) {                                               \
        shadeLoop(count, light, normal, dir, cosine, open, lit, color);                            \
    }                                                                                              \
    __VA_ARGS__ void findBlocks(Camera const& camera, CellGrid const& grid, std::size_t count,     \
                                Vector const* centers, float const* radii, CellBlocks blocks) {    \
        findBlocksLoop(camera, grid, count, centers, radii, blocks);                               \
    }                                                                                              \
    constexpr LaneKernels kernels = {cameraRays, aroundNormals, goAlong,                           \
                                     normalise,  shade,         findBlocks};                       \
    }

KELPA_KERNELS(any)
#if defined(__x86_64__)
KELPA_KERNELS(avx2, [[gnu::target("avx2")]])
KELPA_KERNELS(avx512, [[gnu::target("avx512f,avx512vl,avx512dq")]])
#endif

} // namespace

std::span<LaneKernels const> laneKernels() {
#if defined(__x86_64__)
    static std::vector<LaneKernels> const found =
        formsForProcessor(any::kernels, avx2::kernels, avx512::kernels);
#else
    static std::vector<LaneKernels> const found = {any::kernels};
#endif
    return found;
}

} // namespace pipeline
