// Parts a scene into blocks and has their trees built.
#include "pipeline/scene/parting.h"
#include "pipeline/scene/scene.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <utility>
#include <vector>

namespace pipeline {

namespace {

using Kelpa::Vector;

/// Parts the particles, and brings all that is known of them into the order of their blocks;
/// returns where those begin.
std::vector<std::int64_t> partIntoBlocks(Scene& scene, BuildRun const& run, std::int64_t most) {
    auto const watch = [&] {
        if (run.progress)
            run.progress(-1.0, static_cast<std::uint64_t>(scene.first->size()));
        return run.report.getAbort() == 0;
    };
    std::span<Vector const> ends;
    if (scene.second != nullptr)
        ends = scene.second->positions;
    Parting const parting(scene.first->positions, ends, most, run.threads, watch);
    if (parting.firsts().size() <= 2 || !watch())
        return {0, scene.first->size()};
    scene.rows = std::make_shared<Rows const>(parting.rows());
    scene.first->order(parting);
    if (scene.second != nullptr)
        scene.second->order(parting);
    parting.order(scene.colors);
    parting.order(scene.ids);
    parting.order(scene.unusable);
    return parting.firsts();
}

} // namespace

void buildScene(Scene& scene, BuildRun const& run, TreeOptions const& options) {
    std::vector<std::int64_t> const firsts = partIntoBlocks(scene, run, options.block);
    std::vector<System> blocks;
    for (std::size_t block = 0; block + 1 < firsts.size(); ++block) {
        std::int64_t const first = firsts[block];
        auto const count = static_cast<std::int32_t>(firsts[block + 1] - first);
        System system{scene.first->part(first, count), std::nullopt, first};
        if (scene.second != nullptr)
            system.second = scene.second->part(first, count);
        blocks.push_back(system);
    }
    // A cache takes single trees as well, and rays may have to travel to one.
    if (blocks.size() > 1 || !options.keep.cache.empty() || options.share.of > 1)
        scene.geometry = makeBlockGeometry(
            std::move(blocks), scene.rows != nullptr ? scene.rows : std::make_shared<Rows const>());
    else
        scene.geometry = makeGeometry(std::move(blocks));
    scene.geometry->build(run, options);
}

} // namespace pipeline
