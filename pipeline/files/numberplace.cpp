// Finds the place of a number in a name, and fills it.
#include "pipeline/files/numberplace.h"

#include <fmt/format.h>

#include <filesystem>
#include <regex>
#include <stdexcept>

namespace pipeline {

NumberPlace findNumberPlace(std::string const& path) {
    // "50%done.png" has none.
    static std::regex const places("#+|%(?:0?([1-9]))?d(?![A-Za-z])");
    auto const nameBegin = path.end() - static_cast<std::ptrdiff_t>(
                                            std::filesystem::path(path).filename().string().size());
    std::sregex_iterator const found(nameBegin, path.end(), places);
    if (found == std::sregex_iterator())
        return {};
    if (std::next(found) != std::sregex_iterator())
        throw std::invalid_argument(
            fmt::format("{}: has several places for a number; leave one", path));
    NumberPlace place;
    place.begin = static_cast<std::size_t>(nameBegin - path.begin() + found->position());
    place.length = static_cast<std::size_t>(found->length());
    if (path[place.begin] == '#')
        place.digits = static_cast<int>(place.length);
    else
        place.digits = (*found)[1].matched ? std::stoi((*found)[1]) : 1;
    return place;
}

bool hasNumberPlace(std::string const& path) {
    return findNumberPlace(path).length > 0;
}

std::string nameOfOne(std::string const& path, std::int64_t number) {
    NumberPlace const place = findNumberPlace(path);
    bool const isMeant = place.length > 1;
    return isMeant ? numberedName(path, number) : path;
}

std::string numberedName(std::string const& path, std::int64_t number) {
    NumberPlace const place = findNumberPlace(path);
    if (place.length == 0) {
        std::filesystem::path shown(path);
        std::string const suffix = shown.extension().string();
        shown.replace_extension();
        throw std::invalid_argument(
            fmt::format("{}: several pictures need a place for their number, such as "
                        "{}.####{} or {}.%04d{}",
                        path, shown.string(), suffix, shown.string(), suffix));
    }
    std::string numbered = path;
    numbered.replace(place.begin, place.length, fmt::format("{:0{}}", number, place.digits));
    return numbered;
}

} // namespace pipeline
