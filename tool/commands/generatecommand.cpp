// kelpa generate: samples of particles.
#include "pipeline/imagefile/imagefile.h"
#include "pipeline/samples/samples.h"

#include "tool/commands/commands.h"
#include "tool/commands/saveparticles.h"
#include "tool/report/phases.h"

namespace pipeline::tool {

int runGenerate(Options const& options) {
    checkWritable(options.output);
    ParticleSet const particles =
        withProgress("make", options.run, [&](PhaseProgress const& progress) {
            return generateParticles(options.kind, options.count, options.seed, progress);
        });
    saveParticles(options, particles);
    return 0;
}

} // namespace pipeline::tool
