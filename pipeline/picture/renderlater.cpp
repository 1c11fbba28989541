// Tiles that take turns: while the rays of one step wait, the others' are made.
#include "pipeline/picture/renderlater.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <exception>
#include <optional>
#include <vector>

namespace pipeline {

namespace {

/// A tile on its way through the samples.
struct Visit {
    std::size_t tile = 0;
    std::uint32_t done = 0; ///< samples
    bool isOver = true;
};

/// The tiles that are at work, and those that wait for their turn.
class Turns {
  public:
    Turns(Picture const& thePicture, std::span<std::size_t const> allTiles, Image& theImage,
          WaitingOptions const& waiting)
        : picture(thePicture), tiles(allTiles), image(theImage), options(waiting),
          visits(placesAtOnce()), tapes(visits.size()) {}

    /// Gives each tile at work its next step, and others their turn where one is done, until all
    /// of these wait for rays.
    void goOn(Kelpa::GoOn const& watch) {
        auto const step = [&](std::size_t i, Kelpa::GoOn const& mayGoOn) {
            while (beginIfOver(visits[i], tapes[i]) && goOn(visits[i], tapes[i], mayGoOn)) {
                // The next samples, or the next tile.
            }
        };
        Kelpa::doPieces(visits.size(), options.threads, step, watch);
    }
    std::span<RayTape> waiting() { return tapes; }
    double partDone() const {
        return tiles.empty() ? 1.0
                             : static_cast<double>(finished) / static_cast<double>(tiles.size());
    }

  private:
    /// So many tiles at a time that there is room for all rays of a step of each, but no more than
    /// for its camera rays.
    std::size_t placesAtOnce() const {
        std::size_t const cameraRays =
            pixelsPerTile * std::min(picture.samples(), mostSamplesTogether);
        std::size_t const most = cameraRays * std::max(picture.raysFromSurface(), 1U);
        std::size_t const wanted = options.raysAtATime / std::min(most, 2 * mostCameraRays);
        return std::clamp<std::size_t>(wanted, 1, std::max<std::size_t>(tiles.size(), 1));
    }

    /// False when there is no tile left.
    bool beginIfOver(Visit& visit, RayTape& tape) {
        if (!visit.isOver)
            return true;
        tape.clear();
        std::size_t const turn = begun++;
        if (turn >= tiles.size())
            return false;
        visit = {tiles[turn], 0, false};
        return true;
    }

    /// False when the tile waits, or is to wait for ever.
    bool goOn(Visit& visit, RayTape& tape, Kelpa::GoOn const& mayGoOn) {
        tape.rewind(std::max(options.raysAtATime / visits.size(), mostCameraRays));
        std::uint32_t const count = std::min(picture.samples() - visit.done, mostSamplesTogether);
        if (!picture.addSamplesLater(visit.tile, visit.done, count, image, tape, mayGoOn) ||
            tape.lacksAnswers())
            return false;
        tape.clear();
        visit.done += count;
        visit.isOver = visit.done == picture.samples();
        finished += visit.isOver ? 1 : 0;
        return true;
    }

    static constexpr std::size_t mostCameraRays = pixelsPerTile * mostSamplesTogether;

    Picture const& picture;
    std::span<std::size_t const> tiles;
    Image& image;
    WaitingOptions const& options;
    std::vector<Visit> visits;
    std::vector<RayTape> tapes; ///< of each visit
    std::atomic<std::size_t> begun = 0;
    std::atomic<std::size_t> finished = 0;
};

} // namespace

void renderTilesLater(Picture const& picture, std::span<std::size_t const> tiles,
                      RayExchange& exchange, Image& image, WaitingOptions const& options,
                      PhaseProgress const& progress) {
    std::optional<Turns> turns;
    auto const watch = [&] {
        if (progress)
            progress(turns->partDone(), 0);
        return true; // it throws to stop
    };
    std::exception_ptr failure;
    do {
        try {
            if (!turns)
                turns.emplace(picture, tiles, image, options);
            turns->goOn(watch);
        } catch (...) {
            failure = std::current_exception();
        }
    } while (exchange.answer(turns ? turns->waiting() : std::span<RayTape>(), failure, watch));
}

} // namespace pipeline
