// A plane that cuts the particles open, or a slab of them.
#include "view/cut.h"

#include <fmt/format.h>

namespace pipeline::view {

namespace {

/// An axis by its letter, any other direction by its numbers, with every digit.
std::string directionText(Vec const& v) {
    if (v.y == 0.0 && v.z == 0.0)
        return v.x < 0.0 ? "-x" : "x";
    if (v.x == 0.0 && v.z == 0.0)
        return v.y < 0.0 ? "-y" : "y";
    if (v.x == 0.0 && v.y == 0.0)
        return v.z < 0.0 ? "-z" : "z";
    return fmt::format("{},{},{}", v.x, v.y, v.z);
}

std::string sliceText(Vec const& normal, double at) {
    return fmt::format("{}:{}", directionText(normal), at + 0.0); // and no -0
}

} // namespace

bool Cut::operator==(Cut const& other) const {
    return normal.x == other.normal.x && normal.y == other.normal.y && normal.z == other.normal.z &&
           at == other.at && thickness == other.thickness;
}

std::vector<std::string> slicesOf(Cut const& cut) {
    std::vector<std::string> slices = {sliceText(cut.normal, cut.at)};
    if (cut.thickness)
        slices.push_back(sliceText(cut.normal * -1.0, *cut.thickness - cut.at));
    return slices;
}

} // namespace pipeline::view
