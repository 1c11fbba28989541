// Plans of films as JSON.
#include "pipeline/picture/filmplan.h"

#include "pipeline/files/errors.h"
#include "pipeline/files/json.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <initializer_list>
#include <string_view>
#include <vector>

#ifdef KELPA_JSON
#include <cerrno>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <system_error>
#endif

namespace pipeline {

namespace {

Json listOf(std::vector<double> const& numbers) {
    std::vector<std::string> texts;
    for (double const number : numbers)
        texts.push_back(jsonNumber(number));
    return {fmt::format("[{}]", fmt::join(texts, ", "))};
}

Json listOf(Vec const& v) {
    return listOf(std::vector{v.x, v.y, v.z});
}

JsonObject membersOf(CameraKey const& key) {
    JsonObject members;
    members.add("eye", listOf(key.eye)).add("lookAt", listOf(key.lookAt)).add("up", listOf(key.up));
    if (key.height)
        return members.add("height", *key.height);
    return members.add("fov", key.fov);
}

} // namespace

std::string textOf(FilmPlan const& plan) {
    JsonObject whole;
    auto const& keys = plan.camera.keys;
    if (keys.size() == 1) {
        whole.add("camera", membersOf(keys[0]).onLines(2));
    } else if (!keys.empty()) {
        std::vector<Json> list;
        for (CameraKey const& key : keys)
            list.push_back(membersOf(key).add("frame", key.frame).onOneLine());
        whole.add("camera", JsonObject().add("keys", jsonList(list, 4)).onLines(2));
    }
    if (plan.kept.radius)
        whole.add("radius", *plan.kept.radius);
    if (auto const& range = plan.kept.colorRange)
        whole.add("range", Json{fmt::format("[{}, {}]", (*range)[0], (*range)[1])});
    if (!plan.kept.sliceCoordinates.empty())
        whole.add("slices", listOf(plan.kept.sliceCoordinates));
    return whole.onLines(0).text + "\n";
}

#ifdef KELPA_JSON

namespace {

using Value = nlohmann::json;

/// Takes values out of a plan, and says where they are not what they should be.
class PlanReader {
  public:
    explicit PlanReader(std::string const& file) : path(file) {}

    Value parse() const;
    void allow(Value const& object, std::string const& what,
               std::initializer_list<char const*> names) const;
    double number(Value const& value, std::string const& what, double least, double most) const;
    std::vector<double> numbers(Value const& value, std::string const& what,
                                std::size_t count) const;
    CameraWay way(Value const& camera) const;
    [[noreturn]] void fail(std::string const& what) const {
        throw InputError(fmt::format("{}: {}", path, what));
    }

  private:
    CameraKey key(Value const& object, std::string const& what, bool isOfSeveral) const;
    Vec vector(Value const& object, std::string const& what, char const* name) const;

    std::string const& path;
};

Value PlanReader::parse() const {
    constexpr std::size_t longest = 1U << 20U; // of thousands of keys
    std::ifstream file(path, std::ios::binary);
    if (!file)
        fail(fmt::format("cannot be opened: {}", std::generic_category().message(errno)));
    std::string text(longest + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (file.bad())
        fail("cannot be read");
    text.resize(static_cast<std::size_t>(file.gcount()));
    if (text.size() > longest)
        fail("is longer than 1 MiB, and so no plan of a film");
    try {
        return Value::parse(text);
    } catch (Value::parse_error const& error) {
        std::size_t const before = std::min(error.byte > 0 ? error.byte - 1 : 0, text.size());
        auto const end = text.begin() + static_cast<std::ptrdiff_t>(before);
        std::size_t const lineBegin = before > 0 ? text.rfind('\n', before - 1) + 1 : 0;
        throw InputError(fmt::format("{}:{}:{}: is not JSON from here on", path,
                                     std::count(text.begin(), end, '\n') + 1,
                                     before - lineBegin + 1));
    } catch (Value::exception const&) {
        fail("holds a number that is too large");
    }
}

/// Refuses what nobody asks for, most likely a slip of the pen.
void PlanReader::allow(Value const& object, std::string const& what,
                       std::initializer_list<char const*> names) const {
    if (!object.is_object())
        fail(fmt::format("{} is not of the form {{...}}", what));
    for (auto const& [name, value] : object.items())
        if (std::ranges::find(names, std::string_view(name)) == names.end())
            fail(fmt::format("'{}' is nothing that {} has; there are {}", name, what,
                             fmt::join(names, ", ")));
}

double PlanReader::number(Value const& value, std::string const& what, double least,
                          double most) const {
    double const found = value.is_number() ? value.get<double>() : std::nan("");
    if (!(found >= least && found <= most))
        fail(fmt::format("{} is no number from {} to {}", what, least, most));
    return found;
}

/// A list of so many numbers, or of any number of them where `count` is 0.
std::vector<double> PlanReader::numbers(Value const& value, std::string const& what,
                                        std::size_t count) const {
    if (!value.is_array() || (count > 0 && value.size() != count))
        fail(fmt::format("{} is no list of {}numbers", what,
                         count > 0 ? fmt::format("{} ", count) : ""));
    std::vector<double> found;
    for (Value const& entry : value)
        found.push_back(number(entry, what, -farthestInKey, farthestInKey));
    return found;
}

Vec PlanReader::vector(Value const& object, std::string const& what, char const* name) const {
    if (!object.contains(name))
        fail(fmt::format("{} lacks '{}'", what, name));
    std::vector<double> const v =
        numbers(object.at(name), fmt::format("'{}' of {}", name, what), 3);
    return {v[0], v[1], v[2]};
}

CameraKey PlanReader::key(Value const& object, std::string const& what, bool isOfSeveral) const {
    if (isOfSeveral)
        allow(object, what, {"frame", "eye", "lookAt", "up", "fov", "height"});
    else
        allow(object, what, {"eye", "lookAt", "up", "fov", "height", "keys"});
    CameraKey key;
    key.eye = vector(object, what, "eye");
    key.lookAt = vector(object, what, "lookAt");
    key.up = vector(object, what, "up");
    if (isOfSeveral && !object.contains("frame"))
        fail(what + " lacks 'frame'");
    if (isOfSeveral)
        key.frame = number(object.at("frame"), "'frame' of " + what, -1e9, 1e9);
    if (object.contains("fov") == object.contains("height"))
        fail(what + " needs 'fov', or for parallel rays 'height'");
    if (object.contains("fov"))
        key.fov = number(object.at("fov"), "'fov' of " + what, leastFov, mostFov);
    else
        key.height =
            number(object.at("height"), "'height' of " + what, 1.0 / farthestInKey, farthestInKey);
    Vec const line = key.eye - key.lookAt;
    if (!(dot(line, line) > 0.0))
        fail(what + " is where it looks at");
    if (!(dot(key.up, key.up) > 0.0))
        fail(fmt::format("'up' of {} is no direction", what));
    return key;
}

CameraWay PlanReader::way(Value const& camera) const {
    CameraWay way;
    if (!camera.is_object() || !camera.contains("keys")) {
        way.keys.push_back(key(camera, "the camera", false));
        return way;
    }
    allow(camera, "a camera with keys", {"keys"});
    Value const& keys = camera.at("keys");
    if (!keys.is_array() || keys.empty())
        fail("'keys' is no list of cameras");
    for (Value const& each : keys)
        way.keys.push_back(key(each, fmt::format("key {}", way.keys.size() + 1), true));
    std::ranges::stable_sort(way.keys, {}, &CameraKey::frame);
    for (std::size_t i = 1; i < way.keys.size(); ++i) {
        if (way.keys[i].frame == way.keys[i - 1].frame)
            fail(fmt::format("two keys are for frame {}", way.keys[i].frame));
        if (way.keys[i].height.has_value() != way.keys[0].height.has_value())
            fail("some keys have 'fov' and others 'height'; a film has rays of one kind");
    }
    return way;
}

} // namespace

FilmPlan readPlan(std::string const& path) {
    PlanReader const reader(path);
    Value const whole = reader.parse();
    reader.allow(whole, "a plan", {"camera", "radius", "range", "slices"});
    if (!whole.contains("camera"))
        reader.fail("has no 'camera'");
    FilmPlan plan;
    plan.camera = reader.way(whole.at("camera"));
    if (whole.contains("radius"))
        plan.kept.radius =
            static_cast<float>(reader.number(whole.at("radius"), "'radius'", 1e-15, farthestInKey));
    if (whole.contains("range")) {
        auto const range = reader.numbers(whole.at("range"), "'range'", 2);
        plan.kept.colorRange = {static_cast<float>(range[0]), static_cast<float>(range[1])};
    }
    if (whole.contains("slices"))
        plan.kept.sliceCoordinates = reader.numbers(whole.at("slices"), "'slices'", 0);
    return plan;
}

#else

FilmPlan readPlan(std::string const& path) {
    throw InputError(fmt::format("{}: this build reads no plans, for want of nlohmann-json; in "
                                 "Debian nlohmann-json3-dev",
                                 path));
}

#endif

} // namespace pipeline
