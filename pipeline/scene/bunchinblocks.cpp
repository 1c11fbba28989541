// Takes the rays of a bunch from block to block.
#include "pipeline/scene/blockgeometry.h"
#include "pipeline/scene/raysinblocks.h"

#include <algorithm>
#include <span>
#include <utility>

namespace pipeline {

using Kelpa::RayBunchCommonResult;
using Kelpa::RayBunchExtParams;

/// The rays of a bunch that go from block to block, and are asked in one at a time.
class BlockGeometry::BunchOnItsWay {
  public:
    /// The search of ray k ends at `ends[k]`.
    BunchOnItsWay(BlockGeometry& all, RayBunchExtParams const& bunch, double const* starts,
                  std::span<unsigned char const> listed, double const* ends)
        : geometry(all), rays(bunch), tMins(starts), lanes(listed.data()),
          ways(all.top, bunch, starts, listed, ends) {
        for (unsigned char const lane : listed)
            startsOnParticle |= rays.skipIndex[lane] >= 0;
    }

    /// Goes on to the rays that are to be asked next. False when none is left.
    bool gather() {
        if (!ways.gather())
            return false;
        numAsked = 0;
        for (unsigned char const k : ways.asked())
            askedLanes[numAsked++] = lanes[k];
        if (!ways.areApart())
            return true;
        unsigned i = 0;
        for (unsigned char const k : ways.asked())
            trees[i++] = geometry.trees[static_cast<std::size_t>(ways.blockOf(k))];
        return true;
    }

    /// Asks the gathered rays, none of which has been hit before, up to their `ends`. What is found
    /// is written straight to the hits. Returns the rays that were hit, a bit for each.
    std::uint64_t findFirst(RayBunchCommonResult& hits, double* ends) {
        unsigned char before[64]; // hits elsewhere
        unsigned count = 0;
        for (unsigned char const k : ways.asked()) {
            askedEnds[count] = ends[k];
            before[count++] = std::exchange(hits.hit[lanes[k]], std::uint8_t{0});
        }
        trace(hits);
        std::uint64_t areHit = 0;
        count = 0;
        for (unsigned char const k : ways.asked()) {
            unsigned char const lane = lanes[k];
            if (hits.hit[lane] != 0) {
                areHit |= std::uint64_t{1} << k;
                ends[k] = hits.hitT[lane];
                hits.hitIndex[lane] += geometry.baseOf(ways.blockOf(k));
                hits.hitLocalIndex[lane] = static_cast<std::int32_t>(hits.hitIndex[lane]);
            } else {
                hits.hit[lane] = before[count];
            }
            ++count;
            ways.advance(k, ends[k]);
        }
        return areHit;
    }

    /// Asks the gathered rays for hits that are closer than those of the rays that have been hit.
    std::uint64_t findCloser(RayBunchCommonResult& hits, RayBunchCommonResult& found, double* ends,
                             std::uint64_t areHit) {
        unsigned count = 0;
        for (unsigned char const k : ways.asked()) {
            double const end = (areHit >> k & 1U) != 0 ? searchEnd(ends[k]) : ends[k];
            askedEnds[count++] = end;
            found.hit[lanes[k]] = 0;
            found.hitT[lanes[k]] = end;
        }
        trace(found);
        std::uint64_t areFound = 0;
        for (unsigned char const k : ways.asked()) {
            unsigned char const lane = lanes[k];
            if (found.hit[lane] != 0) {
                std::int64_t const index = found.hitIndex[lane] + geometry.baseOf(ways.blockOf(k));
                double const t = found.hitT[lane];
                if ((areHit >> k & 1U) == 0 ||
                    geometry.isCloser(t, index, ends[k], hits.hitIndex[lane])) {
                    areFound |= std::uint64_t{1} << k;
                    ends[k] = t;
                    takeHit(found, hits, lane, index);
                }
            }
            ways.advance(k, ends[k]);
        }
        return areFound;
    }

    std::uint64_t occluded() {
        if (mayBeAskedApart())
            return trees[0]->bunchOccludedApart(trees, raysInBlocks(), tMins, askedEnds, askedLanes,
                                                numAsked);
        std::uint64_t all = 0;
        forEachTree([&](Geometry& tree, unsigned first, unsigned count) {
            all |= tree.bunchOccluded(raysInBlocks(), tMins, askedEnds + first, askedLanes + first,
                                      count);
        });
        return all;
    }

    BlockGeometry& geometry;
    RayBunchExtParams const& rays;
    double const* tMins;
    unsigned char const* lanes;
    RaysInBlocks ways;
    double askedEnds[64]; ///< of the gathered rays, in their order

  private:
    static void takeHit(RayBunchCommonResult const& from, RayBunchCommonResult& to,
                        unsigned char lane, std::int64_t index) {
        to.hit[lane] = from.hit[lane];
        to.hitT[lane] = from.hitT[lane];
        to.hitPrimitive[lane] = from.hitPrimitive[lane];
        to.hitIndex[lane] = index;
        to.hitNormalX[lane] = from.hitNormalX[lane];
        to.hitNormalY[lane] = from.hitNormalY[lane];
        to.hitNormalZ[lane] = from.hitNormalZ[lane];
        to.hitLocalIndex[lane] = static_cast<std::int32_t>(index);
    }

    /// Asks the gathered rays, whose searches end at `askedEnds`.
    void trace(RayBunchCommonResult& found) {
        if (mayBeAskedApart()) {
            trees[0]->bunchIntersectApart(trees, raysInBlocks(), found, tMins, askedEnds,
                                          askedLanes, numAsked);
            return;
        }
        forEachTree([&](Geometry& tree, unsigned first, unsigned count) {
            tree.bunchIntersect(raysInBlocks(), found, const_cast<double*>(tMins), // not written
                                askedEnds + first, askedLanes + first, count);
        });
    }

    bool mayBeAskedApart() const { return ways.areApart() && trees[0] != nullptr; }

    /// Calls `ask` for the tree of all gathered rays, or for that of each: one at a time, since
    /// those that come and go are held no longer than they are asked.
    template <class Ask> void forEachTree(Ask const& ask) {
        if (!ways.areApart())
            return ask(*geometry.treeOf(ways.blockOf(ways.asked()[0]), pin), 0U, numAsked);
        for (unsigned i = 0; i < numAsked; ++i)
            ask(*geometry.treeOf(ways.blockOf(ways.asked()[i]), pin), i, 1U);
    }

    /// The rays as their blocks know them: particles have other numbers there.
    RayBunchExtParams const& raysInBlocks() {
        if (!startsOnParticle)
            return rays;
        if (!isCopied)
            named = rays;
        isCopied = true;
        for (unsigned char const k : ways.asked())
            named.skipIndex[lanes[k]] = geometry.placeIn(ways.blockOf(k), rays.skipIndex[lanes[k]]);
        return named;
    }

    unsigned numAsked = 0;
    unsigned char askedLanes[64];
    Geometry* trees[64]; ///< where rays are apart, that of each; null for trees that come and go
    BlockStore::Pin pin;
    bool startsOnParticle = false;
    bool isCopied = false;
    RayBunchExtParams named;
};

bool BlockGeometry::bunchIntersect(RayBunchExtParams const& rays, RayBunchCommonResult& hits,
                                   double* tMins, double* tMaxs, unsigned char const* lanes,
                                   unsigned long numLanes) {
    double ends[64] = {};
    for (unsigned k = 0; k < numLanes; ++k)
        ends[k] = std::min(hits.hitT[lanes[k]], tMaxs[k]);
    BunchOnItsWay bunch(*this, rays, tMins, {lanes, numLanes}, ends);
    std::uint64_t areHit = 0; // by ray
    RayBunchCommonResult found;
    while (bunch.gather())
        areHit |= (bunch.ways.askedBits() & areHit) == 0
                      ? bunch.findFirst(hits, ends)
                      : bunch.findCloser(hits, found, ends, areHit);
    if (areHit != 0)
        hits.noHits = false;
    return areHit != 0;
}

std::uint64_t BlockGeometry::bunchOccluded(RayBunchExtParams const& rays, double const* tMins,
                                           double const* tMaxs, unsigned char const* lanes,
                                           unsigned long numLanes) {
    BunchOnItsWay bunch(*this, rays, tMins, {lanes, numLanes}, tMaxs);
    std::uint64_t occluded = 0;
    while (bunch.gather()) {
        unsigned count = 0;
        for (unsigned char const k : bunch.ways.asked())
            bunch.askedEnds[count++] = tMaxs[k];
        std::uint64_t const found = bunch.occluded();
        occluded |= found;
        for (unsigned char const k : bunch.ways.asked()) {
            if ((found >> lanes[k] & 1U) != 0)
                bunch.ways.finish(k);
            else
                bunch.ways.advance(k, tMaxs[k]);
        }
    }
    return occluded;
}

} // namespace pipeline
