// The command that makes the picture that a page shows.
#pragma once

#include "view/shown.h"
#include "view/wanted.h"
#include "view/wish.h"

#include <string>

namespace pipeline::view {

/// A line for a shell that renders what is wished for of what is shown; empty where no command
/// does.
std::string commandLine(WantedPicture const& given, Wish const& wish, Shown const& shown);

/// A file name for the picture, without suffix: that of the particles' file, with the frame's
/// number unless that is 0. Of letters, digits, dots and hyphens.
std::string pictureName(Shown const& shown);

} // namespace pipeline::view
