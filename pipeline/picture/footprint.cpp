// Counts, cell by cell of a picture, which spheres may show there.
#include "pipeline/picture/footprint.h"

#include "kelpa/foundation/usableparticles.h"

#include <algorithm>
#include <cmath>

namespace pipeline {

namespace {

/// The cells from column `x0` to `x1` of the rows from `y0` to `y1`.
struct Block {
    std::int32_t x0, x1, y0, y1;
    bool operator==(Block const&) const = default;
};

Block around(Block const& a, Block const& b) {
    return {std::min(a.x0, b.x0), std::max(a.x1, b.x1), std::min(a.y0, b.y0), std::max(a.y1, b.y1)};
}

bool isFinite(Snapshot const& system, std::size_t particle) {
    return Kelpa::isFinite(system.positions[particle]) && std::isfinite(system.radii[particle]);
}

/// Spheres that cover what a lens makes of others: to a point at depth z it adds a disk, which is
/// the picture of one of radius `lensRadius` * |z / focus - 1| at the same depth.
///
/// Of moving spheres too: what is added is convex in z, so that between its ends such a sphere
/// stays within the hull of both.
class ThroughLens {
  public:
    explicit ThroughLens(Camera const& seenBy) : camera(seenBy) {}

    /// Radii for `count` spheres; those that are given where there is no lens.
    float const* radii(std::size_t count, Kelpa::Vector const* centers, float const* given) {
        if (!(camera.lensRadius > 0.0))
            return given;
        for (std::size_t i = 0; i < count; ++i) {
            double const depth = dot(wide(centers[i]) - camera.eye, camera.forward);
            double const radius = static_cast<double>(given[i]);
            double const unsharp = std::max(std::abs((depth - radius) / camera.focus - 1.0),
                                            std::abs((depth + radius) / camera.focus - 1.0));
            // A little more, for what rounding takes.
            larger[i] = static_cast<float>(1.00001 * (radius + camera.lensRadius * unsharp));
        }
        return larger;
    }

    static constexpr std::size_t most = 256; ///< spheres at a time

  private:
    Camera const& camera;
    float larger[most];
};

} // namespace

/// Counts, for each cell, the blocks that it lies in.
///
/// A block is entered at its corners alone, whatever its size: the sums over all cells to the left
/// and above are the counts (F. C. Crow, "Summed-Area Tables for Texture Mapping", 1984, the other
/// way round).
class Footprint::Marks {
  public:
    explicit Marks(CellGrid const& grid)
        : columns(static_cast<std::size_t>(grid.columns) + 1),
          corners(columns * (static_cast<std::size_t>(grid.rows) + 1)) {}

    void add(Block const& block) {
        if (block.x0 > block.x1 || block.y0 > block.y1)
            return;
        auto const at = [this](std::int32_t x, std::int32_t y) -> std::int64_t& {
            return corners[static_cast<std::size_t>(y) * columns + static_cast<std::size_t>(x)];
        };
        ++at(block.x0, block.y0);
        --at(block.x1 + 1, block.y0);
        --at(block.x0, block.y1 + 1);
        ++at(block.x1 + 1, block.y1 + 1);
    }

    /// Adds the blocks of all ranks.
    void addThoseOf(RayTransport& ranks) { ranks.fold(RayTransport::Fold::sum, corners); }

    std::vector<char> reached() {
        std::vector<char> cells;
        cells.reserve(corners.size());
        std::vector<std::int64_t> above(columns);
        for (std::size_t row = 0; row + columns < corners.size(); row += columns) {
            std::int64_t along = 0;
            for (std::size_t x = 0; x + 1 < columns; ++x) {
                along += corners[row + x];
                above[x] += along;
                cells.push_back(above[x] != 0 ? 1 : 0);
            }
        }
        return cells;
    }

  private:
    std::size_t columns;
    std::vector<std::int64_t> corners;
};

void Footprint::layOut(int left, int top, int right, int bottom) {
    // Cells begin at even pixels, as tiles do.
    grid = {left / cellWidth * cellWidth, top / cellWidth * cellWidth, cellWidth, 0, 0};
    grid.columns = (right - 1 - grid.left) / cellWidth + 1;
    grid.rows = (bottom - 1 - grid.top) / cellWidth + 1;
}

Footprint::Footprint(std::vector<Kelpa::Vector> const& centers, std::vector<float> const& radii,
                     Camera const& camera, int left, int top, int right, int bottom) {
    layOut(left, top, right, bottom);
    Marks marks(grid);
    ThroughLens lens(camera);
    for (std::size_t i = 0; i < centers.size(); ++i) {
        Block block{};
        laneKernels().back().findBlocks(camera, grid, 1, &centers[i],
                                        lens.radii(1, &centers[i], &radii[i]),
                                        {&block.x0, &block.x1, &block.y0, &block.y1});
        marks.add(block);
    }
    reached = marks.reached();
}

Footprint::Footprint(Scene const& scene, Camera const& camera, int left, int top, int right,
                     int bottom) {
    layOut(left, top, right, bottom);
    Marks marks(grid);
    mark(scene, camera, marks);
    if (scene.sharers != nullptr)
        marks.addThoseOf(*scene.sharers);
    reached = marks.reached();
}

void Footprint::mark(Scene const& scene, Camera const& camera, Marks& marks) const {
    LaneKernels const& kernels = laneKernels().back();
    constexpr std::size_t most = ThroughLens::most;
    ThroughLens lens(camera);
    std::int32_t ends[2][4][most];
    auto const find = [&](Snapshot const& system, int end, std::size_t begin, std::size_t count) {
        auto& [x0, x1, y0, y1] = ends[end];
        Kelpa::Vector const* const centers = system.positions.data() + begin;
        kernels.findBlocks(camera, grid, count, centers,
                           lens.radii(count, centers, system.radii.data() + begin),
                           {x0, x1, y0, y1});
    };
    auto const blockAt = [&](int end, std::size_t i) {
        auto const& [x0, x1, y0, y1] = ends[end];
        return Block{x0[i], x1[i], y0[i], y1[i]};
    };
    Block const whole{0, grid.columns - 1, 0, grid.rows - 1};
    Block const behind{grid.columns, -1, grid.rows, -1};
    std::size_t const total = scene.first->radii.size();
    for (std::size_t begin = 0; begin < total; begin += most) {
        std::size_t const count = std::min(most, total - begin);
        find(*scene.first, 0, begin, count);
        if (scene.second != nullptr)
            find(*scene.second, 1, begin, count);
        for (std::size_t i = 0; i < count; ++i) {
            if (!isFinite(*scene.first, begin + i))
                continue; // no tree takes it
            Block const block = blockAt(0, i);
            if (scene.second == nullptr) {
                marks.add(block);
                continue;
            }
            Block const last = blockAt(1, i);
            // Between its ends a sphere stays within the hull of both, and the picture of a hull
            // within the block around the pictures of its ends, if both are in front of the eye.
            marks.add((block == behind) != (last == behind) ? whole : around(block, last));
        }
    }
}

} // namespace pipeline
