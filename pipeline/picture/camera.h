#pragma once

#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/vector.h"

#include "pipeline/scene/vec.h"

#include "tool/options/options.h"

#include <span>

namespace kelpatool {

constexpr double marginFactor = 1.05; ///< the part of the picture around the particles

/// A pinhole or parallel camera: the rays of a picture.
///
/// Pixel coordinates run from (0, 0) at the top left corner to (width, height).
struct Camera {
    Vec eye;   ///< the pinhole, or a point of the plane that parallel rays start from
    Vec right; ///< unit vectors
    Vec up;
    Vec forward;
    double tanHalfHeight; ///< pinhole: of half the vertical angle; parallel: half the height seen
    bool isParallel;
    int width;
    int height;

    /// The ray through a point of the picture; its direction has length 1.
    Kelpa::TraceRay ray(double pixelX, double pixelY) const;
    /// Where that ray begins if rays are parallel ...
    Vec parallelOrigin(double pixelX, double pixelY) const {
        Offset const at = offset(pixelX, pixelY);
        return eye + right * at.x + up * at.y;
    }
    /// ... and where it goes if they are not.
    Vec pinholeDirection(double pixelX, double pixelY) const {
        Offset const at = offset(pixelX, pixelY);
        return unit(forward + right * at.x + up * at.y);
    }

  private:
    /// Of a point of the picture from its middle, in units of the view.
    struct Offset {
        double x, y;
    };
    Offset offset(double pixelX, double pixelY) const {
        double const scale = 2.0 * tanHalfHeight / height;
        return {(pixelX - width * 0.5) * scale, (height * 0.5 - pixelY) * scale};
    }
};

/// The smallest box around points, in double precision.
struct Bounds {
    Vec min;
    Vec max;

    Vec centre() const;
    double diagonal() const;
};

/// Bounds of points, of which there is at least one.
Bounds boundsOf(std::span<Kelpa::Vector const> points);

/// Places the camera as the options say; where they are silent, so that all spheres just fit, with
/// a margin of 5 %.
///
/// The pinhole is moved in its plane and drawn back until every sphere touches or lies inside each
/// of the four planes of the view: an exact fit of the spheres, not of a box around them. `origin`
/// is what has been subtracted from all centres; the options are in the file's coordinates.
Camera placeCamera(CameraOptions const& options, int width, int height, char upAxis,
                   std::span<Kelpa::Vector const> centers, std::span<float const> radii,
                   Vec const& origin);

/// The camera of picture `picture` of `options.turntable` that go once around the particles,
/// against the clock as seen from above.
///
/// The distance is the same for all: the sphere around all particles just fits, with the margin of
/// 5 %; with `options.eye` the eye's own. The axis is the upward direction through what is looked
/// at. A flat set is seen from the side as well.
Camera placeTurntable(CameraOptions const& options, int picture, int width, int height, char upAxis,
                      std::span<Kelpa::Vector const> centers, std::span<float const> radii,
                      Vec const& origin);

} // namespace kelpatool
