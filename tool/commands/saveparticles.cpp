// Particles written, and what is told of the file.
#include "tool/commands/saveparticles.h"

#include "pipeline/files/plywriter.h"

#include "tool/process/standardstreams.h"
#include "tool/report/phases.h"

namespace pipeline::tool {

void saveParticles(Options const& options, ParticleSet const& particles) {
    withProgress("write", options.run, [&](PhaseProgress const& progress) {
        writePly(options.output, particles, options.ascii, progress);
        return 0;
    });
    if (!options.run.quiet)
        say("wrote {}, {} particles\n", options.output, withCommas(particles.positions.size()));
}

} // namespace pipeline::tool
