// What browsers and the server tell each other, as JSON.
#include "view/messages.h"

#include "pipeline/files/colornames.h"
#include "pipeline/files/printable.h"
#include "pipeline/scene/colormap.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace pipeline::view {

namespace {

using Json = nlohmann::json;

[[noreturn]] void refuse(char const* what) {
    throw BadMessage(what);
}

/// A finite number in a range. JSON has no other numbers, but larger ones than doubles hold.
double numberOf(Json const& value, double least, double most) {
    if (!value.is_number())
        refuse("a number is expected");
    auto const number = value.get<double>();
    if (!(number >= least && number <= most)) // NaN as well
        refuse("a number is beyond what makes sense");
    return number;
}

int wholeOf(Json const& value, int least, int most) {
    double const number = numberOf(value, least, most);
    if (number != std::floor(number))
        refuse("a whole number is expected");
    return static_cast<int>(number);
}

std::uint64_t countOf(Json const& value) {
    return static_cast<std::uint64_t>(std::floor(numberOf(value, 0.0, 0x1p53)));
}

std::string wordOf(Json const& value) {
    constexpr std::size_t longest = 1000;
    if (!value.is_string() || value.get_ref<std::string const&>().size() > longest)
        refuse("a word is expected");
    return value.get<std::string>();
}

Kelpa::Vector vectorOf(Json const& value) {
    if (!value.is_array() || value.size() != 3)
        refuse("three numbers are expected");
    auto const part = [&value](std::size_t axis) {
        return static_cast<float>(numberOf(value[axis], -1e30, 1e30));
    };
    return {part(0), part(1), part(2)};
}

bool isSame(Kelpa::Vector const& a, Kelpa::Vector const& b) {
    return a.x == b.x && a.y == b.y && a.z == b.z;
}

CameraOptions cameraOf(Json const& value) {
    CameraOptions camera;
    if (value.contains("view")) {
        std::string const name = wordOf(value["view"]);
        for (auto const& [known, view] : viewNames)
            if (name == known)
                camera.view = view;
        if (!camera.view)
            refuse("no such view");
    }
    if (value.contains("eye")) {
        camera.eye = vectorOf(value.at("eye"));
        camera.lookAt = vectorOf(value.at("at"));
        camera.up = vectorOf(value.at("up"));
        if (isSame(*camera.eye, *camera.lookAt) || isSame(*camera.up, {}) || camera.view)
            refuse("no such camera");
    }
    camera.fov = numberOf(value.at("fov"), 0.1, 170.0);
    camera.ortho = value.value("ortho", false);
    camera.zoom = value.contains("zoom") ? numberOf(value["zoom"], 1e-6, 1e6) : 1.0;
    return camera;
}

LightOptions::Shade shadeOf(std::string const& name) {
    using Shade = LightOptions::Shade;
    if (name == "ao")
        return Shade::ao;
    if (name == "lit")
        return Shade::lit;
    if (name == "flat")
        return Shade::flat;
    refuse("no such shade");
}

char const* nameOf(LightOptions::Shade shade) {
    return shade == LightOptions::Shade::ao    ? "ao"
           : shade == LightOptions::Shade::lit ? "lit"
                                               : "flat";
}

std::string backgroundOf(Json const& value) {
    std::string color = wordOf(value);
    try {
        if (!color.empty() && color != "none")
            parseColor(color);
    } catch (std::invalid_argument const& error) {
        refuse(error.what());
    }
    return color;
}

std::string colorMapOf(std::string const& name) {
    try {
        if (!name.empty() && name != "kinds")
            ColorMap const known(name);
    } catch (std::invalid_argument const& error) {
        refuse(error.what());
    }
    return name;
}

void readLook(Json const& look, Message& message) {
    if (look.contains("shade"))
        message.shade = shadeOf(wordOf(look["shade"]));
    if (look.contains("samples"))
        message.samples = wholeOf(look["samples"], 1, mostSamples);
    if (look.contains("aoSamples"))
        message.aoSamples = wholeOf(look["aoSamples"], 0, mostSamples);
    if (look.contains("background"))
        message.background = backgroundOf(look["background"]);
}

Cut cutOf(Json const& value) {
    Cut cut;
    auto const part = [&normal = value.at("normal")](std::size_t axis) {
        return numberOf(normal.at(axis), -1e6, 1e6);
    };
    cut.normal = {part(0), part(1), part(2)};
    if (!(dot(cut.normal, cut.normal) > 1e-12))
        refuse("no such direction");
    cut.at = numberOf(value.at("at"), -1e30, 1e30);
    if (value.contains("thickness"))
        cut.thickness = numberOf(value["thickness"], 1e-30, 1e30);
    return cut;
}

void readScene(Json const& scene, Message& message) {
    if (scene.contains("colorBy"))
        message.colorBy = wordOf(scene["colorBy"]);
    if (scene.contains("colorMap"))
        message.colorMap = colorMapOf(wordOf(scene["colorMap"]));
    if (scene.contains("range")) {
        Json const& range = scene["range"];
        message.hasRange = true;
        if (!range.is_null()) {
            float const low = static_cast<float>(numberOf(range.at(0), -3e38, 3e38));
            float const high = static_cast<float>(numberOf(range.at(1), -3e38, 3e38));
            message.range = {low, high};
        }
    }
    if (scene.contains("radiusScale"))
        message.radiusScale = static_cast<float>(numberOf(scene["radiusScale"], 1e-6, 1e6));
    if (scene.contains("cut")) {
        message.hasCut = true;
        if (!scene["cut"].is_null())
            message.cut = cutOf(scene["cut"]);
    }
    if (scene.contains("frame"))
        message.frame = countOf(scene["frame"]);
    if (scene.contains("ahead")) {
        message.hasAhead = true;
        if (!scene["ahead"].is_null())
            message.ahead = countOf(scene["ahead"]);
    }
}

Message read(Json const& json) {
    Message message;
    if (json.contains("size"))
        message.size = {wholeOf(json["size"].at(0), 1, largestPicture),
                        wholeOf(json["size"].at(1), 1, largestPicture)};
    if (json.contains("camera")) {
        message.camera = cameraOf(json["camera"]);
        message.cameraNumber = countOf(json["camera"].at("number"));
        message.isMoving = json["camera"].value("moving", false);
    }
    if (json.contains("look"))
        readLook(json["look"], message);
    if (json.contains("scene"))
        readScene(json["scene"], message);
    if (json.contains("pick")) {
        Json const& pick = json["pick"];
        message.pick = {countOf(pick.at("number")), numberOf(pick.at("x"), 0.0, 1.0),
                        numberOf(pick.at("y"), 0.0, 1.0), pick.value("row", false)};
    }
    if (json.contains("drawn"))
        message.drawn = countOf(json["drawn"]);
    message.wantsCommand = json.value("command", false);
    return message;
}

/// What comes from files goes out as UTF-8, whatever it is.
std::string dump(Json const& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json listOf(Vec const& v) {
    return {v.x, v.y, v.z};
}

/// The colour as the picture's files would write it.
std::string hexOf(Kelpa::Vector const& linear) {
    auto const code = [](float light) {
        double const v = std::clamp(static_cast<double>(light), 0.0, 1.0);
        double const encoded = v <= 0.0031308 ? 12.92 * v : 1.055 * std::pow(v, 1.0 / 2.4) - 0.055;
        return static_cast<int>(std::lround(encoded * 255.0));
    };
    return fmt::format("#{:02x}{:02x}{:02x}", code(linear.x), code(linear.y), code(linear.z));
}

Json listOf(std::vector<Kelpa::Vector> const& colors) {
    Json list = Json::array();
    for (Kelpa::Vector const& color : colors)
        list.push_back(hexOf(color));
    return list;
}

/// The direction that a turning camera stays level to.
Vec upOf(CameraOptions const& camera, char upAxis) {
    if (camera.up)
        return unit(wide(*camera.up));
    char const axis = camera.upAxis != '\0' ? camera.upAxis : upAxis;
    return axis == 'y' ? Vec{0, 1, 0} : Vec{0, 0, 1};
}

Json jsonOf(std::optional<Cut> const& cut) {
    if (!cut)
        return nullptr;
    Json json = {{"normal", listOf(cut->normal)}, {"at", cut->at}};
    if (cut->thickness)
        json["thickness"] = *cut->thickness;
    return json;
}

Json jsonOf(Shown const& shown) {
    ShownFacts const& facts = shown.facts;
    Scene const& scene = shown.scene;
    Json json = {{"file", facts.file},
                 {"format", facts.format},
                 {"particles", facts.ofParticles},
                 {"used", scene.geometry->statistics().used},
                 {"frame", facts.frame},
                 {"columns", facts.columns},
                 {"notes", facts.notes},
                 {"centre", listOf(shown.bounds.centre() + scene.origin)},
                 {"diagonal", shown.diagonal},
                 {"extent", {listOf(shown.extent.min), listOf(shown.extent.max)}}};
    if (scene.colorRange)
        json["bar"] = {{"column", scene.colorColumn},
                       {"low", (*scene.colorRange)[0]},
                       {"high", (*scene.colorRange)[1]},
                       {"stops", listOf(shown.stops)}};
    return json;
}

} // namespace

Message parseMessage(std::string_view text) {
    if (text.size() > longestMessage)
        refuse("the message is too long");
    try {
        Json const json = Json::parse(text);
        if (!json.is_object())
            refuse("an object is expected");
        return read(json);
    } catch (Json::exception const&) {
        refuse("this is no message of the page");
    }
}

std::string textOf(StateFacts const& state) {
    Wish const& wish = state.wish;
    Json json = {{"version", state.version},
                 {"browser", state.browser},
                 {"hasCommand", state.hasCommand},
                 {"look",
                  {{"shade", nameOf(wish.light.shade)},
                   {"samples", wish.image.samples},
                   {"aoSamples", wish.light.aoSamples},
                   {"background", wish.background}}},
                 {"chosen",
                  {{"colorBy", state.chosen.colorBy},
                   {"colorMap", state.chosen.colorMap},
                   {"colorMaps", colorMapNames() + "|kinds"},
                   {"hasRange", state.chosen.range.has_value()},
                   {"radiusScale", state.chosen.radiusScale},
                   {"cut", jsonOf(state.chosen.cut)}}}};
    if (state.hasSize)
        json["size"] = {wish.image.width, wish.image.height};
    if (state.shown) {
        std::shared_lock const guard(state.shown->colors);
        json["shown"] = jsonOf(*state.shown);
        json["shown"]["up"] = listOf(upOf(state.firstCamera, state.shown->scene.upAxis));
    }
    auto const& frames = state.frames;
    json["frames"] = {{"count", frames.size()}};
    if (state.shown) {
        auto const place = std::lower_bound(frames.begin(), frames.end(), state.shown->facts.frame);
        json["frames"]["index"] = place - frames.begin();
    }
    if (!frames.empty())
        json["frames"]["last"] = frames.back();
    return dump({{"state", json}});
}

std::string textOf(StageNews const& news) {
    return dump({{"news",
                  {{"work", news.work},
                   {"fraction", news.fraction},
                   {"error", printable(news.error, true)}}}});
}

std::string textOf(Camera const& camera, std::uint64_t number, Shown const& shown) {
    Scene const& scene = shown.scene;
    double const depth = dot(shown.bounds.centre() - camera.eye, camera.forward);
    return dump({{"camera",
                  {{"number", number},
                   {"eye", listOf(camera.eye + scene.origin)},
                   {"forward", listOf(camera.forward)},
                   {"up", listOf(camera.up)},
                   {"tangent", camera.tanHalfHeight},
                   {"ortho", camera.isParallel},
                   {"depth", depth}}}});
}

std::string textOf(Picked const& picked) {
    Json json = {{"number", picked.number}, {"hit", picked.isHit}};
    if (picked.isHit) {
        json["index"] = picked.particle;
        json["id"] = std::to_string(picked.id); // beyond what numbers of a page can tell
        json["position"] = listOf(picked.position);
        json["place"] = listOf(picked.place);
        json["radius"] = picked.radius;
        json["color"] = hexOf(picked.color);
    }
    return dump({{"picked", json}});
}

std::string rowText(std::uint64_t pick, Row const& row) {
    return dump({{"row", {{"number", pick}, {"cells", row}}}});
}

std::string commandText(std::string const& line) {
    return dump({{"command", line}});
}

std::string withFacts(PictureFacts const& facts, std::string_view picture) {
    std::string const text = dump({{"number", facts.number},
                                   {"camera", facts.cameraNumber},
                                   {"version", facts.version},
                                   {"width", facts.width},
                                   {"height", facts.height},
                                   {"samples", facts.samples},
                                   {"of", facts.ofSamples},
                                   {"ms", facts.milliseconds},
                                   {"waited", facts.waited},
                                   {"type", facts.type}});
    std::string bytes;
    bytes.reserve(4 + text.size() + picture.size());
    for (unsigned shift = 0; shift < 32; shift += 8)
        bytes += static_cast<char>(text.size() >> shift & 0xFFU);
    bytes += text;
    bytes += picture;
    return bytes;
}

} // namespace pipeline::view
