#include "tool/report/statistics.h"

#include "tool/report/json.h"
#include "tool/version.h"

#include <fmt/format.h>

#include <cctype>
#include <charconv>

namespace kelpatool {

namespace {

/// "Max tree depth" as "maxTreeDepth".
std::string camelCase(std::string_view words) {
    std::string name;
    bool isNewWord = false;
    for (char const c : words) {
        if (std::isalnum(static_cast<unsigned char>(c)) == 0) {
            isNewWord = !name.empty();
            continue;
        }
        auto const letter = static_cast<unsigned char>(c);
        name += static_cast<char>(isNewWord || (!name.empty() && std::islower(letter) == 0)
                                      ? std::toupper(letter)
                                      : std::tolower(letter));
        isNewWord = false;
    }
    return name;
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && text.front() == ' ')
        text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ')
        text.remove_suffix(1);
    return text;
}

std::string jsonPicture(PictureStatistics const& picture) {
    return fmt::format(
        "\n        {{\"file\": {}, \"width\": {}, \"height\": {}, \"cameraRays\": {}, "
        "\"renderSeconds\": {:.6f}, \"writeSeconds\": {:.6f}}}",
        jsonText(picture.file), picture.width, picture.height, picture.cameraRays,
        picture.renderSeconds, picture.writeSeconds);
}

} // namespace

std::string jsonTreeReport(std::vector<std::string> const& reportLines) {
    // A build tells its figures as text alone, to whatever host it has.
    std::string json;
    for (std::string_view const line : reportLines) {
        std::size_t const colon = line.find(':');
        std::string_view const value =
            colon == std::string_view::npos ? "" : trimmed(line.substr(colon + 1));
        if (value.empty()) // the headline
            continue;
        double number = 0.0;
        auto const [end, error] = std::from_chars(value.begin(), value.end(), number);
        // "4732 (0 MB)": the bytes are told apart, exactly.
        bool const isNumber = error == std::errc() && (end == value.end() || *end == ' ');
        bool const isRounded =
            isNumber && trimmed({end, static_cast<std::size_t>(value.end() - end)}) == "MB";
        if (isRounded)
            continue;
        json += fmt::format("{}{}: {}", json.empty() ? "" : ", ",
                            jsonText(camelCase(line.substr(0, colon))),
                            isNumber ? std::string(value.begin(), end) : jsonText(value));
    }
    return json;
}

void RenderStatistics::addScene(std::string const& file, Scene const& scene, double readSeconds,
                                double buildSeconds, std::vector<std::string> const& reportLines) {
    std::string const report = jsonTreeReport(reportLines);
    std::string const colors =
        scene.colorRange
            ? fmt::format("      \"colors\": {{\"column\": {}, \"range\": [{}, {}]}},\n",
                          jsonText(scene.colorColumn),
                          jsonNumber(static_cast<double>((*scene.colorRange)[0])),
                          jsonNumber(static_cast<double>((*scene.colorRange)[1])))
            : "";
    scenes.push_back(
        {fmt::format("      \"file\": {},\n      \"spheres\": {},\n"
                     "      \"skipped\": {{\"notFinite\": {}, \"notPositive\": {}}},\n"
                     "      \"motion\": {{\"mean\": {}, \"largest\": {}}},\n{}"
                     "      \"readSeconds\": {:.6f},\n      \"buildSeconds\": {:.6f},\n"
                     "      \"tree\": {{\"bytes\": {}{}{}}},\n",
                     jsonText(file), scene.geometry->sphereCount(), scene.rejected.notFinite,
                     scene.rejected.notPositive, jsonNumber(scene.meanStep),
                     jsonNumber(scene.largestStep), colors, readSeconds, buildSeconds,
                     scene.geometry->memory(), report.empty() ? "" : ", ", report),
         {}});
}

void RenderStatistics::addPicture(PictureStatistics const& picture) {
    scenes.back().pictures.push_back(picture);
}

std::string RenderStatistics::asJson(int threads, std::uint64_t peakMegabytes) const {
    std::string json = fmt::format(
        "{{\n  \"version\": {},\n  \"threads\": {},\n  \"peakMegabytes\": {},\n  \"scenes\": [",
        jsonText(version), threads, peakMegabytes);
    for (std::size_t i = 0; i < scenes.size(); ++i) {
        json +=
            fmt::format("{}\n    {{\n{}      \"pictures\": [", i > 0 ? "," : "", scenes[i].json);
        for (std::size_t k = 0; k < scenes[i].pictures.size(); ++k)
            json += (k > 0 ? "," : "") + jsonPicture(scenes[i].pictures[k]);
        json += "\n      ]\n    }";
    }
    return json + "\n  ]\n}\n";
}

} // namespace kelpatool
