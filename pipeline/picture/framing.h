// Where a camera stands: as asked for, or so that all spheres just fit.
#pragma once

#include "kelpa/foundation/vector.h"

#include "pipeline/picture/camera.h"
#include "pipeline/scene/framedspheres.h"
#include "pipeline/scene/vec.h"

#include <optional>
#include <span>
#include <utility>

namespace pipeline {

/// Sides from which particles are seen.
enum class View { front, back, left, right, top, bottom, iso };
inline constexpr std::pair<char const*, View> viewNames[] = {
    {"front", View::front}, {"back", View::back},     {"left", View::left}, {"right", View::right},
    {"top", View::top},     {"bottom", View::bottom}, {"iso", View::iso}};

struct CameraOptions {
    std::optional<View> view;
    std::optional<Kelpa::Vector> direction; ///< of sight, where there is no view
    std::optional<Kelpa::Vector> eye;
    std::optional<Kelpa::Vector> lookAt;
    std::optional<Kelpa::Vector> up;
    char upAxis = '\0'; ///< '\0': the format's
    double fov = 35.0;  ///< vertical, degrees
    bool ortho = false;
    double zoom = 1.0;
    double aperture = 0.0;       ///< diameter of the lens; 0: a pinhole
    std::optional<double> focus; ///< how far away is sharp; unset: what the camera looks at
    int turntable = 0;           ///< pictures of one turn; 0: no turn
};

constexpr double marginFactor = 1.05; ///< the part of the picture around the particles

/// Places the camera as the options say; where they are silent, so that all spheres just fit, with
/// a margin of 5 %.
///
/// The pinhole is moved in its plane and drawn back until every sphere touches or lies inside each
/// of the four planes of the view: an exact fit of the spheres, not of a box around them. `origin`
/// is what has been subtracted from all centres; the options are in the file's coordinates.
/// Throws `std::invalid_argument` when the eye is where it looks at.
Camera placeCamera(CameraOptions const& options, int width, int height, char upAxis,
                   FramedSpheres const& spheres, Vec const& origin);

/// Turns the camera's axes so that it looks from `towardsEye`, which is not zero, to the origin. Of
/// its picture `wantedUp` is up, as far as can be.
void orient(Camera& camera, Vec const& towardsEye, Vec wantedUp);

/// A camera, and what turntables turn it around. In coordinates of the scene.
struct Sight {
    Camera camera;
    Vec target; ///< what it looks at
    Vec axis;   ///< upward, of length 1

    /// The camera after so many turns around the axis through the target, against the clock as seen
    /// from above.
    Camera turned(double turns) const;
};

/// Gives the camera the lens that the options ask for, if it is a pinhole.
void setLens(CameraOptions const& options, Sight& sight);

/// A camera that looks at the point of its axis which is as far away as `centre`.
Sight sightOf(Camera const& camera, Vec const& centre);

/// The camera that pictures going once around the particles begin with.
///
/// Turned, it sees all of them from everywhere: the sphere around all particles just fits, with the
/// margin of 5 %; with `options.eye` the eye stays where it is. The axis is the upward direction. A
/// flat set is seen from the side as well.
Sight placeTurntable(CameraOptions const& options, int width, int height, char upAxis,
                     FramedSpheres const& spheres, Vec const& origin);

} // namespace pipeline
