// Internal: what a tree and its build hold of memory, and the most of it at a time.
#pragma once

#include "kelpa/foundation/blockpool.h"
#include "kelpa/foundation/exceptionmsg.h"
#include "kelpa/foundation/optionalarray.h"
#include "kelpa/foundation/sharedcounters.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <new>
#include <type_traits>
#include <utility>

namespace Kelpa {

/// A total of particles as the trees keep it. More than it can say is more than fits in memory.
inline std::int32_t checkedTotal(std::int64_t particles) {
    if (particles > std::numeric_limits<std::int32_t>::max())
        throwOutOfMemory();
    return static_cast<std::int32_t>(particles);
}

/// Bytes of all that the tree holds; while it is built, of what it is built with, too.
template <class Tree> std::uint64_t heldBytes(Tree const& tree) {
    using System = std::remove_pointer_t<decltype(tree.particleSystems.elements)>;
    auto const tableBytes =
        static_cast<std::uint64_t>(tree.particleSystems.capacity) * sizeof(System);
    return tree.getMemUsage() + tree.getPackedMemUsage() + tableBytes +
           static_cast<std::uint64_t>(readShared(tree.buildBytes));
}

/// Raises the build's peak to what the tree holds now and as many bytes more. Blocks of sequences
/// and the like only grow while jobs run, so a few calls suffice: where something large begins or
/// is about to end. Takes the sequences' locks in turn; call it with none held.
template <class Tree> void notePeak(Tree& tree, std::uint64_t more = 0) {
    raiseShared(tree.peakBytes, static_cast<std::int64_t>(heldBytes(tree) + more));
}

/// Counts bytes that a build takes for a time, or gives back where there are fewer than 0.
template <class Tree> void addBuildBytes(Tree& tree, std::int64_t bytes) {
    addShared(tree.buildBytes, bytes);
    if (bytes > 0)
        notePeak(tree);
}

/// Counts bytes as a build's from here to the end of the scope.
template <class Tree> class CountedBytes {
  public:
    CountedBytes(Tree& owner, std::size_t taken)
        : tree(owner), bytes(static_cast<std::int64_t>(taken)) {
        addBuildBytes(tree, bytes);
    }
    CountedBytes(CountedBytes const&) = delete;
    CountedBytes& operator=(CountedBytes const&) = delete;
    ~CountedBytes() { addBuildBytes(tree, -bytes); }

  private:
    Tree& tree;
    std::int64_t const bytes;
};

/// Trees of fewer spheres get their memory block by block: a slab would be mostly empty.
inline constexpr std::int32_t fewestPooled = 1 << 17;

/// Records live for a short time, and a build's threads share them: they gain from slabs earlier.
inline constexpr std::int32_t fewestRecycled = 1 << 16;

/// Where a build's records come from.
template <class Tree> BlockPool::Source recordSource(Tree const& tree) {
    return tree.numSpheres >= fewestRecycled ? BlockPool::Source::slabs : BlockPool::Source::heap;
}

/// Makes the root, an empty leaf. Has the nodes and entries of a large tree lie in slabs.
template <class Tree> void makeRoot(Tree& tree) {
    bool const isLarge = tree.numSpheres >= fewestPooled;
    tree.nodes.allocator.pool = isLarge ? &tree.nodePool : nullptr;
    tree.leafSpheres.allocator.pool = isLarge ? &tree.entryPool : nullptr;
    tree.root = tree.nodes.newElement();
    *tree.root = {};
}

/// Makes the table of spheres, with room for all particles; `particlesIn` tells a system's. They
/// are counted in `total`.
template <class Tree, class ParticlesIn>
void allocateSpheres(Tree& tree, std::int32_t& total, ParticlesIn const& particlesIn) {
    std::int64_t particles = 0;
    for (std::int32_t s = 0; s < tree.particleSystems.count; ++s)
        particles += particlesIn(tree.particleSystems.elements[s]);
    writeShared(total, checkedTotal(particles));
    using Sphere = std::remove_pointer_t<decltype(tree.spheres)>;
    tree.spheres = new (std::nothrow) Sphere[static_cast<std::size_t>(particles)];
    if (tree.spheres == nullptr)
        throwOutOfMemory();
}

/// Releases the table of spheres.
template <class Tree> void releaseSpheres(Tree& tree) {
    if (tree.spheresAreLent == 0)
        delete[] tree.spheres;
    tree.spheres = nullptr;
    tree.spheresAreLent = 0;
    tree.numSpheres = 0;
}

/// Bytes of the table of spheres.
template <class Tree> std::uint64_t sphereTableBytes(Tree const& tree, std::int32_t const& length) {
    auto const spheres = static_cast<std::uint64_t>(readShared(length));
    return readShared(tree.spheresAreLent) != 0 ? 0 : sizeof(*tree.spheres) * spheres;
}

/// Releases nodes and entries, and what leads queries to them.
template <class Tree> void releaseNodes(Tree& tree) {
    if constexpr (requires { tree.walkNodes; }) {
        FreeMemory{}(std::exchange(tree.walkNodes, nullptr));
        tree.walkNodeBytes = 0;
    }
    tree.nodes.freeData();
    tree.leafSpheres.freeData();
    tree.root = nullptr;
    tree.nodePool.release();
    tree.entryPool.release();
}

} // namespace Kelpa
