// Whether options go together.
#pragma once

#include "tool/options/options.h"

#include <functional>

namespace pipeline::tool {

/// Whether the command line has an option, given by its long name.
using GivenOption = std::function<bool(char const* name)>;

/// Refuses options that contradict each other or would have no effect, by `UsageError`, and makes
/// of two files a motion.
void checkTogether(GivenOption const& isGiven, Options& options);

} // namespace pipeline::tool
