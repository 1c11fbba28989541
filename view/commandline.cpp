// The command that makes the picture that a page shows.
#include "view/commandline.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <string_view>
#include <utility>
#include <vector>

namespace pipeline::view {

namespace {

/// A word as a shell reads it back.
std::string inShell(std::string const& word) {
    constexpr std::string_view plain = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                       "0123456789-_=+./:,@%";
    if (!word.empty() && word.find_first_not_of(plain) == std::string::npos)
        return word;
    std::string text = "'";
    for (char const letter : word)
        letter == '\'' ? text += "'\\''" : text += letter;
    return text + "'";
}

/// Every digit that single precision needs.
std::string exactly(Kelpa::Vector const& v) {
    return fmt::format("{:.9g},{:.9g},{:.9g}", v.x, v.y, v.z);
}

void addCamera(CameraOptions const& camera, std::vector<std::string>& words) {
    auto const add = [&words](char const* name, std::string value) {
        words.emplace_back(name);
        words.push_back(std::move(value));
    };
    if (camera.view)
        for (auto const& [name, view] : viewNames)
            if (view == *camera.view)
                add("--view", name);
    // A value that begins with a hyphen is none of the command's options only behind a =.
    if (camera.eye)
        words.push_back("--eye=" + exactly(*camera.eye));
    if (camera.lookAt)
        words.push_back("--look-at=" + exactly(*camera.lookAt));
    if (camera.up)
        words.push_back("--up=" + exactly(*camera.up));
    else if (camera.upAxis != '\0')
        add("--up", std::string(1, camera.upAxis));
    if (camera.fov != 35.0)
        add("--fov", fmt::format("{}", camera.fov));
    if (camera.ortho)
        words.emplace_back("--ortho");
    if (camera.zoom != 1.0)
        add("--zoom", fmt::format("{}", camera.zoom));
}

void addLook(Wish const& wish, std::vector<std::string>& words) {
    using Shade = LightOptions::Shade;
    ImageOptions const usual;
    LightOptions const usualLight;
    words.push_back(fmt::format("--size {}x{}", wish.width, wish.height));
    if (wish.image.samples != usual.samples)
        words.push_back(fmt::format("--samples {}", wish.image.samples));
    if (!wish.background.empty())
        words.push_back("--background " + inShell(wish.background));
    if (wish.light.shade != Shade::ao)
        words.emplace_back(wish.light.shade == Shade::lit ? "--shade lit" : "--shade flat");
    else if (wish.light.aoSamples != usualLight.aoSamples)
        words.push_back(fmt::format("--ao-samples {}", wish.light.aoSamples));
    if (wish.light.shade == Shade::ao && wish.light.aoDistance)
        words.push_back(fmt::format("--ao-distance {}", *wish.light.aoDistance));
    if (wish.light.shade != Shade::flat && wish.light.shadows)
        words.emplace_back(*wish.light.shadows ? "--shadows" : "--no-shadows");
}

/// A slice where it lies: as it was given, or where the first frame had it, every digit.
std::string sliceOf(std::string const& given, Kept const& kept, std::size_t place) {
    if (place >= kept.sliceCoordinates.size())
        return given;
    return fmt::format("{}:{}", given.substr(0, given.find(':')), kept.sliceCoordinates[place]);
}

void addParticles(WantedPicture const& given, Shown const& shown, std::vector<std::string>& words) {
    SceneChoice const& choice = shown.choice;
    if (choice.colorBy.empty() && !given.color.empty())
        words.push_back("--color " + inShell(given.color));
    if (choice.frame)
        words.push_back(fmt::format("--frame {}", *choice.frame));
    if (!choice.colorBy.empty())
        words.push_back("--color-by " + inShell(choice.colorBy));
    if (!choice.colorBy.empty() && !choice.colorMap.empty())
        words.push_back("--colormap " + inShell(choice.colorMap));
    if (!choice.colorBy.empty() && choice.range)
        words.push_back(
            fmt::format("--range={:.9g}:{:.9g}", (*choice.range)[0], (*choice.range)[1]));
    if (choice.radiusScale != 1.0F)
        words.push_back(fmt::format("--radius-scale {:.9g}", choice.radiusScale));
    for (std::size_t i = 0; i < given.slices.size(); ++i)
        words.push_back("--slice=" + inShell(sliceOf(given.slices[i], shown.kept, i)));
    if (choice.cut)
        for (std::string const& slice : slicesOf(*choice.cut))
            words.push_back("--slice=" + slice);
    if (shown.kept.radius)
        words.push_back(fmt::format("--radius {:.9g}", *shown.kept.radius));
}

} // namespace

std::string commandLine(WantedPicture const& given, Wish const& wish, Shown const& shown) {
    if (given.command.empty())
        return {};
    std::vector<std::string> camera;
    addCamera(wish.camera, camera);
    std::vector<std::string> words = {"kelpa render"};
    for (std::string const& word : given.command)
        words.push_back(inShell(word));
    addParticles(given, shown, words);
    for (std::string const& word : camera)
        words.push_back(inShell(word));
    addLook(wish, words);
    words.push_back("-o " + inShell(pictureName(shown) + ".png"));
    return fmt::format("{}", fmt::join(words, " "));
}

std::string pictureName(Shown const& shown) {
    std::string name = shown.facts.file;
    name = name.substr(0, name.find('.'));
    std::replace_if(
        name.begin(), name.end(),
        [](unsigned char c) { return c >= 0x80 || (std::isalnum(c) == 0 && c != '-' && c != '_'); },
        '-');
    if (name.empty() || name[0] == '-')
        name = "particles" + name;
    return shown.facts.frame == 0 ? name : fmt::format("{}-{:04d}", name, shown.facts.frame);
}

} // namespace pipeline::view
