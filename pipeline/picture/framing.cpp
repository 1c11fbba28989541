// How far away the eye must be for every sphere to be seen whole.
#include "pipeline/picture/framing.h"

#include "pipeline/scene/bounds.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>
#include <stdexcept>

namespace pipeline {

namespace {

Vec axisUp(char upAxis) {
    return upAxis == 'y' ? Vec{0, 1, 0} : Vec{0, 0, 1};
}

/// A direction given for y up, turned for the wanted axis.
Vec turned(Vec const& v, char upAxis) {
    return upAxis == 'y' ? v : Vec{v.x, -v.z, v.y};
}

/// The axis along which the centres do not extend, or -1: such a set is seen face on.
int flatAxis(Bounds const& bounds) {
    double const extents[3] = {bounds.max.x - bounds.min.x, bounds.max.y - bounds.min.y,
                               bounds.max.z - bounds.min.z};
    double const widest = std::max({extents[0], extents[1], extents[2]});
    int const thinnest = static_cast<int>(std::min_element(extents, extents + 3) - extents);
    int others = 0;
    for (double const extent : extents)
        others += extent > 1e-3 * widest ? 1 : 0;
    return others == 2 && extents[thinnest] <= 1e-3 * widest ? thinnest : -1;
}

/// Towards the eye of whoever looks at one of the sides.
Vec directionOf(View view, char upAxis) {
    switch (view) {
    case View::front:
        return turned({0, 0, 1}, upAxis);
    case View::back:
        return turned({0, 0, -1}, upAxis);
    case View::left:
        return {-1, 0, 0};
    case View::right:
        return {1, 0, 0};
    case View::top:
        return turned({0, 1, 0}, upAxis);
    case View::bottom:
        return turned({0, -1, 0}, upAxis);
    case View::iso:
        break;
    }
    return turned({1, 0.6, 0.8}, upAxis);
}

/// From what is looked at towards the eye.
Vec viewDirection(CameraOptions const& options, char upAxis, Bounds const& bounds) {
    if (options.view)
        return directionOf(*options.view, upAxis);
    if (options.direction)
        return wide(*options.direction) * -1.0;
    switch (flatAxis(bounds)) {
    case 0:
        return {1, 0, 0};
    case 1:
        return upAxis == 'y' ? Vec{0, 1, 0} : Vec{0, -1, 0};
    case 2:
        return {0, 0, 1};
    default:
        return directionOf(View::iso, upAxis);
    }
}

/// How far spheres reach to both sides of a direction across the view.
struct Reach {
    double above = -std::numeric_limits<double>::infinity();
    double below = -std::numeric_limits<double>::infinity();

    void add(double high, double low) {
        above = std::max(above, high);
        below = std::max(below, low);
    }
    double width() const { return above + below; }
    double middle() const { return (above - below) / 2.0; }
};

/// Of what was found among the spheres that are here makes what is found among all.
void takeGreatest(FramedSpheres const& spheres, Reach& horizontal, Reach& vertical,
                  double& nearest) {
    double all[] = {horizontal.above, horizontal.below, vertical.above, vertical.below, nearest};
    spheres.takeGreatest(all);
    horizontal = {all[0], all[1]};
    vertical = {all[2], all[3]};
    nearest = all[4];
}

/// Draws a pinhole back, and moves it across, until all spheres fit.
///
/// A sphere at (y, z) in the camera's frame, z towards the eye, with radius r lies inside the upper
/// plane of a view of half angle a from distance D at height c when
/// D >= z + ((y - c) cos a + r) / sin a, and likewise for the lower. The largest of either side
/// over all spheres give the c for which both are least.
void fitPinhole(Camera& camera, double tanHalfWidth, double tanHalfHeight,
                FramedSpheres const& spheres) {
    struct Half {
        double cotangent;
        double perSine;
        Reach reach;
        explicit Half(double tangent)
            : cotangent(1.0 / tangent), perSine(std::sqrt(1.0 + cotangent * cotangent)) {}
        void add(double across, double depth, double radius) {
            reach.add(depth + across * cotangent + radius * perSine,
                      depth - across * cotangent + radius * perSine);
        }
    };
    Half horizontal(tanHalfWidth / marginFactor);
    Half vertical(tanHalfHeight / marginFactor);
    double nearest = -std::numeric_limits<double>::infinity();
    spheres.forEach([&](Kelpa::Vector const& center, float radius) {
        Vec const c = wide(center);
        double const depth = -dot(c, camera.forward);
        double const r = static_cast<double>(radius);
        horizontal.add(dot(c, camera.right), depth, r);
        vertical.add(dot(c, camera.up), depth, r);
        nearest = std::max(nearest, depth + r);
    });
    takeGreatest(spheres, horizontal.reach, vertical.reach, nearest);
    double const distance = std::max(horizontal.reach.width(), vertical.reach.width()) / 2.0;
    double const x = horizontal.reach.middle() / horizontal.cotangent;
    double const y = vertical.reach.middle() / vertical.cotangent;
    camera.eye = camera.right * x + camera.up * y - camera.forward * std::max(distance, nearest);
}

/// Fits parallel rays: half the height seen, and a plane in front of all spheres.
void fitParallel(Camera& camera, FramedSpheres const& spheres) {
    Reach horizontal;
    Reach vertical;
    double nearest = -std::numeric_limits<double>::infinity();
    spheres.forEach([&](Kelpa::Vector const& center, float radius) {
        Vec const c = wide(center);
        double const r = static_cast<double>(radius);
        double const x = dot(c, camera.right);
        double const y = dot(c, camera.up);
        horizontal.add(x + r, r - x);
        vertical.add(y + r, r - y);
        nearest = std::max(nearest, r - dot(c, camera.forward));
    });
    takeGreatest(spheres, horizontal, vertical, nearest);
    double const aspect = static_cast<double>(camera.width) / camera.height;
    camera.tanHalfHeight =
        marginFactor * std::max(vertical.width(), horizontal.width() / aspect) / 2.0;
    camera.eye = camera.right * horizontal.middle() + camera.up * vertical.middle() -
                 camera.forward * (nearest + camera.tanHalfHeight);
}

} // namespace

void orient(Camera& camera, Vec const& towardsEye, Vec wantedUp) {
    camera.forward = unit(towardsEye) * -1.0;
    // Seen along the wanted up direction, another one must do.
    if (std::abs(dot(camera.forward, unit(wantedUp))) > 0.9999)
        wantedUp = std::abs(camera.forward.y) < 0.9 ? Vec{0, 1, 0} : Vec{0, 0, -1};
    camera.right = unit(cross(camera.forward, wantedUp));
    camera.up = cross(camera.right, camera.forward);
}

Camera placeCamera(CameraOptions const& options, int width, int height, char upAxis,
                   FramedSpheres const& spheres, Vec const& origin) {
    bool const isPlaced = options.lookAt && (options.eye || options.view || options.direction);
    Bounds const bounds = isPlaced ? Bounds{} : spheres.bounds();
    char const axis = options.upAxis != '\0' ? options.upAxis : upAxis;
    Vec const up = options.up ? wide(*options.up) : axisUp(axis);
    Camera camera{};
    camera.width = width;
    camera.height = height;
    camera.isParallel = options.ortho;
    double const tanHalf = std::tan(options.fov * std::numbers::pi / 360.0);
    camera.tanHalfHeight = tanHalf;

    Vec const target = options.lookAt ? wide(*options.lookAt) - origin : bounds.centre();
    if (options.eye) {
        camera.eye = wide(*options.eye) - origin;
        Vec const towardsEye = camera.eye - target;
        if (!(dot(towardsEye, towardsEye) > 0.0))
            throw std::invalid_argument("the eye is where it looks at");
        orient(camera, towardsEye, up);
        if (options.ortho)
            camera.tanHalfHeight = tanHalf * std::sqrt(dot(towardsEye, towardsEye));
    } else {
        orient(camera, viewDirection(options, axis, bounds), up);
        if (options.ortho)
            fitParallel(camera, spheres);
        else
            fitPinhole(camera, tanHalf * width / height, tanHalf, spheres);
        if (options.lookAt) {
            // The distance stays; the eye moves across until it looks at the point.
            Vec const across = target - camera.eye;
            camera.eye = camera.eye + camera.right * dot(across, camera.right) +
                         camera.up * dot(across, camera.up);
        }
    }
    camera.tanHalfHeight /= options.zoom;
    return camera;
}

} // namespace pipeline
