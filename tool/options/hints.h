// How the command line words what could be asked for instead.
#pragma once

#include "pipeline/files/errors.h"

#include <string>

namespace pipeline::tool {

/// What follows a text that has this hint, with the options that are meant; empty for none.
std::string hintText(Hint const& hint);

} // namespace pipeline::tool
