// Rounds of rays: sorted to blocks, asked, sent on, answered.
#include "pipeline/scene/rayexchange.h"

#include <algorithm>
#include <chrono>
#include <numeric>
#include <stdexcept>
#include <utility>

namespace pipeline {

namespace {

// So many rays at a time are one thread's: enough for many full lists, few enough to deal out.
constexpr std::size_t raysAtOnce = 4096;

BoxRay boxRayOf(TravellingRay const& ray) {
    return {ray.origin[0], ray.origin[1], ray.origin[2], ray.dir, ray.tMin};
}

double secondsSince(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

/// What work throws, if anything.
template <class Work> std::exception_ptr failureOf(Work const& work) {
    try {
        work();
    } catch (...) {
        return std::current_exception();
    }
    return nullptr;
}

} // namespace

RankFigures& RankFigures::operator+=(RankFigures const& other) {
    rays += other.rays;
    asked += other.asked;
    sent += other.sent;
    sentBytes += other.sentBytes;
    rounds += other.rounds;
    exchanges += other.exchanges;
    waitingSeconds += other.waitingSeconds;
    busySeconds += other.busySeconds;
    return *this;
}

/// What an errand has found for rays of other ranks, until it ends.
class RayExchange::Findings {
  public:
    struct ForHome {
        int home;
        Wanted kind;
        HomingHit hit;
    };
    std::vector<ForHome> all;
};

RayExchange::RayExchange(Scene const& theScene, BlockTrees& theBlocks, RayTransport& theTransport,
                         int threadCount)
    : scene(theScene), blocks(theBlocks), top(theBlocks.topTree()), transport(theTransport),
      threads(threadCount), parcels(static_cast<std::size_t>(theTransport.ranks())) {
    if (transport.ranks() > TravellingRay::endOfHomes)
        throw std::invalid_argument("more ranks than rays can tell apart");
}

bool RayExchange::answer(std::span<RayTape> askedTapes, std::exception_ptr failure,
                         Kelpa::GoOn const& watch) {
    tapes = askedTapes;
    std::int64_t mine = 0;
    if (failure == nullptr) {
        failure = failureOf([&] { setOut(watch); });
        mine = static_cast<std::int64_t>(places.size());
    }
    if (transport.agree(mine, failure) == 0)
        return false;
    done.rays += places.size();
    while (true) {
        failure = failureOf([&] {
            while (!atHand.empty())
                askAtHand(watch);
        });
        if (transport.ranks() == 1 && failure == nullptr)
            return true;
        auto const begin = std::chrono::steady_clock::now();
        std::int64_t left = 0;
        if (auto const another = failureOf([&] { left = swapParcels(); }))
            failure = another;
        std::int64_t const all = transport.agree(left, failure);
        done.waitingSeconds += secondsSince(begin);
        if (all == 0)
            return true;
    }
}

/// Gives all rays that were written down their places at home and their first blocks.
void RayExchange::setOut(Kelpa::GoOn const& watch) {
    std::vector<std::size_t> firsts(tapes.size() + 1);
    for (std::size_t tape = 0; tape < tapes.size(); ++tape)
        firsts[tape + 1] = firsts[tape] + tapes[tape].asked.size();
    if (firsts.back() > TravellingRay::endOfPlaces)
        throw std::length_error("too many rays at a time");
    atHand.resize(firsts.back());
    places.resize(firsts.back());
    auto const setOutFrom = [&](std::size_t tape, Kelpa::GoOn const&) {
        std::size_t place = firsts[tape];
        for (TravellingRay ray : tapes[tape].asked) {
            places[place] = {static_cast<std::uint32_t>(tape), ray.place()};
            ray.setHome(transport.rank(), static_cast<std::uint32_t>(place));
            ray.block = top.next(boxRayOf(ray), TopTree::Entry::none(), ray.end).block;
            atHand[place++] = ray;
        }
        tapes[tape].asked.clear();
    };
    Kelpa::doPieces(tapes.size(), threads, setOutFrom, watch);
}

/// Asks each ray at hand of one block; those of other ranks are sent on.
void RayExchange::askAtHand(Kelpa::GoOn const& watch) {
    std::vector<Errand> errands = sortToBlocks();
    std::stable_partition(errands.begin(), errands.end(),
                          [this](Errand const& errand) { return blocks.isAtHand(errand.block); });
    done.asked += atHand.size();
    ++done.rounds;
    Kelpa::doPieces(
        errands.size(), threads, [&](std::size_t i, Kelpa::GoOn const&) { run(errands[i]); },
        watch);
}

/// Brings the rays at hand into the order of their blocks; rays that have ended are left out, and
/// those for other ranks go into their parcels. Within a block rays keep their order, in which
/// those that are near in number are near in space.
std::vector<RayExchange::Errand> RayExchange::sortToBlocks() {
    auto const slotOf = [](TravellingRay const& ray) {
        return 2 * static_cast<std::size_t>(ray.block) +
               (ray.wanted() == Wanted::yesOrNo ? 1U : 0U);
    };
    starts.assign(2 * blocks.blockCount() + 1, 0);
    for (TravellingRay& ray : atHand) {
        if (ray.block < 0)
            continue;
        int const owner = blocks.ownerOf(ray.block);
        if (owner == transport.rank()) {
            ++starts[slotOf(ray) + 1];
            continue;
        }
        parcels[static_cast<std::size_t>(owner)].rays.push_back(ray);
        ray.block = -1;
    }
    std::vector<Errand> errands;
    for (std::size_t slot = 0; slot + 1 < starts.size(); ++slot) {
        std::size_t const end = starts[slot] + starts[slot + 1];
        for (std::size_t begin = starts[slot]; begin < end; begin += raysAtOnce)
            errands.push_back({static_cast<std::int32_t>(slot / 2), slot % 2 != 0, begin,
                               std::min(begin + raysAtOnce, end)});
        starts[slot + 1] = end;
    }
    sorted.resize(starts.back());
    for (TravellingRay const& ray : atHand)
        if (ray.block >= 0)
            sorted[starts[slotOf(ray)]++] = ray;
    std::swap(atHand, sorted);
    return errands;
}

/// Asks a block of some rays, and gives them their next ones.
void RayExchange::run(Errand const& errand) {
    std::shared_ptr<Geometry> const tree = blocks.pin(errand.block);
    Findings findings;
    for (std::size_t begin = errand.begin; begin < errand.end; begin += lanesPerBunch) {
        std::size_t const count = std::min<std::size_t>(lanesPerBunch, errand.end - begin);
        std::span<TravellingRay> const rays(&atHand[begin], count);
        if (errand.isYesOrNo)
            askYesOrNo(*tree, rays, findings);
        else
            askHits(*tree, rays, findings);
    }
    if (findings.all.empty())
        return;
    std::lock_guard const hold(mutex);
    for (auto const& [home, kind, hit] : findings.all) {
        Parcel& parcel = parcels[static_cast<std::size_t>(home)];
        if (kind == Wanted::hit)
            parcel.hits.push_back(hit);
        else if (kind == Wanted::distance)
            parcel.distances.push_back(HomingDistance::of(hit.place, hit.t));
        else
            parcel.occluded.push_back(hit.place);
    }
}

/// Makes rays that are in one block a bunch for its tree.
void RayExchange::fill(Bunch& bunch, std::span<TravellingRay const> rays) const {
    bunch.clear();
    for (TravellingRay const& ray : rays)
        bunch.add(static_cast<unsigned char>(bunch.numLanes), ray.origin, ray.dir, ray.tMin,
                  ray.hasHit() ? searchEnd(ray.end) : ray.end, ray.time,
                  blocks.placeIn(ray.block, ray.skipIndex()));
}

void RayExchange::askHits(Geometry& tree, std::span<TravellingRay> rays, Findings& findings) {
    Bunch bunch;
    fill(bunch, rays);
    bunch.trace(tree);
    auto const& hits = bunch.hits;
    for (std::size_t lane = 0; lane < rays.size(); ++lane) {
        TravellingRay& ray = rays[lane];
        if (hits.hit[lane] != 0 && !(ray.hasHit() && hits.hitT[lane] > ray.end)) {
            std::int64_t const index = hits.hitIndex[lane] + blocks.baseOf(ray.block);
            takeHit(ray,
                    {hits.hitT[lane],
                     index,
                     {hits.hitNormalX[lane], hits.hitNormalY[lane], hits.hitNormalZ[lane]},
                     ray.place(),
                     ray.wanted() == Wanted::hit ? scene.lookOf(index) : ParticleLook{}},
                    findings);
        }
        advance(ray);
    }
}

void RayExchange::askYesOrNo(Geometry& tree, std::span<TravellingRay> rays, Findings& findings) {
    Bunch bunch;
    fill(bunch, rays);
    std::uint64_t const occluded = bunch.occluded(tree);
    for (std::size_t lane = 0; lane < rays.size(); ++lane) {
        TravellingRay& ray = rays[lane];
        if ((occluded >> lane & 1U) == 0) {
            advance(ray);
            continue;
        }
        ray.block = -1;
        if (ray.home() == transport.rank())
            holdOccluded(ray.place());
        else
            findings.all.push_back({ray.home(), Wanted::yesOrNo, {0.0, 0, {}, ray.place(), {}}});
    }
}

/// Keeps or sends home the hit of a ray that is no farther than those before.
void RayExchange::takeHit(TravellingRay& ray, HomingHit const& hit, Findings& findings) {
    ray.setHit(hit.t);
    if (ray.home() != transport.rank())
        findings.all.push_back({ray.home(), ray.wanted(), hit});
    else if (ray.wanted() == Wanted::hit)
        hold(hit);
    else
        hold(HomingDistance::of(hit.place, hit.t));
}

/// Finds the block that a ray enters after the one it has been asked of.
void RayExchange::advance(TravellingRay& ray) const {
    BoxRay const boxRay = boxRayOf(ray);
    ray.block = top.next(boxRay, top.entryOf(boxRay, ray.block), ray.end).block;
}

// What comes home. A ray is in one place at a time, so no two threads hold answers of one ray.

void RayExchange::hold(HomingHit const& hit) {
    Place const& place = places[hit.place];
    RayTape::Hit& known = tapes[place.tape].hits[place.number];
    bool const isCloser = hit.t != known.t ? hit.t < known.t : hit.look.row < known.look.row;
    if (known.index < 0 || isCloser)
        known = {hit.t, hit.index, hit.normal, hit.look};
}

void RayExchange::hold(HomingDistance const& distance) {
    Place const& place = places[distance.place];
    double& known = tapes[place.tape].distances[place.number];
    double const t = distance.distance();
    if (known == RayTape::noDistance || t < known)
        known = t;
}

void RayExchange::holdOccluded(std::uint32_t place) {
    tapes[places[place].tape].occluded[places[place].number] = 1;
}

/// Sends what there is for others and takes what has come; returns what is left to do or under way,
/// of which all ranks together have nothing left in the end.
std::int64_t RayExchange::swapParcels() {
    ++done.exchanges;
    for (Parcel const& parcel : parcels) {
        underWay += parcel.count();
        done.sent += parcel.rays.size();
        done.sentBytes += parcel.bytes();
    }
    std::vector<Parcel> const arrived = transport.exchange(parcels);
    for (Parcel const& parcel : arrived) {
        underWay -= parcel.count();
        atHand.insert(atHand.end(), parcel.rays.begin(), parcel.rays.end());
        for (HomingHit const& hit : parcel.hits)
            hold(hit);
        for (HomingDistance const& distance : parcel.distances)
            hold(distance);
        for (std::uint32_t const place : parcel.occluded)
            holdOccluded(place);
    }
    return underWay + static_cast<std::int64_t>(atHand.size());
}

} // namespace pipeline
