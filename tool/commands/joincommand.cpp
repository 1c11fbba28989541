// kelpa join: tiles of a picture as one.
#include "pipeline/imagefile/jointiles.h"

#include "tool/commands/commands.h"
#include "tool/commands/writtenfiles.h"
#include "tool/process/standardstreams.h"
#include "tool/report/phases.h"

namespace pipeline::tool {

int runJoin(Options const& options) {
    WrittenFiles(options).add(options.output);
    withProgress("join", options.run, [&options](PhaseProgress const& progress) {
        joinTiles(options.output, options.tiles, progress);
    });
    if (!options.run.quiet)
        say("wrote {} from {} tiles\n", options.output, options.tiles.size());
    return 0;
}

} // namespace pipeline::tool
