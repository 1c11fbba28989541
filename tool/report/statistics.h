#pragma once

#include "pipeline/scene/scene.h"

#include "tool/options/options.h"

#include <cstdint>
#include <string>
#include <vector>

namespace kelpatool {

/// What one picture took.
struct PictureStatistics {
    std::string file;
    int width = 0;
    int height = 0;
    std::uint64_t cameraRays = 0;
    double renderSeconds = 0.0;
    double writeSeconds = 0.0;
};

/// What a run of `kelpa render` took, gathered as it goes.
class RenderStatistics {
  public:
    /// A scene is built: the pictures that follow are of it. `reportLines` is what the build said.
    void addScene(std::string const& file, Scene const& scene, double readSeconds,
                  double buildSeconds, std::vector<std::string> const& reportLines);
    void addPicture(PictureStatistics const& picture);

    /// As JSON: {"version", "threads", "peakMegabytes", "scenes": [{"file", "spheres", "skipped",
    /// "motion", "colors", "readSeconds", "buildSeconds", "tree", "pictures": [...]}]}. "colors",
    /// {"column", "range"}, is there when a column gives the colours.
    std::string asJson(int threads, std::uint64_t peakMegabytes) const;

  private:
    struct SceneEntry {
        std::string json; ///< its members, but for the pictures
        std::vector<PictureStatistics> pictures;
    };
    std::vector<SceneEntry> scenes;
};

/// A build's report as members of a JSON object: "Max tree depth: 15" is "maxTreeDepth": 15.
std::string jsonTreeReport(std::vector<std::string> const& reportLines);

} // namespace kelpatool
