// Counts and times of ranks, gathered and told.
#include "tool/report/rankreport.h"

#include "tool/report/phases.h"

#include <fmt/format.h>

#include <cstring>
#include <type_traits>

namespace pipeline::tool {

static_assert(std::is_trivially_copyable_v<RankReport>);

void addScene(RankReport& report, Scene const& scene, int rank) {
    TreeStatistics const tree = scene.geometry->statistics();
    report.spheres = tree.used;
    report.treeBytes = tree.totalBytes;
    report.blocks = 1;
    if (BlockTrees const* const blocks = scene.geometry->blocks()) {
        report.blocks = 0;
        for (std::size_t block = 0; block < blocks->blockCount(); ++block)
            report.blocks += blocks->ownerOf(static_cast<std::int32_t>(block)) == rank ? 1 : 0;
    }
}

std::vector<RankReport> gatherReports(RankReport const& mine, RayTransport& ranks) {
    auto const* const bytes = reinterpret_cast<char const*>(&mine);
    std::vector<RankReport> reports;
    for (std::vector<char> const& part : ranks.gather({bytes, bytes + sizeof mine}))
        std::memcpy(&reports.emplace_back(), part.data(), sizeof(RankReport));
    return reports;
}

std::string linesOf(std::vector<RankReport> const& reports) {
    std::string text;
    for (std::size_t rank = 0; rank < reports.size(); ++rank) {
        RankReport const& report = reports[rank];
        RankFigures const& did = report.figures;
        text += fmt::format(
            "rank {}: {} spheres in {} blocks, {} MB of trees, {} MB at most; {} rays, {} asked, "
            "{} sent, {} MB, {} rounds, {} exchanges; busy {:.1f} s, waiting {:.1f} s\n",
            rank, withCommas(static_cast<std::uint64_t>(report.spheres)), report.blocks,
            report.treeBytes >> 20U, report.peakMegabytes, withCommas(did.rays),
            withCommas(did.asked), withCommas(did.sent), did.sentBytes >> 20U, did.rounds,
            did.exchanges, did.busySeconds, did.waitingSeconds);
    }
    return text;
}

Json jsonOf(std::vector<RankReport> const& reports) {
    std::vector<Json> list;
    for (std::size_t rank = 0; rank < reports.size(); ++rank) {
        RankReport const& report = reports[rank];
        RankFigures const& did = report.figures;
        list.push_back(JsonObject()
                           .add("rank", rank)
                           .add("spheres", report.spheres)
                           .add("blocks", report.blocks)
                           .add("treeBytes", report.treeBytes)
                           .add("peakMegabytes", report.peakMegabytes)
                           .add("rays", did.rays)
                           .add("asked", did.asked)
                           .add("sent", did.sent)
                           .add("sentBytes", did.sentBytes)
                           .add("rounds", did.rounds)
                           .add("exchanges", did.exchanges)
                           .add("busySeconds", did.busySeconds)
                           .add("waitingSeconds", did.waitingSeconds)
                           .onOneLine());
    }
    return jsonList(list, 2);
}

} // namespace pipeline::tool
