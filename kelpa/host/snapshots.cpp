// Turns times of snapshots into parts of the shutter's.
#include "kelpa/host/snapshots.h"

#include <cmath>
#include <cstdio>
#include <stdexcept>

namespace Kelpa {

namespace {

/// Says what is wrong with two snapshots or their shutter.
[[noreturn]] void refuse(char const* why, double from, double to) {
    char text[160];
    std::snprintf(text, sizeof text, "%s: %g to %g", why, from, to);
    throw std::invalid_argument(text);
}

SnapshotPair inOrder(ParticleData const& one, ParticleData const& other) {
    if (!std::isfinite(one.sampleTime) || !std::isfinite(other.sampleTime))
        refuse("the times of snapshots are not finite", one.sampleTime, other.sampleTime);
    return other.sampleTime < one.sampleTime ? SnapshotPair{other, one} : SnapshotPair{one, other};
}

SnapshotPair standingStill(ParticleData const& snapshot) {
    SnapshotPair pair{snapshot, snapshot};
    pair.first.sampleTime = 0.0;
    pair.second.sampleTime = 1.0;
    return pair;
}

} // namespace

SnapshotPair snapshotsInShutter(ParticleData const& one, ParticleData const& other, double opens,
                                double closes) {
    SnapshotPair pair = inOrder(one, other);
    double const length = closes - opens;
    if (!std::isfinite(length) || !(length > 0.0))
        refuse("the shutter is open at no time", opens, closes);
    double const from = pair.first.sampleTime;
    double const to = pair.second.sampleTime;
    if (to < opens || from > closes || (from < to && (to == opens || from == closes)))
        refuse("the shutter is closed from one snapshot to the other", from, to);
    if (from == to)
        return standingStill(pair.first);
    pair.first.sampleTime = (from - opens) / length;
    pair.second.sampleTime = (to - opens) / length;
    return pair;
}

SnapshotPair snapshotsInShutter(ParticleData const& one, ParticleData const& other) {
    SnapshotPair const pair = inOrder(one, other);
    if (pair.first.sampleTime == pair.second.sampleTime)
        return standingStill(pair.first);
    return snapshotsInShutter(pair.first, pair.second, pair.first.sampleTime,
                              pair.second.sampleTime);
}

} // namespace Kelpa
