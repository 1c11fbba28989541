// The interface of every tree.
#pragma once

#include "kelpa/foundation/hosttypes.h"

#include <cstdint>

namespace Kelpa {

/// What every tree can do. The order of the operations is part of the interface.
///
/// However hostile the particles and the parameters are, a tree stays within three limits; what is
/// left to build when one is reached becomes leaves, and the tree answers right, but slowly:
/// - 64 nodes a sphere, or 2^23 in all if that is more;
/// - 256 leaf entries a sphere, or 2^26 in all if that is more;
/// - beyond level 128, where no ordinary tree comes, as many records parted as leaf entries
/// allowed.
class GeomTreeBase {
  public:
    virtual ~GeomTreeBase() = default;

    /// Releases everything, the registered particle systems included.
    virtual void freeData() = 0;

    /// Bytes held by nodes, leaf entries and sphere references; callable at any time.
    virtual std::uint64_t getMemUsage() const = 0;

    /// Builds the tree; the two numbers mean what the tree's own `build` says.
    virtual void build(ProgressCallback* progress, ThreadManager* manager, int, int) = 0;
};

} // namespace Kelpa
