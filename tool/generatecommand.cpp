#include "tool/commands.h"
#include "tool/image.h"
#include "tool/phases.h"
#include "tool/saveparticles.h"

namespace kelpatool {

int runGenerate(Options const& options) {
    checkWritable(options.output);
    ParticleSet const particles =
        withProgress("make", options.run, [&](PhaseProgress const& progress) {
            return generateParticles(options.kind, options.count, options.run.seed, progress);
        });
    saveParticles(options, particles);
    return 0;
}

} // namespace kelpatool
