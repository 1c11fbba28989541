// The commands of kelpa.
#pragma once

#include "tool/options/options.h"

namespace pipeline::tool {

// The commands. Each returns the process's exit code or throws what `main` turns into one.

int runRender(Options const& options);
int runInfo(Options const& options);
int runConvert(Options const& options);
int runGenerate(Options const& options);
int runBench(Options const& options);
int runJoin(Options const& options);
int runView(Options const& options);

} // namespace pipeline::tool
