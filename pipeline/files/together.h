// A snapshot that was written as many files, as one particle set.
#pragma once

#include "pipeline/files/particleset.h"

namespace pipeline {

/// Appends the particles of another file: afterwards `all` is what one file with the rows of both
/// would be read as. Either may have no particles, as the file of a process that had none.
///
/// Throws `InputError` when the files cannot be those of one snapshot: one has radii, colours,
/// velocities or the like and the other has not, or their cells, units or named types differ. Of
/// columns that only one of them has `info` tells nothing but that.
void append(ParticleSet& all, ParticleSet part);

} // namespace pipeline
