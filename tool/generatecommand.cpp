#include "tool/commands.h"
#include "tool/image.h"
#include "tool/phases.h"
#include "tool/standardstreams.h"

namespace kelpatool {

int runGenerate(Options const& options) {
    checkWritable(options.output);
    ParticleSet const particles =
        withProgress("make", options.run, [&](PhaseProgress const& progress) {
            return generateParticles(options.kind, options.count, options.run.seed, progress);
        });
    withProgress("write", options.run, [&](PhaseProgress const& progress) {
        writePly(options.output, particles, options.ascii, progress);
        return 0;
    });
    if (!options.run.quiet)
        say("wrote {}, {} particles\n", options.output, withCommas(particles.positions.size()));
    return 0;
}

} // namespace kelpatool
