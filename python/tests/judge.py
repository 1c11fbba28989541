"""The closest hit by asking every particle, in the library's own single-precision steps, so that
hits can be compared bit by bit."""

import numpy as np

F = np.float32


def dot(a, b):
    return (a[..., 0] * b[..., 0] + a[..., 1] * b[..., 1]) + a[..., 2] * b[..., 2]


def placed(particles, time):
    """Centres (M, N, 3) and radii (M, N) at each ray's time."""
    p0, r0 = particles.positions[None], particles.radii[None]
    if not particles.is_moving:
        return np.broadcast_to(p0, (len(time), *p0.shape[1:])), np.broadcast_to(
            r0, (len(time), r0.shape[1])
        )
    t0, t1 = (F(t) for t in particles.times)
    f = ((time - t0) / (t1 - t0))[:, None]
    centers = p0 + (particles.positions1[None] - p0) * f[..., None]
    return centers, r0 + (particles.radii1[None] - r0) * f


def parameters(particles, base, origins, directions, tmin, tmax, time, skip):
    """Where each ray hits each particle (M, N); infinity where it does not."""
    centers, radii = placed(particles, time)
    d = directions[:, None, :]
    to_center = centers - origins[:, None, :]
    a, b = dot(d, d), dot(to_center, d)
    closest = b / a
    lower, upper = tmin[:, None], tmax[:, None]
    is_origin = skip[:, None] == base + np.arange(len(particles))[None]
    if particles.type == "point":
        way = (d * closest[..., None]).astype(float)
        offset = (origins[:, None, :].astype(float) + way).astype(F) - centers
        hit = (radii * radii >= dot(offset, offset)) & (lower < closest) & (closest < upper)
        return np.where(hit & ~is_origin, closest, F(np.inf))
    offset = d * closest[..., None] - to_center
    h = dot(offset, offset) - radii * radii
    half = np.sqrt(np.where(h > 0, F(0), -h) / a)
    entry, leave = closest - half, closest + half
    enters = ~is_origin & (lower <= entry) & (entry < upper)
    leaves = (lower < leave) & (leave < upper) & ~(~is_origin & (entry >= upper))
    leaves &= ~is_origin | (b >= 0)
    t = np.where(enters, entry, np.where(leaves, leave, F(np.inf)))
    return np.where(h > 0, F(np.inf), t)


def closest_hits(systems, bases, origins, directions, tmin, tmax, time, skip):
    """The closest t (M,) and the reported indices (a set per ray) that are hit there."""
    tables, indices = [], []
    for particles, base in zip(systems, bases):
        t = parameters(particles, base, origins, directions, tmin, tmax, time, skip)
        if particles.is_moving:
            outside = (time < F(particles.times[0])) | (time > F(particles.times[1]))
            t[outside] = np.inf
        tables.append(t)
        indices.append(base + np.arange(len(particles)))
    t = np.concatenate(tables, axis=1)
    numbers = np.concatenate(indices)
    best = t.min(axis=1)
    return best, [set(numbers[row == least]) for row, least in zip(t, best)]
