// Internal: finds out whether too many particles are in one place, before a build takes its time.
#pragma once

#include "kelpa/foundation/vector.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace Kelpa {

/// Where a particle is, and when.
struct PlaceInTime {
    Vector at;
    float time;

    bool operator==(PlaceInTime const& other) const {
        return at.x == other.at.x && at.y == other.at.y && at.z == other.at.z && time == other.time;
    }
};

/// Whether more than `most` of `count` particles are in the same place; `placeOf(i)` is the place
/// of number i, or none if it does not count.
///
/// Whatever is that frequent is left on a short list of candidates by one pass, in which every
/// candidate is paid for with others (J. Misra and D. Gries, "Finding Repeated Elements", Science
/// of Computer Programming 2, 1982); a second pass counts those.
template <class PlaceOf>
bool isCrowded(std::int32_t count, std::int32_t most, PlaceOf const& placeOf) {
    struct Candidate {
        PlaceInTime place;
        std::int32_t votes;
    };
    auto const longest = static_cast<std::size_t>(count / (std::int64_t{most} + 1));
    std::vector<Candidate> candidates;
    auto const voteFor = [&candidates](PlaceInTime const& place) {
        auto const found = std::find_if(candidates.begin(), candidates.end(),
                                        [&](Candidate const& c) { return c.place == place; });
        if (found != candidates.end())
            ++found->votes;
        return found != candidates.end();
    };
    auto const forEachPlace = [&](auto visit) {
        for (std::int32_t i = 0; i < count; ++i)
            if (std::optional<PlaceInTime> const place = placeOf(i))
                visit(*place);
    };
    forEachPlace([&](PlaceInTime const& place) {
        if (voteFor(place))
            return;
        if (candidates.size() < longest) {
            candidates.push_back({place, 1});
            return;
        }
        for (Candidate& candidate : candidates)
            --candidate.votes;
        std::erase_if(candidates, [](Candidate const& c) { return c.votes == 0; });
    });
    for (Candidate& candidate : candidates)
        candidate.votes = 0;
    forEachPlace(voteFor);
    return std::any_of(candidates.begin(), candidates.end(),
                       [most](Candidate const& c) { return c.votes > most; });
}

} // namespace Kelpa
