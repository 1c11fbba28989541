// How samples fill a particle set, and which samples there are.
#pragma once

#include "pipeline/files/particleset.h"
#include "pipeline/files/progress.h"
#include "pipeline/files/srgb.h"
#include "pipeline/samples/numbers.h"

#include <algorithm>
#include <cstdint>

namespace pipeline::samples {

/// An sRGB colour, 0 to 255 each.
using Color = Point;

struct Particle {
    Point position;
    double radius = 1.0;
    Color color;
    Point velocity;
};

/// Stores with whole sRGB codes, so that files hold a byte per channel.
inline void append(ParticleSet& set, Particle const& particle) {
    auto const channel = [](double code) {
        return linearOfCode()[static_cast<std::size_t>(std::clamp(code, 0.0, 255.0) + 0.5)];
    };
    set.ids.push_back(static_cast<std::int64_t>(set.positions.size()));
    set.positions.push_back(vectorOf(particle.position));
    set.radii.push_back(static_cast<float>(particle.radius));
    set.colors.push_back(
        {channel(particle.color.x), channel(particle.color.y), channel(particle.color.z)});
    set.velocities.push_back(vectorOf(particle.velocity));
}

/// Polls now and then: at every 1024th call at the latest, a millisecond of work.
class Poll {
  public:
    Poll(PhaseProgress const& phase, double expectedCalls)
        : progress(phase), expected(expectedCalls) {}
    void operator()(std::uint64_t particles) {
        if (calls++ % 1024 == 0 && progress)
            progress(std::min(1.0, static_cast<double>(calls) / expected), particles);
    }

  private:
    PhaseProgress const& progress;
    double expected;
    std::uint64_t calls = 0;
};

/// Fills a set with what `make` says of particle 0, 1, 2 and so on.
template <class Make>
inline void appendEach(ParticleSet& set, std::uint64_t count, PhaseProgress const& progress,
                       Make make) {
    Poll poll(progress, static_cast<double>(count));
    for (std::uint64_t i = 0; i < count; ++i) {
        poll(i);
        append(set, make(i));
    }
}

// Each appends `count` particles, of which there is at least one.
void makeGalaxy(ParticleSet& set, std::uint64_t count, std::uint64_t seed,
                PhaseProgress const& progress);
void makeSplash(ParticleSet& set, std::uint64_t count, std::uint64_t seed,
                PhaseProgress const& progress);
void makeCrystal(ParticleSet& set, std::uint64_t count, std::uint64_t seed,
                 PhaseProgress const& progress);
void makeCloud(ParticleSet& set, std::uint64_t count, std::uint64_t seed,
               PhaseProgress const& progress);

} // namespace pipeline::samples
