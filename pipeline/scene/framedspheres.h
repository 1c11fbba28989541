// The spheres that a picture is to hold, visited where they lie.
#pragma once

#include "kelpa/foundation/vector.h"

#include "pipeline/scene/bounds.h"
#include "pipeline/scene/cellbox.h"
#include "pipeline/scene/vec.h"

#include <algorithm>
#include <cstddef>
#include <span>

namespace pipeline {

/// Spheres that a picture is to hold: those of particles, of moving ones at both ends of their way,
/// and the ends of rods. Nothing is copied; what it is made of must outlive it.
class FramedSpheres {
  public:
    /// Particles at one end of their ways, a radius per centre.
    struct End {
        std::span<Kelpa::Vector const> centers;
        std::span<float const> radii;
    };

    /// Spheres that stand still.
    FramedSpheres(std::span<Kelpa::Vector const> centers, std::span<float const> radii)
        : first{centers, radii} {}
    /// `closing` is empty for those that stand still. `unusableOnes` is not 0 for particles that do
    /// not count; empty: all do.
    FramedSpheres(End const& opening, End const& closing, std::span<char const> unusableOnes,
                  std::span<Rod const> rodsBeside)
        : first(opening), last(closing), unusable(unusableOnes), rods(rodsBeside) {}

    /// Calls `visit(center, radius)` for each; where there is none, for one at the origin, since an
    /// empty scene is seen from somewhere as well.
    template <class Visit> void forEach(Visit const& visit) const {
        bool isEmpty = rods.empty();
        for (std::size_t i = 0; i < first.centers.size(); ++i) {
            if (!unusable.empty() && unusable[i] != 0)
                continue;
            isEmpty = false;
            visit(first.centers[i], first.radii[i]);
            if (!last.centers.empty())
                visit(last.centers[i], last.radii[i]);
        }
        for (Rod const& rod : rods)
            for (Vec const& end : {rod.from, rod.to})
                visit(narrow(end), static_cast<float>(rod.radius));
        if (isEmpty)
            visit(Kelpa::Vector{0.0F, 0.0F, 0.0F}, 1.0F);
    }

    /// The box around all centres.
    Bounds bounds() const {
        Bounds box;
        forEach([&box](Kelpa::Vector const& center, float) { box.add(wide(center)); });
        return box;
    }

    float largestRadius() const {
        float largest = 0.0F;
        forEach([&largest](auto const&, float radius) { largest = std::max(largest, radius); });
        return largest;
    }

  private:
    End first;
    End last;
    std::span<char const> unusable;
    std::span<Rod const> rods;
};

} // namespace pipeline
