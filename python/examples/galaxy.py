#!/usr/bin/env python3
"""Draws a turning spiral galaxy of spheres, blurred by its motion, and how far it hides what lies
behind it.

    PYTHONPATH=build/test/python python3 python/examples/galaxy.py [--count 200000] [--out .]

Writes galaxy.png and obscuration.png; the plot is drawn with matplotlib where it is installed, and
as plain bars otherwise.
"""

import argparse
import struct
import zlib
from pathlib import Path

import numpy as np

import kelpa


def make_galaxy(count, seed=1):
    """Stars in two logarithmic spiral arms, a bulge and a disc; with a tenth of a turn's motion."""
    rng = np.random.default_rng(seed)
    in_bulge = rng.random(count) < 0.15
    radius = np.where(in_bulge, rng.gamma(2.0, 0.06, count), rng.gamma(2.5, 0.17, count))
    arm = rng.integers(0, 2, count) * np.pi
    angle = arm + 2.2 * np.log(radius + 0.05) + rng.normal(0, 0.28 + 0.5 * in_bulge, count)
    angle = np.where(in_bulge, rng.uniform(0, 2 * np.pi, count), angle)
    height = rng.normal(0, np.where(in_bulge, 0.06, 0.015))

    def at(angle):
        columns = radius * np.cos(angle), radius * np.sin(angle), height
        return np.stack(columns, axis=1).astype(np.float32)

    # A flat rotation curve: beyond the bulge all stars are equally fast.
    turned = angle + 0.012 / (radius + 0.05)
    radii = rng.uniform(0.0008, 0.0024, count).astype(np.float32)
    old, young = np.array([1.0, 0.72, 0.42]), np.array([0.45, 0.65, 1.0])
    youth = np.clip(radius / 0.6 + rng.normal(0, 0.15, count), 0, 1)[:, None]
    colors = (old * (1 - youth) + young * youth).astype(np.float32)
    return kelpa.Particles(at(angle), radii, positions1=at(turned), colors=colors)


def obscuration(galaxy, rings=40, rays_per_ring=4000):
    """The part of the lines of sight from above that end on a star, ring by ring."""
    rng = np.random.default_rng(2)
    edges = np.linspace(0, 1.2, rings + 1)
    radius = rng.uniform(edges[:-1, None], edges[1:, None], (rings, rays_per_ring))
    angle = rng.uniform(0, 2 * np.pi, radius.shape)
    above = np.full_like(radius, 5.0)
    origins = np.stack([radius * np.cos(angle), radius * np.sin(angle), above], axis=-1)
    hits = galaxy.intersect(origins, [0, 0, -1])
    return (edges[:-1] + edges[1:]) / 2, hits.mask.mean(axis=1)


def write_png(path, pixels):
    """Writes (H, W, 3 or 4) bytes."""
    height, width, channels = pixels.shape
    rows = np.concatenate([np.zeros((height, 1), np.uint8), pixels.reshape(height, -1)], axis=1)

    def chunk(name, data):
        body = name + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body))

    header = struct.pack(">IIBBBBB", width, height, 8, 2 if channels == 3 else 6, 0, 0, 0)
    path.write_bytes(
        b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header)
        + chunk(b"IDAT", zlib.compress(rows.tobytes(), 6)) + chunk(b"IEND", b"")
    )


def plot(path, radius, covered):
    try:
        import matplotlib
    except ImportError:
        bars = np.full((240, 12 * len(radius), 3), 255, np.uint8)
        for i, part in enumerate(covered):
            top = 240 - round(230 * part / max(covered.max(), 1e-9))
            bars[top:, 12 * i + 1:12 * i + 11] = (43, 92, 138)
        write_png(path, bars)
        return
    matplotlib.use("Agg")
    from matplotlib import pyplot

    figure, axes = pyplot.subplots(figsize=(6, 3.5), layout="constrained")
    axes.fill_between(radius, covered, alpha=0.3)
    axes.plot(radius, covered)
    axes.set(xlabel="distance from the centre", ylabel="lines of sight that end on a star", ylim=0)
    figure.savefig(path, dpi=150)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--count", type=int, default=200_000, help="stars")
    parser.add_argument("--out", type=Path, default=Path("."), help="folder for the pictures")
    options = parser.parse_args()
    options.out.mkdir(parents=True, exist_ok=True)

    galaxy = kelpa.Primitive(make_galaxy(options.count))
    print(galaxy)
    camera = kelpa.Camera(eye=(0, -1.7, 1.5), target=(0, -0.05, 0), fov=38)
    picture = galaxy.render(
        camera, 960, 600, samples=16, shade="flat", background=(0.002, 0.002, 0.005)
    )
    write_png(options.out / "galaxy.png", kelpa.to_srgb(picture[..., :3]))
    radius, covered = obscuration(galaxy)
    plot(options.out / "obscuration.png", radius, covered)
    half = radius[np.searchsorted(-covered, -covered.max() / 2)]
    print(f"{100 * covered.max():.0f} % covered at the centre, half of that at {half:.2f}")


if __name__ == "__main__":
    main()
