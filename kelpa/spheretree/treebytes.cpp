// Arranges trees in the order of a walk, where a link is known before it is read.
#include "kelpa/spheretree/treebytes.h"

#include "kelpa/foundation/optionalarray.h"
#include "kelpa/spheretree/buildmemory.h"
#include "kelpa/spheretree/splitchoice.h"
#include "kelpa/spheretree/treeforms.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <new>
#include <span>
#include <type_traits>
#include <utility>

namespace Kelpa {

namespace {

/// What the bytes begin with.
template <class Tree> struct Head {
    std::uint32_t kind;
    std::int32_t systems;
    std::int32_t particles; ///< usable or not
    std::int32_t spheres;
    std::int32_t nodes;
    std::int32_t entries;
    std::int32_t hasTable; ///< 1: of spheres; else each particle is one
    std::int32_t wasAborted;
    std::uint64_t packedFloats;
    std::int64_t peakBytes;
    typename Form<Tree>::Facts facts;
};

template <class T> std::span<std::byte const> bytesOf(T const* first, std::size_t count) {
    static_assert(std::is_trivially_copyable_v<T>);
    return std::as_bytes(std::span(first, count));
}
template <class T> std::span<std::byte> roomOf(T* first, std::size_t count) {
    static_assert(std::is_trivially_copyable_v<T>);
    return std::as_writable_bytes(std::span(first, count));
}

/// Room that must be there.
template <class T> OptionalArray<T> allocate(std::int32_t count) {
    auto room = tryAllocate<T>(static_cast<std::size_t>(count));
    if (room == nullptr)
        throwOutOfMemory();
    return room;
}

template <class Tree> using NodeOf = typename Tree::Node;
template <class Tree> using EntryOf = typename decltype(Tree::leafSpheres)::Element;

/// Visits the nodes of an array in the order of a walk from the first on, the lower child before
/// the upper. `open` says of node number i, with so many inner nodes above it, where its children
/// are, or -1 for a leaf, or -2 to end it all. False when it was ended or goes deeper than trees
/// do.
template <class Open> bool walk(Open const& open) {
    struct Waiting {
        std::int32_t node;
        std::int32_t level;
    };
    constexpr std::int32_t end = -2;
    // At most one node waits on each level of the path, and one behind it.
    Waiting waiting[levelLimit + 2] = {{0, 0}};
    for (int used = 1; used > 0;) {
        Waiting const at = waiting[--used];
        std::int32_t const children = open(at.node, at.level);
        if (children == end || (children >= 0 && at.level >= levelLimit))
            return false;
        if (children < 0)
            continue;
        waiting[used++] = {children + 1, at.level + 1};
        waiting[used++] = {children, at.level + 1};
    }
    return true;
}

/// Whether nobody reads the table of spheres.
template <class Tree> bool canLendSpheres(Tree& tree) {
    // Packed floats are at least twelve bytes a sphere, so there are addresses enough for the
    // eight bytes of a table's.
    return tree.particleSystems.count == 1 && tree.numSpheres == Form<Tree>::particles(tree) &&
           Form<Tree>::packs(tree) != nullptr && tree.wasAborted == 0;
}

template <class Tree> void lendSpheres(Tree& tree) {
    using Sphere = std::remove_pointer_t<decltype(tree.spheres)>;
    tree.spheresAreLent = 1;
    tree.spheres = reinterpret_cast<Sphere*>(Form<Tree>::packs(tree));
}

/// Whether nodes and entries lie as `makeCompact` arranges them.
template <class Tree> bool isCompact(Tree const& tree) {
    return tree.nodes.allocator.isAdopted &&
           (tree.leafSpheres.allocator.isAdopted || tree.leafSpheres.count == 0);
}

template <class Tree>
void takeOver(Tree& tree, OptionalArray<NodeOf<Tree>> nodes, std::int32_t numNodes,
              OptionalArray<EntryOf<Tree>> entries, std::int32_t numEntries) {
    tree.root = nodes.get();
    tree.nodes.adopt(std::move(nodes), numNodes);
    if (numEntries > 0)
        tree.leafSpheres.adopt(std::move(entries), numEntries);
}

/// Empties a tree but for its systems.
template <class Tree> void clear(Tree& tree) {
    releaseSpheres(tree);
    releaseNodes(tree);
    FreeMemory{}(Form<Tree>::packs(tree));
    Form<Tree>::packs(tree) = nullptr;
    tree.packedFloats = 0;
    Form<Tree>::particles(tree) = 0;
}

template <class Tree> void arrange(Tree& tree) {
    using Node = NodeOf<Tree>;
    using Entry = EntryOf<Tree>;
    if (tree.root == nullptr || isCompact(tree))
        return;
    std::int32_t const most = tree.nodes.getCount();
    auto nodes = allocate<Node>(most);
    auto entries = allocate<Entry>(std::max(tree.leafSpheres.getCount(), 1));
    nodes[0] = *tree.root;
    std::int32_t numNodes = 1;
    std::int32_t numEntries = 0;
    walk([&](std::int32_t number, std::int32_t) {
        Node& node = nodes[static_cast<std::size_t>(number)];
        if (node.isLeaf()) {
            std::int32_t const count = Form<Tree>::entriesOf(node);
            Entry* const run = entries.get() + numEntries;
            std::copy_n(node.leafSpheres(), count, run);
            if (count > 0)
                node.becomeLeaf(run, count);
            numEntries += count;
            return -1;
        }
        std::int32_t const children = std::exchange(numNodes, numNodes + 2);
        std::copy_n(node.children(), 2, nodes.get() + children);
        node.becomeInner(node.kind(), node.splitPos, nodes.get() + children);
        return children;
    });
    releaseNodes(tree);
    try {
        takeOver(tree, std::move(nodes), numNodes, std::move(entries), numEntries);
    } catch (...) {
        clear(tree);
        throw;
    }
    Form<Tree>::complete(tree);
}

template <class Tree> void compact(Tree& tree) {
    arrange(tree);
    if (tree.spheresAreLent != 0 || !canLendSpheres(tree))
        return;
    delete[] tree.spheres;
    lendSpheres(tree);
}

/// Writes nodes with numbers in place of addresses.
template <class Tree> void writeNodes(Tree const& tree, ByteSink const& sink) {
    using Node = NodeOf<Tree>;
    constexpr std::int32_t atATime = 4096;
    auto const copies = allocate<Node>(atATime);
    auto const* const entries =
        tree.leafSpheres.first != nullptr ? tree.leafSpheres.first->elements : nullptr;
    for (std::int32_t first = 0; first < tree.nodes.count; first += atATime) {
        std::int32_t const count = std::min(atATime, tree.nodes.count - first);
        std::copy_n(tree.root + first, count, copies.get());
        for (std::int32_t i = 0; i < count; ++i) {
            Node& node = copies[static_cast<std::size_t>(i)];
            std::ptrdiff_t const number = !node.isLeaf() ? node.children() - tree.root
                                          : Form<Tree>::entriesOf(node) > 0
                                              ? node.leafSpheres() - entries
                                              : 0;
            node.link = static_cast<std::uint64_t>(number) << 2U |
                        static_cast<std::uint64_t>(linkKind(node.link));
        }
        sink(bytesOf(copies.get(), static_cast<std::size_t>(count)));
    }
}

/// The bytes that a tree with this head takes.
template <class Tree> std::uint64_t sizeOf(Head<Tree> const& head) {
    auto const all = [](std::int32_t count, std::size_t each) {
        return static_cast<std::uint64_t>(count) * each;
    };
    std::uint64_t const table = head.hasTable != 0 ? all(head.spheres, sizeof(SDSphere)) : 0;
    return sizeof(head) + all(head.nodes, sizeof(NodeOf<Tree>)) +
           all(head.entries, sizeof(EntryOf<Tree>)) + table + head.packedFloats * sizeof(float);
}

template <class Tree> Head<Tree> headOf(Tree& tree) {
    std::int32_t const particles = Form<Tree>::particles(tree);
    // The same for compact trees and others: those of no more than one system, whole.
    bool const hasTable = tree.particleSystems.count != 1 || tree.numSpheres != particles;
    Head<Tree> head{};
    head = {Form<Tree>::kind,
            tree.particleSystems.count,
            particles,
            tree.numSpheres,
            tree.root != nullptr ? tree.nodes.count : 0,
            tree.leafSpheres.count,
            hasTable ? 1 : 0,
            tree.wasAborted,
            tree.packedFloats,
            tree.peakBytes,
            Form<Tree>::facts(tree)};
    return head;
}

template <class Tree> void write(Tree& tree, ByteSink const& sink) {
    compact(tree);
    Head<Tree> const head = headOf(tree);
    sink(bytesOf(&head, 1));
    if (head.nodes > 0)
        writeNodes(tree, sink);
    if (head.entries > 0)
        sink(bytesOf(tree.leafSpheres.first->elements, static_cast<std::size_t>(head.entries)));
    if (head.hasTable != 0)
        sink(bytesOf(tree.spheres, static_cast<std::size_t>(head.spheres)));
    sink(bytesOf(Form<Tree>::packs(tree), tree.packedFloats));
}

/// Whether a head belongs to a tree over these systems that takes so many bytes in all.
template <class Tree> bool isHeadOf(Head<Tree> const& head, Tree& tree, std::uint64_t size) {
    std::int64_t particles = 0;
    for (std::int32_t s = 0; s < tree.particleSystems.count; ++s)
        particles += Form<Tree>::particlesIn(tree.particleSystems.elements[s]);
    bool const isWhole = head.particles == head.spheres && head.systems == 1;
    return head.kind == Form<Tree>::kind && head.systems == tree.particleSystems.count &&
           head.particles == particles && head.spheres >= 0 && head.spheres <= head.particles &&
           head.nodes >= (head.spheres > 0 ? 1 : 0) && head.entries >= 0 &&
           head.hasTable == (isWhole ? 0 : 1) && (head.wasAborted == 0 || head.wasAborted == 1) &&
           head.packedFloats <= LeafPack::lastPosition &&
           Form<Tree>::arePacksWhole(head.packedFloats, head.spheres) && size == sizeOf(head);
}

/// Puts addresses in place of the numbers in nodes, each of which can only be what the walk has
/// reached there. False when one is not, or searches would not be ready for the tree.
template <class Tree>
bool linkNodes(Head<Tree> const& head, NodeOf<Tree>* nodes, EntryOf<Tree> const* entries) {
    std::int32_t numNodes = 1;
    std::int32_t numEntries = 0;
    std::int32_t deepest = 0;
    bool const isWhole = walk([&](std::int32_t number, std::int32_t level) {
        constexpr std::int32_t wrong = -2;
        auto& node = nodes[number];
        std::uint64_t const target = node.link >> 2U;
        deepest = std::max(deepest, level);
        if (node.isLeaf()) {
            std::int32_t const count = Form<Tree>::entriesOf(node);
            if (count < 0 || count > head.entries - numEntries ||
                target != static_cast<std::uint64_t>(count > 0 ? numEntries : 0) ||
                !Form<Tree>::isPackInside(node, head.packedFloats))
                return wrong;
            node.link &= 3U;
            if (count > 0)
                node.becomeLeaf(entries + numEntries, count);
            numEntries += count;
            return -1;
        }
        if (head.nodes - numNodes < 2 || target != static_cast<std::uint64_t>(numNodes))
            return wrong;
        std::int32_t const children = std::exchange(numNodes, numNodes + 2);
        node.becomeInner(node.kind(), node.splitPos, nodes + children);
        return children;
    });
    return isWhole && numNodes == head.nodes && numEntries == head.entries &&
           Form<Tree>::isDeepEnough(head.facts, deepest);
}

/// Reads, or makes, the table of spheres.
template <class Tree>
bool readSpheres(Tree& tree, Head<Tree> const& head, ByteSource const& source) {
    using Sphere = std::remove_pointer_t<decltype(tree.spheres)>;
    Form<Tree>::particles(tree) = head.particles;
    if (head.hasTable == 0 && head.packedFloats > 0 && head.wasAborted == 0) {
        tree.numSpheres = head.spheres;
        return true; // lent as soon as there are packs
    }
    tree.spheres = new (std::nothrow) Sphere[static_cast<std::size_t>(head.particles)];
    if (tree.spheres == nullptr)
        throwOutOfMemory();
    tree.numSpheres = head.spheres;
    if (head.hasTable == 0) {
        for (std::int32_t i = 0; i < head.spheres; ++i)
            tree.spheres[i] = Sphere::of(i, 0);
        return true;
    }
    auto const count = static_cast<std::size_t>(head.spheres);
    if (!source(roomOf(tree.spheres, count)))
        return false;
    return std::all_of(tree.spheres, tree.spheres + count, [&](Sphere const& sphere) {
        std::uint32_t const system = sphere.system();
        if (system >= static_cast<std::uint32_t>(head.systems))
            return false;
        auto const particles = static_cast<std::uint32_t>(
            Form<Tree>::particlesIn(tree.particleSystems.elements[system]));
        return static_cast<std::uint32_t>(sphere.particleIndex) < particles;
    });
}

template <class Tree> bool readAll(Tree& tree, ByteSource const& source, std::uint64_t size) {
    using Node = NodeOf<Tree>;
    using Entry = EntryOf<Tree>;
    Head<Tree> head;
    if (!source(roomOf(&head, 1)) || !isHeadOf(head, tree, size))
        return false;
    tree.wasAborted = head.wasAborted;
    tree.peakBytes = head.peakBytes;
    Form<Tree>::take(tree, head.facts);
    auto const& systems = tree.particleSystems;
    tree.singleSystem = systems.count == 1 && systems.elements[0].indexOffset == -1 ? 1 : 0;

    auto nodes = allocate<Node>(std::max(head.nodes, 1));
    auto entries = allocate<Entry>(std::max(head.entries, 1));
    auto const numNodes = static_cast<std::size_t>(head.nodes);
    auto const numEntries = static_cast<std::size_t>(head.entries);
    if (!source(roomOf(nodes.get(), numNodes)) || !source(roomOf(entries.get(), numEntries)))
        return false;
    if (!std::all_of(entries.get(), entries.get() + numEntries, [&](Entry const& entry) {
            return entry.sphereIndex < static_cast<std::uint32_t>(head.spheres);
        }))
        return false;
    if (head.nodes > 0 && !linkNodes(head, nodes.get(), entries.get()))
        return false;
    if (head.nodes > 0)
        takeOver(tree, std::move(nodes), head.nodes, std::move(entries), head.entries);
    if (!readSpheres(tree, head, source))
        return false;
    if (head.packedFloats == 0)
        return true;
    auto packs = tryAllocate<float>(head.packedFloats);
    if (packs == nullptr)
        throwOutOfMemory();
    if (!source(roomOf(packs.get(), head.packedFloats)))
        return false;
    Form<Tree>::packs(tree) = packs.release();
    tree.packedFloats = head.packedFloats;
    Form<Tree>::complete(tree);
    if (canLendSpheres(tree))
        lendSpheres(tree);
    return true;
}

template <class Tree> bool read(Tree& tree, ByteSource const& source, std::uint64_t size) {
    clear(tree);
    Form<Tree>::take(tree, Form<Tree>::facts(Tree()));
    bool isWhole = false;
    try {
        isWhole = readAll(tree, source, size);
    } catch (...) {
        clear(tree);
        throw;
    }
    if (!isWhole)
        clear(tree);
    return isWhole;
}

} // namespace

void makeCompact(StaticSphereTree& tree) {
    compact(tree);
}
void makeCompact(MovingSphereTree& tree) {
    compact(tree);
}

std::uint64_t writtenBytes(StaticSphereTree& tree) {
    compact(tree);
    return sizeOf(headOf(tree));
}
std::uint64_t writtenBytes(MovingSphereTree& tree) {
    compact(tree);
    return sizeOf(headOf(tree));
}

void writeTree(StaticSphereTree& tree, ByteSink const& sink) {
    write(tree, sink);
}
void writeTree(MovingSphereTree& tree, ByteSink const& sink) {
    write(tree, sink);
}

bool readTree(StaticSphereTree& tree, ByteSource const& source, std::uint64_t size) {
    return read(tree, source, size);
}
bool readTree(MovingSphereTree& tree, ByteSource const& source, std::uint64_t size) {
    return read(tree, source, size);
}

} // namespace Kelpa
