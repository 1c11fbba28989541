#pragma once

#include "kelpa/foundation/hosttypes.h"

#include <cstdint>

namespace Kelpa {

/// What every tree can do. The order of the operations is part of the interface.
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
