// Built trees as bytes, and back.
#pragma once

#include "kelpa/foundation/bytestreams.h"
#include "kelpa/spheretree/motionblur/mbspheretree.h"
#include "kelpa/spheretree/static/sdspheretree.h"

#include <cstdint>

namespace Kelpa {

/// Brings a built tree's nodes and entries into arrays of just their size, in the order in which
/// rays come by, and gives up the table of spheres where nobody needs it: one system, all of whose
/// particles are usable and packed. Hits stay the same.
///
/// Throws `ExceptionMsg` when memory runs out: the tree is then as it was, or empty.
void makeCompact(StaticSphereTree& tree);
void makeCompact(MovingSphereTree& tree); ///< the same

/// How many bytes `writeTree` writes; makes the tree compact, and throws like that.
std::uint64_t writtenBytes(StaticSphereTree& tree);
std::uint64_t writtenBytes(MovingSphereTree& tree); ///< the same

/// Writes all that a build made, and makes the tree compact to do so.
///
/// The bytes hold numbers as this machine has them in memory, and neither the particles nor the
/// parameters of the build: whoever keeps them has to know whose they are. Throws as `makeCompact`.
void writeTree(StaticSphereTree& tree, ByteSink const& sink);
void writeTree(MovingSphereTree& tree, ByteSink const& sink); ///< the same

/// Makes a tree of what `writeTree` wrote, in place of what it held: it has the same hits, bounds
/// and figures, and is compact. `size` tells how many bytes there are.
///
/// The particle systems are to be registered as they were for the build. False for bytes that are
/// no whole tree over systems of that size; whatever they are, nothing but the tree is written to,
/// and a tree that is made can be asked. Throws `ExceptionMsg` when memory runs out, and what
/// `source` throws. Unless it is made the tree is empty.
bool readTree(StaticSphereTree& tree, ByteSource const& source, std::uint64_t size);
bool readTree(MovingSphereTree& tree, ByteSource const& source, std::uint64_t size); ///< the same

} // namespace Kelpa
