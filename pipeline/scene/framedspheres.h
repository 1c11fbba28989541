// The spheres that a picture is to hold, visited where they lie.
#pragma once

#include "kelpa/foundation/vector.h"

#include "pipeline/scene/bounds.h"
#include "pipeline/scene/cellbox.h"
#include "pipeline/scene/raytransport.h"
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
    /// With `others` they have more of the particles, and are asked what is asked of all.
    FramedSpheres(End const& opening, End const& closing, std::span<char const> unusableOnes,
                  std::span<Rod const> rodsBeside, RayTransport* others = nullptr)
        : first(opening), last(closing), unusable(unusableOnes), rods(rodsBeside), sharers(others) {
    }

    /// Calls `visit(center, radius)` for each that is here; where there is none at all, for one at
    /// the origin, since an empty scene is seen from somewhere as well.
    template <class Visit> void forEach(Visit const& visit) const {
        bool isEmpty = rods.empty() && sharers == nullptr; // who share have some
        for (std::size_t i = 0; i < first.centers.size(); ++i) {
            if (!unusable.empty() && unusable[i] != 0)
                continue;
            isEmpty = false;
            visit(first.centers[i], first.radii[i]);
            if (!last.centers.empty())
                visit(last.centers[i], last.radii[i]);
        }
        bool const hasRods = sharers == nullptr || sharers->rank() + 1 == sharers->ranks();
        for (Rod const& rod : hasRods ? rods : std::span<Rod const>())
            for (Vec const& end : {rod.from, rod.to})
                visit(narrow(end), static_cast<float>(rod.radius));
        if (isEmpty)
            visit(Kelpa::Vector{0.0F, 0.0F, 0.0F}, 1.0F);
    }

    /// Of numbers each of which is the greatest among the spheres that are here, makes the greatest
    /// among all.
    void takeGreatest(std::span<double> numbers) const {
        if (sharers != nullptr)
            sharers->takeGreatest(numbers);
    }
    /// Who have the others; null: all are here.
    RayTransport* others() const { return sharers; }

    /// The box around all centres.
    Bounds bounds() const {
        Bounds box;
        forEach([&box](Kelpa::Vector const& center, float) { box.add(wide(center)); });
        double ends[] = {-box.min.x, -box.min.y, -box.min.z, box.max.x, box.max.y, box.max.z};
        takeGreatest(ends);
        return {{-ends[0], -ends[1], -ends[2]}, {ends[3], ends[4], ends[5]}};
    }

    float largestRadius() const {
        double largest[] = {0.0};
        forEach([&largest](auto const&, float radius) {
            largest[0] = std::max(largest[0], static_cast<double>(radius));
        });
        takeGreatest(largest);
        return static_cast<float>(largest[0]);
    }

  private:
    End first;
    End last;
    std::span<char const> unusable;
    std::span<Rod const> rods;
    RayTransport* sharers = nullptr;
};

} // namespace pipeline
