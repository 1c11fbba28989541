// Brings rays to blocks that are not all at hand, and answers home.
#pragma once

#include "kelpa/host/pieces.h"

#include "pipeline/scene/blocktrees.h"
#include "pipeline/scene/bunch.h"
#include "pipeline/scene/raytape.h"
#include "pipeline/scene/raytransport.h"
#include "pipeline/scene/scene.h"

#include <cstdint>
#include <mutex>
#include <span>
#include <vector>

namespace pipeline {

/// What a rank has done for pictures.
struct RankFigures {
    std::uint64_t rays = 0;      ///< answered, of its own
    std::uint64_t asked = 0;     ///< of its blocks, each time anew
    std::uint64_t sent = 0;      ///< to other ranks, each time anew
    std::uint64_t sentBytes = 0; ///< of rays and answers
    std::uint64_t rounds = 0;    ///< over its blocks
    std::uint64_t exchanges = 0; ///< with other ranks
    double waitingSeconds = 0.0; ///< for other ranks
    double busySeconds = 0.0;

    RankFigures& operator+=(RankFigures const& other);
};

/// Rays that wait for their next block or travel to it.
///
/// Each ray enters its blocks in the order of the top tree, one after the other, and each block is
/// asked what it would be asked if all were in memory: so the answers are the same bit for bit
/// wherever blocks are and whenever rays come to them. A round asks all rays at hand, block by
/// block, each pinned once and given lists of 64; then rays whose next block another rank has go
/// there, and hits go home, where the closest counts.
class RayExchange {
  public:
    /// For the rays of a scene that has been built; `blocks` are its own, or those of a rank. They,
    /// `scene` and `transport` outlive it. `threads` is at least 1.
    RayExchange(Scene const& scene, BlockTrees& blocks, RayTransport& transport, int threads);

    /// Answers all rays that the tapes have written down; `watch` is asked on this thread, and may
    /// throw. All ranks call it together. Returns false when no rank had rays. With a `failure`, or
    /// when another rank has one, all give up by an exception.
    bool answer(std::span<RayTape> tapes, std::exception_ptr failure, Kelpa::GoOn const& watch);

    RankFigures const& figures() const { return done; }

  private:
    /// Rays that a block is asked together.
    struct Errand {
        std::int32_t block;
        bool isYesOrNo;
        std::size_t begin; ///< in `atHand`
        std::size_t end;
    };
    /// Where a ray's answer goes.
    struct Place {
        std::uint32_t tape;
        std::uint32_t number;
    };
    class Findings;

    void setOut(Kelpa::GoOn const& watch);
    void askAtHand(Kelpa::GoOn const& watch);
    std::vector<Errand> sortToBlocks();
    void run(Errand const& errand);
    void fill(Bunch& bunch, std::span<TravellingRay const> rays) const;
    void askHits(Geometry& tree, std::span<TravellingRay> rays, Findings& findings);
    void askYesOrNo(Geometry& tree, std::span<TravellingRay> rays, Findings& findings);
    void takeHit(TravellingRay& ray, HomingHit const& hit, Findings& findings);
    void advance(TravellingRay& ray) const;
    void hold(HomingHit const& hit);
    void hold(HomingDistance const& distance);
    void holdOccluded(std::uint32_t place);
    std::int64_t swapParcels();

    Scene const& scene;
    BlockTrees& blocks;
    TopTree const& top;
    RayTransport& transport;
    int threads;
    std::span<RayTape> tapes; ///< that are being answered
    std::vector<Place> places;
    std::vector<TravellingRay> atHand; ///< sorted by block while they are asked
    std::vector<TravellingRay> sorted; ///< room for them
    std::vector<std::size_t> starts;   ///< of blocks, while they are sorted
    std::mutex mutex;                  ///< guards `parcels`
    std::vector<Parcel> parcels;       ///< for each rank
    std::int64_t underWay = 0;         ///< what this rank has sent, less what it has received
    RankFigures done;
};

} // namespace pipeline
