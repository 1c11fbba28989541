// Columns and boxes of LAMMPS dumps.
#include "pipeline/files/formats/lammps/lammpscolumns.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>

namespace pipeline {

namespace {

using std::array;

constexpr VectorColumns unwrapped = {"xu yu zu", {"xu", "yu", "zu"}};
constexpr VectorColumns wrapped = {"x y z", {"x", "y", "z"}};
constexpr VectorColumns scaledUnwrapped = {"xsu ysu zsu", {"xsu", "ysu", "zsu"}};
constexpr VectorColumns scaled = {"xs ys zs", {"xs", "ys", "zs"}};

constexpr VectorColumns positionNames[] = {unwrapped, wrapped};
constexpr VectorColumns velocityNames[] = {{"vx vy vz", {"vx", "vy", "vz"}}};
constexpr VectorColumns imageNames[] = {{"ix iy iz", {"ix", "iy", "iz"}}};
constexpr VectorColumns noImages[] = {{"", {"", "", ""}}};

bool hasAll(RowLayout const& layout, VectorColumns const& vector) {
    return std::all_of(std::begin(vector.names), std::end(vector.names),
                       [&](std::string_view name) { return layout.find(name) != nullptr; });
}

/// Turns scaled coordinates of a row, fractions of the cell's edges, into places.
class Unscaler {
  public:
    Unscaler(RowLayout& layout, VectorColumns const& from, VectorColumns const& to,
             PeriodicCell const& box)
        : cell(box) {
        for (std::string_view const name : to.names)
            layout.addDerived(std::string(name));
        for (std::size_t axis = 0; axis < 3; ++axis) {
            sources[axis] = layout.find(from.names[axis])->offset;
            targets[axis] = layout.find(to.names[axis])->offset;
        }
    }

    void operator()(char* row) const {
        array<double, 3> place = cell.origin;
        for (std::size_t edge = 0; edge < 3; ++edge) {
            double fraction = 0.0;
            std::memcpy(&fraction, row + sources[edge], sizeof fraction);
            for (std::size_t axis = 0; axis < 3; ++axis)
                place[axis] += fraction * cell.edges[edge][axis];
        }
        for (std::size_t axis = 0; axis < 3; ++axis)
            std::memcpy(row + targets[axis], &place[axis], sizeof place[axis]);
    }

  private:
    PeriodicCell cell;
    array<std::size_t, 3> sources{};
    array<std::size_t, 3> targets{};
};

} // namespace

PeriodicCell cellOfBounds(array<array<double, 4>, 3> const& lines, bool isTilted, bool isGeneral) {
    PeriodicCell cell;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        if (isGeneral) {
            std::copy_n(lines[axis].begin(), 3, cell.edges[axis].begin());
            cell.origin[axis] = lines[axis][3];
        } else {
            cell.origin[axis] = lines[axis][0];
            cell.edges[axis][axis] = lines[axis][1] - lines[axis][0];
        }
    }
    if (isTilted && !isGeneral) {
        double const xy = lines[0][2];
        double const xz = lines[1][2];
        double const yz = lines[2][2];
        double const lowX = std::min({0.0, xy, xz, xy + xz});
        double const highX = std::max({0.0, xy, xz, xy + xz});
        cell.origin[0] -= lowX;
        cell.edges[0][0] -= highX - lowX;
        cell.origin[1] -= std::min(0.0, yz);
        cell.edges[1][1] -= std::abs(yz);
        cell.edges[1][0] = xy;
        cell.edges[2][0] = xz;
        cell.edges[2][1] = yz;
    }
    return cell;
}

DumpPlaces::DumpPlaces(RowLayout const& layout, bool forMotion) {
    for (VectorColumns const* const choice : {&unwrapped, forMotion ? &scaledUnwrapped : &wrapped,
                                              forMotion ? &wrapped : &scaledUnwrapped, &scaled})
        if (from == nullptr && hasAll(layout, *choice))
            from = choice;
}

std::string_view DumpPlaces::fractions() const {
    return from == &scaled || from == &scaledUnwrapped ? from->source : std::string_view();
}

bool DumpPlaces::isWrapped() const {
    return from == &wrapped || from == &scaled;
}

std::function<void(char* row)> DumpPlaces::derive(RowLayout& layout,
                                                  PeriodicCell const& cell) const {
    return Unscaler(layout, *from, isWrapped() ? wrapped : unwrapped, cell);
}

ColumnNames DumpPlaces::names(bool hasElements) const {
    return {"column",
            positionNames,
            {},
            velocityNames,
            "element",
            isWrapped() ? imageNames : noImages,
            hasElements ? "" : "type"};
}

} // namespace pipeline
