// From a scene to a picture.
#pragma once

#include "pipeline/files/progress.h"
#include "pipeline/picture/camera.h"
#include "pipeline/picture/image.h"
#include "pipeline/picture/look.h"
#include "pipeline/picture/tile.h"
#include "pipeline/scene/scene.h"

#include <string>

namespace pipeline {

/// A picture to be rendered, tile by tile: by the command, a viewer, or one of many machines.
///
/// A scene that is read and built is shown from as many cameras as one likes (of a tile, the
/// picture takes one look at all particles). The scene, whose tree is built, stays as it is for as
/// long as the picture is used.
class Picture {
  public:
    /// What becomes of rays beside all particles. They are left out by a look at every particle,
    /// which takes some 5 ns each and pays for many samples. Asked of the tree they make the same
    /// picture, and it begins at once.
    enum class Sky { leftOut, traced };

    Picture(Scene const& scene, Camera const& camera, LightOptions const& light,
            ImageOptions const& image, Sky sky = Sky::leftOut);

    /// An image of the wanted part with the wanted channels, in which no particle shows.
    Image emptyImage() const;

    std::size_t tileCount() const;

    /// Renders tile number `tile`, below `tileCount()`, into `image`, which `emptyImage` has made
    /// or which an earlier picture of the same size and channels was rendered into.
    ///
    /// Every sample depends on its pixel, its number and the seed alone: tiles may be rendered in
    /// any order, and by any number of threads at once, each tile by one, with 1 MiB of stack
    /// left. The tile is left half done when `goOn`, which is asked every few milliseconds, says
    /// no.
    void renderTile(std::size_t tile, Image& image, Kelpa::GoOn const& goOn = {}) const;

    /// Adds samples `first` to `first` + `count` - 1 of the picture's to a tile that holds the ones
    /// before; in the end it is bit for bit what `renderTile` makes. On the way `rgb` and `alpha`
    /// hold sums that lack the others: times all samples over those so far they are the picture as
    /// far as it is known. Returns false where `goOn` ended the work.
    bool addSamples(std::size_t tile, std::uint32_t first, std::uint32_t count, Image& image,
                    Kelpa::GoOn const& goOn = {}) const;

    /// The same for at most `mostSamplesTogether` samples whose rays are answered later, see
    /// `RayTape`. Called until the tape knows all answers; only then they are added.
    bool addSamplesLater(std::size_t tile, std::uint32_t first, std::uint32_t count, Image& image,
                         RayTape& tape, Kelpa::GoOn const& goOn = {}) const;

    std::uint32_t samples() const { return plan.samples; }
    /// Rays that leave a surface, at most.
    std::uint32_t raysFromSurface() const;
    /// The upper left pixel of a tile, which may lie outside of the part that is wanted.
    TilePlace placeOf(std::size_t tile) const;

  private:
    ImageOptions options;
    PicturePlan plan;
    std::string tileLabel; ///< empty: the picture is rendered in one part
    int firstColumn;       ///< of tiles
    int firstRow;
    int columns;
    int rows;
};

/// Renders the scene, whose tree is built. `threads` is at least 1.
///
/// Every sample depends on its pixel, its number and the seed alone, so the picture is the same for
/// any number of threads and any crop. Throws `Interrupted` when `progress` does.
Image renderImage(Scene const& scene, Camera const& camera, ImageOptions const& frame,
                  LightOptions const& look, int threads, PhaseProgress const& progress);

} // namespace pipeline
