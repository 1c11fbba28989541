// Puts two snapshots into the order and the times that moving trees want.
#pragma once

#include "kelpa/foundation/hosttypes.h"

namespace Kelpa {

/// Two snapshots of the same particles as moving trees want them: the earlier first, at times that
/// are parts of the shutter's. The arrays belong to whom they belonged.
///
/// Primitives keep pointers to both: hand them over from where the pair stays.
struct SnapshotPair {
    ParticleData first;  ///< at or before `second`
    ParticleData second; ///< with the same particles in the same order
};

/// Puts two snapshots into the shutter: in the order of their times, which become 0 where the
/// shutter opens and 1 where it closes. Rays then have times from 0 to 1.
///
/// A tree over snapshots whose times run backwards, or lie apart from [0, 1], grows to millions of
/// entries and answers slowly; this is the way out. `one` and `other` may have any times, in the
/// same unit as `opens` and `closes`: frames, seconds. Snapshots of one time become particles that
/// stand still, where `one` has them.
/// Throws `std::invalid_argument` when a number is not finite, the shutter closes no later than it
/// opens, or it is closed all the time from one snapshot to the other.
SnapshotPair snapshotsInShutter(ParticleData const& one, ParticleData const& other, double opens,
                                double closes);

/// The same for a shutter that is open from the earlier snapshot to the later.
SnapshotPair snapshotsInShutter(ParticleData const& one, ParticleData const& other);

} // namespace Kelpa
