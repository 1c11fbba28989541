// The snapshot that particles go to while the shutter is open, read where their motion says.
#pragma once

#include "pipeline/files/errors.h"
#include "pipeline/files/framesource.h"
#include "pipeline/scene/ways.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace pipeline {

/// The second snapshot of a motion, and what there is to tell of it.
struct SecondSnapshot {
    std::optional<ParticleSet> particles; ///< unset: the particles stand still
    std::vector<Remark> notes;
    std::string gap; ///< what lies between the two, unless empty: the motion is then that of one
                     ///< frame's time
};

/// Reads the snapshot that `first`, a frame of `source`, goes to: the frame that follows, or that
/// of the number `frame` (by default the first) in another file. Its types become the elements of
/// these atomic numbers, as `nameElements` has it. Motions without a second snapshot read nothing.
/// Throws `InputError`, and what `options.progress` throws.
SecondSnapshot readSecond(Motion const& motion, FrameSource& source, ParticleSet const& first,
                          std::optional<int> frame, std::vector<std::uint8_t> const& elements,
                          ReadOptions const& options);

} // namespace pipeline
