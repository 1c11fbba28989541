// Frames done, and the time that those to come will take.
#include "tool/report/filmprogress.h"

#include "kelpa/host/consoleprogress.h"

#include <fmt/format.h>

#include <algorithm>

namespace pipeline::tool {

void FilmProgress::begin(std::uint64_t pictures, std::string const& name) {
    total = pictures;
    unit = name;
    time = {};
}

void FilmProgress::finishPicture() {
    ++finished;
    secondsOfFinished = time.seconds();
}

/// Pictures take as long as those before did; what this one has taken runs down meanwhile.
std::string FilmProgress::timeLeft() const {
    if (finished == 0 || finished == total)
        return {};
    double const each = secondsOfFinished / static_cast<double>(finished);
    double const spent = std::min(time.seconds() - secondsOfFinished, each);
    double const left = each * static_cast<double>(total - finished) - spent;
    constexpr double soon = 1.0; // seconds
    return left < soon ? "" : fmt::format(", {} left", Kelpa::durationText(left));
}

std::string FilmProgress::text() const {
    if (total < 2)
        return {};
    bool const isLast = finished + 1 == total; // its phase tells how long it takes itself
    return fmt::format("{} {} of {}{}", unit, finished + 1, total, isLast ? "" : timeLeft());
}

std::string FilmProgress::remark() const {
    if (total < 2)
        return {};
    return fmt::format("; {} {} of {}{}", unit, finished, total, timeLeft());
}

} // namespace pipeline::tool
