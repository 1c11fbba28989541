// Builds and rays as cases of Google Benchmark.
#pragma once

#include "bench/comparison.h"

namespace kelpabench {

/// Registers builds and rays of all wanted scenes with Google Benchmark: "build/..." and
/// "rays/...", the scene's name, then what is varied.
void registerBenchmarks(Settings const& settings);

} // namespace kelpabench
