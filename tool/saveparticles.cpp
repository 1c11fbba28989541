#include "tool/saveparticles.h"

#include "tool/image.h"
#include "tool/phases.h"
#include "tool/standardstreams.h"

namespace kelpatool {

void saveParticles(Options const& options, ParticleSet const& particles) {
    withProgress("write", options.run, [&](PhaseProgress const& progress) {
        writePly(options.output, particles, options.ascii, progress);
        return 0;
    });
    if (!options.run.quiet)
        say("wrote {}, {} particles\n", options.output, withCommas(particles.positions.size()));
}

} // namespace kelpatool
