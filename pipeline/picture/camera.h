// The rays of a picture.
#pragma once

#include "kelpa/foundation/hosttypes.h"
#include "kelpa/foundation/vector.h"

#include "pipeline/scene/vec.h"

#include <array>
#include <optional>

namespace pipeline {

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
    // Of a pinhole that is a lens; all in its plane of focus is sharp.
    double lensRadius = 0.0;
    double focus = 1.0; ///< how far away that plane is, along `forward`

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

    /// Where a point of the scene is seen, in pixels; nowhere when it is not before the eye.
    std::optional<std::array<double, 2>> pixelOf(Vec const& point) const {
        Vec const away = point - eye;
        double const depth = isParallel ? 1.0 : dot(away, forward);
        double const scale = 2.0 * tanHalfHeight * depth / height;
        if (!(depth > 0.0))
            return std::nullopt;
        return {{width * 0.5 + dot(away, right) / scale, height * 0.5 - dot(away, up) / scale}};
    }

    /// From places in the file's coordinates to the camera's frame, which looks along -z; and on to
    /// -1 to 1 across the picture, with 1 - 1 / depth behind them, or the depth of parallel rays.
    /// Row vectors are multiplied by these. `origin` is what has been subtracted from places.
    std::array<float, 16> worldToCamera(Vec const& origin) const;
    std::array<float, 16> worldToNdc(Vec const& origin) const;
    /// The vertical angle in degrees; 0 of parallel rays.
    double fov() const;

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

} // namespace pipeline
