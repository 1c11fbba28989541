// Opening pictures that are read.
#pragma once

#include <cstdio>
#include <string>

namespace pipeline {

/// Opens a file for reading; the caller closes it. Throws `InputError` when there is none.
std::FILE* openInput(std::string const& path);

} // namespace pipeline
