// What runs of the command took, for other programs.
#pragma once

#include "pipeline/files/json.h"
#include "pipeline/scene/scene.h"

#include "tool/report/rankreport.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace pipeline::tool {

/// What one picture took.
struct PictureStatistics {
    std::string file;
    int width = 0;
    int height = 0;
    std::uint64_t cameraRays = 0;
    double renderSeconds = 0.0;
    double writeSeconds = 0.0;
    std::int64_t blocksRead = 0; ///< from files, while rendering
    std::uint64_t bytesRead = 0; ///< of these
};

/// What a run of `kelpa render` took, gathered as it goes.
class RenderStatistics {
  public:
    /// A scene is built: the pictures that follow are of it.
    void addScene(std::string const& file, Scene const& scene, double readSeconds,
                  double buildSeconds);
    void addPicture(PictureStatistics const& picture);
    /// Of several processes, what each of them has done.
    void addRanks(std::vector<RankReport> reports) { ranks = std::move(reports); }

    /// As JSON: {"version", "threads", "peakMegabytes", "scenes": [{"file", "spheres", "skipped",
    /// "motion", "colors", "readSeconds", "buildSeconds", "tree", "pictures": [...]}]}. "colors",
    /// {"column", "range"}, is there when a column gives the colours, "blocks" in "tree" and
    /// "blocksRead" of a picture when trees were bounded or in a cache, and "ranks", see
    /// `RankReport`, behind the scenes of several processes.
    std::string asJson(int threads, std::uint64_t peakMegabytes) const;
    std::string ranksAsText() const { return linesOf(ranks); }

  private:
    struct SceneEntry {
        JsonObject members; ///< all but the pictures
        std::vector<PictureStatistics> pictures;
    };
    std::vector<SceneEntry> scenes;
    std::vector<RankReport> ranks; ///< empty: one process
};

/// {"min": [x, y, z], "max": [x, y, z]}
Json jsonOf(Bounds const& bounds);

/// A tree's figures, which `kelpa info` and `--stats` tell alike.
Json jsonOf(TreeStatistics const& tree);

/// How many particles were left out, and why.
Json jsonOf(Rejected const& rejected);

/// How far particles move.
Json jsonOfMotion(Scene const& scene);

} // namespace pipeline::tool
