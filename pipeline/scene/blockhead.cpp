// Turns what is known of a tree into numbers and back, and tells what is no such numbers.
#include "pipeline/scene/blockhead.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

#define XXH_INLINE_ALL // the library's header is all that is needed
#include <xxhash.h>

namespace pipeline {

namespace {

constexpr char blockMagic[8] = {'k', 'e', 'l', 'p', 'a', 'b', 'l', 'k'};
constexpr std::uint32_t ownByteOrder = 0x01020304;
constexpr std::uint32_t ownFormat = 1;

// What a head's flags say.
constexpr std::int64_t moving = 1;
constexpr std::int64_t leafCounts = 2;
constexpr std::int64_t bounded = 4;
constexpr std::int64_t boundedInMotion = 8;

void putBox(double (&to)[6], Bounds const& box) {
    double const numbers[6] = {box.min.x, box.min.y, box.min.z, box.max.x, box.max.y, box.max.z};
    std::copy(numbers, numbers + 6, to);
}
Bounds boxOf(double const (&from)[6]) {
    return {{from[0], from[1], from[2]}, {from[3], from[4], from[5]}};
}

std::uint64_t checksumOf(BlockHead const& head) {
    return XXH3_64bits(&head, offsetof(BlockHead, checksum));
}

} // namespace

struct Checksum::State {
    alignas(64) XXH3_state_t xxh;
};

Checksum::Checksum() : state(std::make_unique<State>()) {
    XXH3_64bits_reset(&state->xxh);
}
Checksum::~Checksum() = default;

void Checksum::add(std::span<std::byte const> bytes) {
    if (!bytes.empty())
        XXH3_64bits_update(&state->xxh, bytes.data(), bytes.size());
}

std::uint64_t Checksum::result() const {
    return XXH3_64bits_digest(&state->xxh);
}

BlockHead BlockHead::of(BlockFacts const& facts, std::uint64_t fingerprint,
                        std::uint64_t treeBytes) {
    TreeStatistics const& s = facts.statistics;
    BlockHead head{};
    std::copy(blockMagic, blockMagic + 8, head.magic);
    head.byteOrder = ownByteOrder;
    head.format = ownFormat;
    head.fingerprint = fingerprint;
    head.treeBytes = treeBytes;
    head.flags = (s.isMoving ? moving : 0) | (s.leaves ? leafCounts : 0) |
                 (facts.bounds ? bounded : 0) | (facts.motionBounds ? boundedInMotion : 0);
    std::int64_t const counts[7] = {s.trees, s.systems,     s.particles, s.used,
                                    s.nodes, s.leafEntries, s.maxDepth};
    std::copy(counts, counts + 7, head.counts);
    std::uint64_t const bytes[4] = {s.treeBytes, s.packedBytes, s.totalBytes, s.peakBytes};
    std::copy(bytes, bytes + 4, head.bytes);
    if (s.leaves) {
        head.leaves = s.leaves->count;
        head.leafAverages[0] = s.leaves->averageDepth;
        head.leafAverages[1] = s.leaves->averageEntries;
        putBox(head.boxes[0], s.leaves->box);
    }
    if (facts.bounds)
        putBox(head.boxes[1], *facts.bounds);
    if (facts.motionBounds)
        putBox(head.boxes[2], *facts.motionBounds);
    head.checksum = checksumOf(head);
    return head;
}

BlockFacts BlockHead::facts() const {
    BlockFacts facts;
    facts.hasTree = true;
    TreeStatistics& s = facts.statistics;
    s.isMoving = (flags & moving) != 0;
    s.trees = counts[0];
    s.systems = counts[1];
    s.particles = counts[2];
    s.used = counts[3];
    s.nodes = counts[4];
    s.leafEntries = counts[5];
    s.maxDepth = counts[6];
    s.treeBytes = bytes[0];
    s.packedBytes = bytes[1];
    s.totalBytes = bytes[2];
    s.peakBytes = bytes[3];
    if ((flags & leafCounts) != 0)
        s.leaves = {leaves, leafAverages[0], leafAverages[1], boxOf(boxes[0])};
    if ((flags & bounded) != 0)
        facts.bounds = boxOf(boxes[1]);
    if ((flags & boundedInMotion) != 0)
        facts.motionBounds = boxOf(boxes[2]);
    return facts;
}

std::optional<std::string> BlockHead::fault(std::uint64_t expected, std::uint64_t fileBytes) const {
    if (!std::equal(blockMagic, blockMagic + 8, magic))
        return "is no file of a block";
    if (byteOrder != ownByteOrder)
        return byteOrder == __builtin_bswap32(ownByteOrder)
                   ? "was written by a machine of another byte order"
                   : "is damaged";
    if (format != ownFormat)
        return "is of another version of this program";
    if (checksum != checksumOf(*this))
        return "is damaged";
    if (fingerprint != expected)
        return "is of other particles, tree options or another version of this program";
    std::uint64_t const whole = sizeof(BlockHead) + treeBytes + sizeof(std::uint64_t);
    if (fileBytes != whole)
        return fileBytes < whole ? "is cut short" : "is damaged";
    return std::nullopt;
}

std::uint64_t fingerprintOf(System const& block, TreeOptions const& options) {
    Checksum sum;
    sum.add(std::as_bytes(std::span(KELPA_VERSION, sizeof KELPA_VERSION)));
    auto const addIf = [&sum](auto const& value) {
        sum.addNumber(value ? 1 : 0);
        if (value)
            sum.addNumber(*value);
    };
    addIf(options.maxDepth);
    addIf(options.leafSizeFactor);
    sum.addNumber(options.minNodeSize);
    sum.addNumber(options.isPacked ? 1 : 0);
    sum.addNumber(options.hasMovingBounds ? 1 : 0);
    auto const addSnapshot = [&sum](Kelpa::ParticleData const& particles) {
        sum.addNumber(particles.sampleTime);
        sum.addNumber(particles.particleType);
        sum.addNumber(particles.numParticles);
        sum.addNumber(particles.numRadii);
        auto const count = [](std::int32_t n) { return static_cast<std::size_t>(std::max(n, 0)); };
        sum.add(std::as_bytes(std::span(particles.positions, count(particles.numParticles))));
        sum.add(std::as_bytes(std::span(particles.radii, count(particles.numRadii))));
    };
    addSnapshot(block.first);
    if (block.second)
        addSnapshot(*block.second);
    return sum.result();
}

} // namespace pipeline
