// What browsers and the server tell each other, as JSON.
#pragma once

#include "pipeline/picture/camera.h"

#include "view/shown.h"
#include "view/stage.h"
#include "view/wish.h"

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace pipeline::view {

/// A message that no page of ours sends: not JSON, not of this form, or beyond what makes sense.
class BadMessage : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

/// A question which particle shows at a place of the picture.
struct PickWanted {
    std::uint64_t number = 0;
    double x = 0.0; ///< of the picture's width, from the left
    double y = 0.0; ///< of its height, from the top
    bool withRow = false;
};

/// What a page asks for; what it leaves out stays as it is.
struct Message {
    std::optional<std::array<int, 2>> size;
    std::optional<CameraOptions> camera; ///< a view, a place, or neither for the first camera
    std::uint64_t cameraNumber = 0;
    bool isMoving = false;
    std::optional<LightOptions::Shade> shade;
    std::optional<int> samples;
    std::optional<int> aoSamples;
    std::optional<std::string> background; ///< empty: the usual one
    std::optional<std::string> colorBy;
    std::optional<std::string> colorMap;
    bool hasRange = false;
    std::optional<std::array<float, 2>> range;
    std::optional<float> radiusScale;
    bool hasCut = false;
    std::optional<Cut> cut;
    std::optional<std::size_t> frame; ///< its place among all
    bool hasAhead = false;
    std::optional<std::size_t> ahead;
    std::optional<PickWanted> pick;
    std::optional<std::uint64_t> drawn; ///< the picture that the page shows now
    bool wantsCommand = false;
};

constexpr std::size_t longestMessage = 16384; ///< bytes
constexpr int largestPicture = 8192;          ///< pixels on a side
constexpr int mostSamples = 4096;

/// Reads what a page sends. Throws `BadMessage`.
Message parseMessage(std::string_view text);

/// What a picked particle is, for the page.
struct Picked {
    std::uint64_t number = 0;
    bool isHit = false;
    std::size_t particle = 0; ///< its place in the file
    std::int64_t id = 0;
    Vec position{}; ///< in the file's coordinates
    Vec place{};    ///< that was hit, likewise
    double radius = 0.0;
    Kelpa::Vector color{};
};

/// What a picture that follows is.
struct PictureFacts {
    std::uint64_t number = 0;
    std::uint64_t cameraNumber = 0;
    std::uint64_t version = 0; ///< of the scene
    int width = 0;
    int height = 0;
    int samples = 0; ///< that each pixel has so far
    int ofSamples = 0;
    double milliseconds = 0.0; ///< that it took
    double waited = 0.0;       ///< milliseconds from the wish for it until it was begun
    char const* type = "image/jpeg";
};

/// What a page is told of the scene and of how it is looked at.
struct StateFacts {
    std::shared_ptr<Shown const> shown;
    std::vector<int> const& frames;
    SceneChoice chosen;
    Wish wish;
    CameraOptions const& firstCamera;
    std::uint64_t version = 0;
    bool hasSize = false;
    bool hasCommand = false;
    std::uint64_t browser = 0;
};

// The server's messages. Pictures follow their facts: four bytes of these' length, the facts, the
// picture.
std::string textOf(StateFacts const& state);
std::string textOf(StageNews const& news);
std::string textOf(Camera const& camera, std::uint64_t number, Shown const& shown);
std::string textOf(Picked const& picked);
std::string rowText(std::uint64_t pick, Row const& row);
std::string commandText(std::string const& line);
std::string withFacts(PictureFacts const& facts, std::string_view picture);

} // namespace pipeline::view
