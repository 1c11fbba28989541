// The commands of kelpa.
#pragma once

#include "pipeline/scene/raytransport.h"

#include "tool/options/options.h"

namespace pipeline::tool {

// The commands. Each returns the process's exit code or throws what `main` turns into one.

int runRender(Options const& options);
/// The same by several processes, all of which call it with the same options but for the share of
/// the blocks. The first one writes and tells.
int runRender(Options const& options, RayTransport& ranks);
int runInfo(Options const& options);
int runConvert(Options const& options);
int runGenerate(Options const& options);
int runBench(Options const& options);
int runJoin(Options const& options);
int runView(Options const& options);

} // namespace pipeline::tool
