// Deals a picture's tiles out to ranks, and puts them together again.
#include "pipeline/picture/rendertogether.h"

#include "pipeline/picture/renderlater.h"
#include "pipeline/picture/tileorder.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>
#include <vector>

namespace pipeline {

namespace {

/// Calls `visit` with each row of a tile's pixels, in each of the image's arrays: where it begins
/// and how long it is, in bytes.
template <class Picturable, class Visit>
void forEachRow(Picturable& image, TilePlace const& tile, Visit const& visit) {
    int const left = std::max(tile.left, image.cropX0);
    int const right = std::min(tile.left + tileWidth, image.cropX1);
    int const top = std::max(tile.top, image.cropY0);
    int const bottom = std::min(tile.top + tileWidth, image.cropY1);
    auto const width = static_cast<std::size_t>(image.cropX1 - image.cropX0);
    auto const count = static_cast<std::size_t>(std::max(right - left, 0));
    for (int y = top; y < bottom; ++y) {
        std::size_t const first = static_cast<std::size_t>(y - image.cropY0) * width +
                                  static_cast<std::size_t>(left - image.cropX0);
        auto const visitIn = [&](auto& array, std::size_t components) {
            if (!array.empty())
                visit(&array[components * first], components * count * sizeof array[0]);
        };
        visitIn(image.rgb, 3);
        visitIn(image.alpha, 1);
        visitIn(image.depth, 1);
        visitIn(image.normal, 3);
        visitIn(image.position, 3);
        visitIn(image.id, 1);
        for (auto& layer : image.layers)
            visitIn(layer.values, layer.width);
    }
}

/// The tiles of a rank: every n-th of the order in which they are dealt out to threads as well, so
/// that all ranks have about the same of what there is to see.
std::vector<std::size_t> tilesOf(Picture const& picture, int rank, int ranks) {
    return TileOrder(picture.tileCount())
        .shareOf(static_cast<std::size_t>(rank), static_cast<std::size_t>(ranks));
}

std::vector<char> packed(Image const& image, Picture const& picture,
                         std::vector<std::size_t> const& tiles) {
    std::vector<char> bytes;
    for (std::size_t const tile : tiles)
        forEachRow(image, picture.placeOf(tile), [&](auto const* row, std::size_t count) {
            auto const* const first = reinterpret_cast<char const*>(row);
            bytes.insert(bytes.end(), first, first + count);
        });
    return bytes;
}

void unpack(std::vector<char> const& bytes, Picture const& picture,
            std::vector<std::size_t> const& tiles, Image& image) {
    std::size_t used = 0;
    for (std::size_t const tile : tiles)
        forEachRow(image, picture.placeOf(tile), [&](auto* row, std::size_t count) {
            if (count > bytes.size() - used)
                throw std::length_error("a rank has sent too little of the picture");
            std::memcpy(row, bytes.data() + used, count);
            used += count;
        });
}

/// So many rays of each rank that all of them in one place still fit there.
std::size_t raysAtATime(int ranks) {
    constexpr std::size_t ofAll = std::size_t{1} << 22;
    constexpr std::size_t least = std::size_t{1} << 15;
    return std::clamp(ofAll / static_cast<std::size_t>(ranks), least, WaitingOptions().raysAtATime);
}

} // namespace

Image renderTogether(Scene const& scene, Camera const& camera, ImageOptions const& frame,
                     LightOptions const& look, RayTransport& ranks, int threads,
                     PhaseProgress const& progress, RankFigures& figures) {
    auto const begin = std::chrono::steady_clock::now();
    std::optional<Picture> picture;
    std::optional<RayExchange> exchange;
    Image image;
    std::vector<std::size_t> tiles;
    ranks.together([&] {
        picture.emplace(scene, camera, look, frame);
        exchange.emplace(scene, *scene.geometry->blocks(), ranks, threads);
        image = picture->emptyImage();
        tiles = tilesOf(*picture, ranks.rank(), ranks.ranks());
    });
    renderTilesLater(*picture, tiles, *exchange, image, {raysAtATime(ranks.ranks()), threads},
                     progress);
    figures += exchange->figures();
    std::chrono::duration<double> const seconds = std::chrono::steady_clock::now() - begin;
    figures.busySeconds += seconds.count() - exchange->figures().waitingSeconds;
    std::vector<char> mine;
    ranks.together([&] {
        if (ranks.rank() != 0)
            mine = packed(image, *picture, tiles);
    });
    std::vector<std::vector<char>> const parts = ranks.gather(std::move(mine));
    ranks.together([&] {
        for (std::size_t rank = 1; rank < parts.size(); ++rank)
            unpack(parts[rank], *picture, tilesOf(*picture, static_cast<int>(rank), ranks.ranks()),
                   image);
    });
    return image;
}

} // namespace pipeline
