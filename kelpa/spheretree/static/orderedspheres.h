// Internal: the order in memory in which a build of a still tree reads its spheres.
#pragma once

#include "kelpa/foundation/optionalarray.h"
#include "kelpa/spheretree/buildmemory.h"
#include "kelpa/spheretree/spaceorder.h"
#include "kelpa/spheretree/static/sdrecords.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>

namespace Kelpa {

inline constexpr std::int32_t fewestOrdered = 2000; // fewer fit into the fastest caches anyway

/// Numbers the spheres anew for the time of a build, by place, and copies them in that order: those
/// that a node cuts then lie together in memory. Does nothing when memory is short.
template <class Tree> class OrderedSpheres {
  public:
    explicit OrderedSpheres(Tree& orderedTree) : tree(orderedTree) {
        if (tree.numSpheres < fewestOrdered)
            return;
        auto const count = static_cast<std::uint32_t>(tree.numSpheres);
        order = SpaceOrder(count, [this](std::uint32_t k) { return tree.centerOf(k); });
        auto places = tryAllocate<std::uint32_t>(count);
        auto copies = tryAllocate<OrderedSphere>(count);
        if (order.isEmpty() || places == nullptr || copies == nullptr)
            return;
        constexpr std::uint32_t prefetchDistance = 16; // spheres
        for (std::uint32_t place = 0; place < count; ++place) {
            tree.prefetchSphere(order[std::min(place + prefetchDistance, count - 1)]);
            std::uint32_t const k = order[place];
            places[k] = place;
            copies[place] = {tree.centerOf(k), tree.radiusOf(k)};
        }
        placeOf = std::move(places);
        spheres = std::move(copies);
        tree.orderedSpheres = spheres.get();
        addBuildBytes(
            tree, bytesOf(SpaceOrder::bytesEach + sizeof(std::uint32_t) + sizeof(OrderedSphere)));
    }
    OrderedSpheres(OrderedSpheres const&) = delete;
    OrderedSpheres& operator=(OrderedSpheres const&) = delete;
    ~OrderedSpheres() {
        tree.orderedSpheres = nullptr;
        forgetNames();
        if (spheres != nullptr)
            addBuildBytes(tree, -bytesOf(SpaceOrder::bytesEach + sizeof(OrderedSphere)));
    }

    /// What a record shall call a sphere.
    std::uint32_t nameOf(std::uint32_t sphereIndex) const {
        return placeOf != nullptr ? placeOf[sphereIndex] : sphereIndex;
    }
    /// To be called when all records are made.
    void forgetNames() {
        if (placeOf != nullptr)
            addBuildBytes(tree, -bytesOf(sizeof(std::uint32_t)));
        placeOf.reset();
    }

    /// Lets a leaf call its spheres by their indices, once nobody asks where they are in the order.
    void nameByIndex(typename Tree::Node& leaf) const {
        for (std::int32_t i = 0; spheres != nullptr && i < leaf.numLeafSpheres; ++i) {
            std::uint32_t& name = leaf.leafSpheres()[i].sphereIndex;
            name = order[name];
        }
    }
    /// The same for all leaves.
    void nameAllByIndex() const {
        if (spheres == nullptr)
            return;
        for (auto* block = tree.nodes.first; block != nullptr; block = block->next)
            for (auto* node = block->elements; node != block->elements + block->count; ++node)
                if (node->isLeaf())
                    nameByIndex(*node);
    }

  private:
    std::int64_t bytesOf(std::size_t each) const {
        return static_cast<std::int64_t>(each) * tree.numSpheres;
    }

    Tree& tree;
    SpaceOrder order;
    OptionalArray<std::uint32_t> placeOf;
    OptionalArray<OrderedSphere> spheres;
};

} // namespace Kelpa
