// What one browser wants to see.
#pragma once

#include "pipeline/picture/framing.h"
#include "pipeline/picture/look.h"

#include <cstdint>
#include <optional>
#include <string>

namespace pipeline::view {

/// A picture that a browser wants of the scene.
struct Wish {
    int width = 0; ///< of the picture, pixels; 0: the page has not told yet
    int height = 0;
    CameraOptions camera;
    std::uint64_t cameraNumber = 0; ///< by which the page knows which camera a picture shows
    bool isMoving = false;          ///< soon another camera is wanted
    ImageOptions image;
    LightOptions light;
    std::string background; ///< as the command line writes it; empty: the usual one
};

} // namespace pipeline::view
