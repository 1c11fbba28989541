// What a library must do to be measured: build a tree, answer rays.
#pragma once

#include "bench/rays.h"
#include "bench/scenes.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace kelpabench {

/// How rays are handed over: one by one, in lists of 64, or in such lists only to be told whether
/// they hit anything: then a hit is one on particle 0, at 0.
enum class Form { single, lists, occlusion };
inline constexpr Form hitForms[] = {Form::single, Form::lists};
inline constexpr Form allForms[] = {Form::single, Form::lists, Form::occlusion};
inline constexpr std::size_t listLength = 64;

/// Bytes held beside the host's arrays.
struct Memory {
    std::uint64_t tree;
    std::uint64_t copies; ///< of the host's arrays, made for speed
};

/// A ray-tracing kernel under test, over one scene: ours, or a peer.
///
/// Once built, it is asked from any number of threads.
class Kernel {
  public:
    Kernel() = default;
    Kernel(Kernel const&) = delete;
    Kernel& operator=(Kernel const&) = delete;
    virtual ~Kernel() = default;

    /// Builds on `threads` threads, in place of what was built before. Returns the seconds that
    /// the build took, without freeing the former one and starting threads.
    virtual double build(int threads) = 0;

    /// The entry points that suit a form, by name; at least one.
    virtual std::span<char const* const> methods(Form form) const = 0;

    /// Traces `rays` by `methods(form)[method]`. The time for handing a ray over and reading its
    /// hit counts: a renderer pays it, too.
    virtual void trace(Form form, std::size_t method, std::span<Ray const> rays,
                       std::span<Found> found) const = 0;

    virtual Memory memory() = 0;
};

/// Our primitive over `scene`, which stays alive for as long. `packed`: with packed leaves.
std::unique_ptr<Kernel> makeOurs(Scene const& scene, bool packed = true);

#ifdef KELPA_HAS_PEER
inline constexpr bool hasPeer = true;

/// The peer over `scene`, which stays alive for as long.
std::unique_ptr<Kernel> makePeer(Scene const& scene);

/// The peer's name and version.
std::string peerName();
#else
inline constexpr bool hasPeer = false;
inline std::unique_ptr<Kernel> makePeer(Scene const&) {
    return nullptr;
}
inline std::string peerName() {
    return "no peer";
}
#endif

/// Builds our kernel on one thread, then makes every kind of rays with it.
std::vector<RaySet> raySets(Scene const& scene, int count);

/// As `raySets`: about `count` rays of each of some pictures of 1280 x 720, and the shadow rays
/// from what they hit.
std::vector<RaySet> pictureSets(Scene const& scene, int count);

} // namespace kelpabench
