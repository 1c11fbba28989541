// What each of several processes has done for one picture.
#pragma once

#include "pipeline/files/json.h"
#include "pipeline/scene/rayexchange.h"
#include "pipeline/scene/scene.h"

#include <cstdint>
#include <string>
#include <vector>

namespace pipeline::tool {

/// Of one rank; goes to rank 0 as it lies in memory.
struct RankReport {
    RankFigures figures; ///< of all its pictures
    std::int64_t spheres = 0;
    std::int64_t blocks = 0;
    std::uint64_t treeBytes = 0;
    std::uint64_t peakMegabytes = 0;
};

/// Puts down what the rank holds of a scene; of several scenes the last one counts.
void addScene(RankReport& report, Scene const& scene, int rank);

/// The reports of all ranks, on rank 0; none elsewhere. All ranks call it together.
std::vector<RankReport> gatherReports(RankReport const& mine, RayTransport& ranks);

/// As lines for the user.
std::string linesOf(std::vector<RankReport> const& reports);
/// [{"rank", "spheres", "blocks", "treeBytes", "peakMegabytes", "rays", "asked", "sent",
/// "sentBytes", "rounds", "exchanges", "busySeconds", "waitingSeconds"}]
Json jsonOf(std::vector<RankReport> const& reports);

} // namespace pipeline::tool
