// Reads the next frame, the other file, or nothing.
#include "pipeline/scene/secondsnapshot.h"

#include "pipeline/files/nameelements.h"

#include <fmt/format.h>

namespace pipeline {

SecondSnapshot readSecond(Motion const& motion, FrameSource& source, ParticleSet const& first,
                          std::optional<int> frame, std::vector<std::uint8_t> const& elements,
                          ReadOptions const& options) {
    SecondSnapshot second;
    if (!hasSecondSnapshot(motion))
        return second;
    if (auto const* const file = std::get_if<ToFile>(&motion)) {
        second.particles = FrameSource(file->path).read(frame, options);
        second.notes = second.particles->notes;
    } else {
        second.particles = source.readAfter(first.frame, options);
        if (!second.particles)
            second.notes.emplace_back(
                fmt::format("no frame follows {}: its particles stand still", first.name));
        else if (second.particles->steps > 1.0)
            second.gap = fmt::format("{} follows {} after {:.6g} frames' time",
                                     second.particles->name, first.name, second.particles->steps);
    }
    if (second.particles)
        nameElements(*second.particles, elements);
    return second;
}

} // namespace pipeline
