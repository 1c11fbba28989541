// Which samples there are.
#include "pipeline/samples/samples.h"

#include "pipeline/samples/particles.h"

#include <stdexcept>

namespace pipeline {

namespace {

struct SampleKind {
    char const* name;
    void (*make)(ParticleSet& set, std::uint64_t count, std::uint64_t seed,
                 PhaseProgress const& progress);
};

constexpr SampleKind kinds[] = {{"galaxy", samples::makeGalaxy},
                                {"splash", samples::makeSplash},
                                {"crystal", samples::makeCrystal},
                                {"cloud", samples::makeCloud}};

} // namespace

std::vector<std::string> const& sampleKinds() {
    static std::vector<std::string> const names = [] {
        std::vector<std::string> list;
        for (SampleKind const& kind : kinds)
            list.emplace_back(kind.name);
        return list;
    }();
    return names;
}

ParticleSet generateParticles(std::string const& kind, std::uint64_t count, std::uint64_t seed,
                              PhaseProgress const& progress) {
    for (SampleKind const& known : kinds) {
        if (known.name != kind)
            continue;
        ParticleSet set;
        set.format = "generated";
        set.radiusSource = "radius";
        set.colorSource = "red green blue";
        set.positions.reserve(count);
        set.radii.reserve(count);
        set.colors.reserve(count);
        set.velocities.reserve(count);
        set.ids.reserve(count);
        if (count > 0)
            known.make(set, count, seed, progress);
        return set;
    }
    throw std::invalid_argument("no sample '" + kind + "'");
}

} // namespace pipeline
