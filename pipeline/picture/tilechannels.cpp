// What a picture tells of the first samples of its pixels, beside light.
#include "pipeline/picture/tilepasses.h"
#include "pipeline/scene/vec.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string_view>

namespace pipeline {

/// What the tape tells of a surface, whose ray's number is that of its sample.
ParticleLook const& TilePasses::lookOnTape(std::size_t surface) const {
    std::size_t const ray = std::size_t{surfaces.pixel[surface]} * sampleCount;
    return tape->hits[ray + surfaces.sample[surface]].look;
}

Kelpa::Vector const& TilePasses::colorOf(std::size_t surface) const {
    if (tape != nullptr)
        return lookOnTape(surface).color;
    Scene const& scene = plan.scene;
    auto const particle = static_cast<std::size_t>(surfaces.particle[surface]);
    return particle < scene.colors.size() ? scene.colors[particle] : scene.color;
}

float TilePasses::radiusOf(std::size_t surface) const {
    return tape != nullptr
               ? lookOnTape(surface).radius
               : plan.scene.first->radii[static_cast<std::size_t>(surfaces.particle[surface])];
}

std::int64_t TilePasses::idOf(std::size_t surface) const {
    return tape != nullptr ? lookOnTape(surface).id : plan.scene.idOf(surfaces.particle[surface]);
}

/// What `depth` tells of a hit.
double TilePasses::depthOf(double t, Vec const& along) const {
    return plan.isDepthPlanar ? t * dot(along, plan.camera.forward) : t;
}

void TilePasses::storeFirstHits(Image& image) const {
    if (image.depth.empty() && image.normal.empty() && image.position.empty() && image.id.empty() &&
        image.layers.empty())
        return;
    Scene const& scene = plan.scene;
    if (!image.depth.empty())
        for (RodHit const& rod : rodHits)
            if (rod.sample == 0)
                image.depth[pixels[rod.pixel].index] = static_cast<float>(rod.depth);
    double const origin[3] = {scene.origin.x, scene.origin.y, scene.origin.z};
    for (std::size_t i = 0; i < surfaces.count; ++i) {
        if (surfaces.sample[i] != 0)
            continue;
        std::size_t const at = pixels[surfaces.pixel[i]].index;
        if (!image.depth.empty())
            image.depth[at] = static_cast<float>(depthOf(
                surfaces.t[i], wide({surfaces.dir.x[i], surfaces.dir.y[i], surfaces.dir.z[i]})));
        storeLayers(image, i, at);
        if (!image.id.empty())
            image.id[at] = idOf(i);
        float const normal[3] = {surfaces.normal.x[i], surfaces.normal.y[i], surfaces.normal.z[i]};
        double const place[3] = {surfaces.place.x[i], surfaces.place.y[i], surfaces.place.z[i]};
        for (std::size_t axis = 0; axis < 3; ++axis) {
            if (!image.normal.empty())
                image.normal[3 * at + axis] = normal[axis];
            if (!image.position.empty())
                image.position[3 * at + axis] = static_cast<float>(place[axis] + origin[axis]);
        }
    }
}

/// How far a surface goes across the picture, to the right and upwards, while the shutter is open.
/// It moves as its particle's centre does.
std::array<float, 2> TilePasses::motionOf(std::size_t surface) const {
    Scene const& scene = plan.scene;
    if (scene.second == nullptr)
        return {};
    auto const particle = static_cast<std::size_t>(surfaces.particle[surface]);
    Vec const way =
        wide(scene.second->positions[particle]) - wide(scene.first->positions[particle]);
    Vec const place = {surfaces.place.x[surface], surfaces.place.y[surface],
                       surfaces.place.z[surface]};
    auto const time = static_cast<double>(surfaces.time[surface]);
    auto const opens = plan.camera.pixelOf(place + way * (plan.shutter[0] - time));
    auto const closes = plan.camera.pixelOf(place + way * (plan.shutter[1] - time));
    if (!opens || !closes)
        return {};
    return {static_cast<float>((*closes)[0] - (*opens)[0]),
            static_cast<float>((*opens)[1] - (*closes)[1])};
}

/// Fills the layers of a pixel.
void TilePasses::storeLayers(Image& image, std::size_t surface, std::size_t at) const {
    Scene const& scene = plan.scene;
    std::size_t const firstColumn = image.layers.size() - scene.layers.size();
    if (firstColumn > 0) {
        auto const [right, up] = motionOf(surface);
        image.layers[0].values[2 * at] = right;
        image.layers[0].values[2 * at + 1] = up;
    }
    std::int64_t const place = surfaces.particle[surface];
    auto const row = static_cast<std::size_t>(scene.rows != nullptr ? (*scene.rows)[place] : place);
    for (std::size_t i = 0; i < scene.layers.size(); ++i) {
        auto const& [name, width, values] = scene.layers[i];
        for (std::size_t k = 0; k < width && width * row + k < values.size(); ++k)
            image.layers[firstColumn + i].values[width * at + k] = values[width * row + k];
    }
}

std::string columnLayerName(std::string const& column) {
    constexpr std::string_view taken[] = {"R", "G", "B",  "A",      "Z",
                                          "N", "P", "id", "legend", "velocity"};
    bool const isTaken = std::ranges::find(taken, column) != std::end(taken);
    return isTaken ? "column." + column : column;
}

std::vector<std::string> channelNames(Layer const& layer) {
    if (layer.width == 1)
        return {layer.name};
    std::vector<std::string> names;
    for (char const* const end : {".X", ".Y", ".Z"})
        if (names.size() < layer.width)
            names.push_back(layer.name + end);
    return names;
}

} // namespace pipeline
