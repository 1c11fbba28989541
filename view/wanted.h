// What is viewed, and how it is seen at first.
#pragma once

#include "pipeline/files/framesource.h"
#include "pipeline/files/readoptions.h"
#include "pipeline/picture/framing.h"
#include "pipeline/picture/look.h"
#include "pipeline/scene/scene.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace pipeline::view {

/// Which particles, and how they become a scene.
struct WantedScene {
    std::string path;
    std::vector<std::string> more; ///< files of the same snapshot
    ReadOptions read;
    std::optional<int> frame;           ///< the first to be shown; unset: the first there is
    std::vector<FrameRange> frames;     ///< those to choose from; empty: all
    std::vector<std::uint8_t> elements; ///< atomic numbers of types 1, 2 and so on; empty: as read
    SceneOptions scene;
    TreeOptions tree;
    int threads = 1;
    /// Words the way on of an error or a note: a command names its options, a module arguments.
    std::function<std::string(Hint const&)> wayOn = [](Hint const&) { return std::string(); };
};

/// How a browser shows the scene until its user wants it otherwise.
struct WantedPicture {
    CameraOptions camera;
    ImageOptions image;
    bool hasSize = false; ///< the picture's size is given, else it is the window's
    LightOptions light;
    std::string background;          ///< as the command line writes it; empty: the usual one
    std::string color;               ///< of all particles, likewise; empty: not given
    std::vector<std::string> slices; ///< likewise
    /// The words of a command that makes this picture, but for what the page chooses and the output
    /// file; empty: no command does.
    std::vector<std::string> command;
};

} // namespace pipeline::view
