// The project's own samples.

#include "pipeline/samples/samples.h"

#include "tests/support/particlefolder.h"
#include "tests/support/particletexts.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>

namespace {

using namespace kelpatest;
using namespace pipeline;

TEST(GeneratedParticles, AreTheSameEverywhere) {
    // FNV-1a over all bits, as other compilers, optimisation levels and machines find them.
    struct Case {
        char const* kind;
        std::uint64_t hash;
    };
    for (Case const& c : {Case{"galaxy", 0x786cb81abe0d44cb}, Case{"splash", 0xf718e1c87a3cfd1c},
                          Case{"crystal", 0x4552fb4d1fee7955}, Case{"cloud", 0x3b4a44bd36e5fca8}}) {
        SCOPED_TRACE(c.kind);
        ParticleSet const set = generateParticles(c.kind, 20000, 5, {});
        std::uint64_t hash = 14695981039346656037U;
        auto const take = [&](float value) {
            for (std::uint32_t bits = std::bit_cast<std::uint32_t>(value), i = 0; i < 4; ++i)
                hash = (hash ^ ((bits >> (8 * i)) & 0xff)) * 1099511628211U;
        };
        for (std::size_t i = 0; i < set.positions.size(); ++i) {
            for (Kelpa::Vector const& v : {set.positions[i], set.colors[i], set.velocities[i]}) {
                take(v.x);
                take(v.y);
                take(v.z);
            }
            take(set.radii[i]);
            ASSERT_TRUE(std::isfinite(set.positions[i].x) && set.radii[i] > 0.0F) << i;
        }
        EXPECT_EQ(hash, c.hash) << std::hex << hash;
        for (std::uint64_t const count : {0U, 1U, 12345U})
            EXPECT_EQ(generateParticles(c.kind, count, 2, {}).positions.size(), count);
        EXPECT_FALSE(sameBits(set.positions, generateParticles(c.kind, 20000, 6, {}).positions));
    }
    EXPECT_EQ(sampleKinds().size(), 4U);
    EXPECT_THROW(generateParticles("nebula", 1, 1, {}), std::invalid_argument);
}
} // namespace
