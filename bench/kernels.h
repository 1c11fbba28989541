#pragma once

#include "bench/scenes.h"

#include <cstdint>
#include <memory>
#include <span>

namespace kelpabench {

/// What a ray found: its parameter, or infinity.
using Found = float;

/// A ray-tracing kernel under test: ours, or a peer.
class Kernel {
  public:
    Kernel() = default;
    Kernel(Kernel const&) = delete;
    Kernel& operator=(Kernel const&) = delete;
    virtual ~Kernel() = default;

    /// Builds over a scene, which stays alive for as long as it is traced.
    virtual void build(Scene const& scene, int threads) = 0;

    /// Traces rays one by one.
    virtual void traceSingle(std::span<Ray const> rays, std::span<Found> found) = 0;

    /// Traces rays in lists of 64, in whatever form is the kernel's best.
    virtual void traceLists(std::span<Ray const> rays, std::span<Found> found) = 0;

    /// Bytes held beside the host's arrays.
    virtual std::uint64_t memory() = 0;
};

/// Our primitives. `packed`: with packed leaves.
std::unique_ptr<Kernel> makeOurs(bool packed = true);

/// Rays that leave the surfaces which `cameraRays` hit, each in a direction of its upper
/// hemisphere.
std::vector<Ray> bouncedRays(Scene const& scene, std::span<Ray const> cameraRays);

/// The peer, or null when it was not found at build time.
std::unique_ptr<Kernel> makePeer();

/// The peer's name and version.
char const* peerName();

} // namespace kelpabench
