// kelpa convert: a frame of a file as PLY.
#include "pipeline/files/elements.h"

#include "tool/commands/commands.h"
#include "tool/commands/saveparticles.h"
#include "tool/commands/writtenfiles.h"
#include "tool/report/phases.h"

#include <fmt/format.h>

namespace pipeline::tool {

namespace {

/// Elements give radii in Angstrom, and a PLY file does not tell its unit of length.
void keepRadii(ParticleSet& particles) {
    if (particles.angstrom == 1.0F || !particles.radii.empty())
        return;
    for (std::uint8_t const element : particles.elements)
        particles.radii.push_back(particles.angstrom * elementRadius(element, false));
}

} // namespace

int runConvert(Options const& options) {
    WrittenFiles(options).add(options.output);
    ParticleSet particles = readParticles(options.particles.files[0], options, false);
    keepRadii(particles);
    if (particles.cell)
        particles.leftOut.emplace_back("the cell");
    if (!particles.leftOut.empty())
        noteTo(options.run)(
            fmt::format("{}: left out, since particles as PLY have no place for it: {}",
                        particles.name, fmt::join(particles.leftOut, ", ")));
    saveParticles(options, particles);
    return 0;
}

} // namespace pipeline::tool
