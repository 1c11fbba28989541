// Parts a scene into blocks and has their trees built.
#include "pipeline/files/progress.h"
#include "pipeline/files/readoptions.h"
#include "pipeline/scene/blocktrees.h"
#include "pipeline/scene/parting.h"
#include "pipeline/scene/scene.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace pipeline {

namespace {

using Kelpa::Vector;

/// Leaves each rank its share of the rows, of which all have all.
void shareRows(Scene& scene, RayTransport& ranks) {
    auto const total = static_cast<std::uint64_t>(scene.first->size());
    RowShare const share{static_cast<std::uint64_t>(ranks.rank()),
                         static_cast<std::uint64_t>(ranks.ranks())};
    auto const begin = static_cast<std::ptrdiff_t>(share.begin(total));
    auto const end = static_cast<std::ptrdiff_t>(share.end(total));
    auto const cut = [&](auto& values) {
        if (!values.empty())
            values = {values.begin() + begin, values.begin() + end};
    };
    for (Snapshot* const snapshot : {scene.first.get(), scene.second.get()})
        if (snapshot != nullptr) {
            cut(snapshot->positions);
            cut(snapshot->radii);
        }
    cut(scene.colors);
    cut(scene.ids);
    cut(scene.unusable);
    scene.sharers = &ranks;
    scene.firstPlace = begin;
}

/// Parts the particles, and brings all that is known of them into the order of their blocks;
/// returns where those begin.
std::vector<std::int64_t> partIntoBlocks(Scene& scene, BuildRun const& run, std::int64_t most) {
    auto const watch = [&] {
        if (run.progress)
            run.progress(-1.0, static_cast<std::uint64_t>(scene.first->size()));
        bool const goesOn = run.report.getAbort() == 0;
        if (!goesOn && scene.sharers != nullptr)
            throw Interrupted(); // for all
        return goesOn;
    };
    std::span<Vector const> ends;
    if (scene.second != nullptr)
        ends = scene.second->positions;
    Parting const parting(scene.first->positions, ends, most, run.threads, watch, scene.sharers);
    if (scene.sharers == nullptr && (parting.firsts().size() <= 2 || !watch()))
        return {0, scene.first->size()};
    scene.rows = std::make_shared<Rows const>(parting.rows());
    scene.first->order(parting);
    if (scene.second != nullptr)
        scene.second->order(parting);
    parting.order(scene.colors);
    parting.order(scene.ids);
    parting.order(scene.unusable);
    if (scene.sharers != nullptr)
        scene.firstPlace = parting.firstOwnedBy(scene.sharers->rank());
    return parting.firsts();
}

/// A block of so many particles, which may be elsewhere.
System systemOf(Scene const& scene, std::int64_t first, std::int64_t size) {
    auto const count = static_cast<std::int32_t>(size);
    std::int64_t const here = first - scene.firstPlace;
    bool const isHere = here >= 0 && here + size <= scene.first->size();
    auto const partOf = [&](Snapshot const& snapshot) {
        Kelpa::ParticleData part = snapshot.part(isHere ? here : 0, count);
        if (!isHere)
            part.positions = nullptr;
        return part;
    };
    System system{partOf(*scene.first), std::nullopt, first};
    if (scene.second != nullptr)
        system.second = partOf(*scene.second);
    return system;
}

} // namespace

void buildScene(Scene& scene, BuildRun const& run, TreeOptions const& options,
                RayTransport* ranks) {
    bool const isShared = ranks != nullptr && ranks->ranks() > 1;
    if (isShared && scene.sharers == nullptr && !options.keepsAll)
        shareRows(scene, *ranks);
    std::vector<std::int64_t> const firsts = partIntoBlocks(scene, run, options.block);
    std::vector<System> blocks;
    for (std::size_t block = 0; block + 1 < firsts.size(); ++block)
        blocks.push_back(systemOf(scene, firsts[block], firsts[block + 1] - firsts[block]));
    // A cache takes single trees as well, and rays may have to travel to one.
    if (blocks.size() > 1 || !options.keep.cache.empty() || options.share.of > 1)
        scene.geometry = makeBlockGeometry(
            std::move(blocks), scene.rows != nullptr ? scene.rows : std::make_shared<Rows const>());
    else
        scene.geometry = makeGeometry(std::move(blocks));
    scene.geometry->build(run, options);
    if (isShared)
        scene.geometry->blocks()->shareBounds(*ranks);
}

} // namespace pipeline
