"""Trees over particle systems: built once, then asked by rays and for pictures."""

from __future__ import annotations

import math
import os
import warnings
from typing import Any, Iterable, NoReturn, Optional, Sequence, Union

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _checks as check
from . import _native
from ._progress import Progress
from .camera import Camera
from .hits import Hits
from .particles import Particles
from .pictures import Picture, make_picture


class Primitive:
    """A tree over particle systems, ready to be asked by rays.

    Parameters
    ----------
    particles : Particles, or a sequence of them
        All still or all moving. Their ranges of reported indices must not overlap.
    max_depth : int, optional
        Limits the tree's depth (60 for still particles, 80 for moving ones).
    min_node_size : float
        Nodes with a smaller diagonal become leaves.
    leaf_size_factor : float, optional
        Lets leaves grow with depth (2 and 1).
    pack : bool
        Keep copies of spheres in the order of the tree: faster rays, more memory, the same hits.
    moving_bounds : bool
        Have `motion` say how the bounds move, and `bounds` apply to time 0 only.
    block : int, optional
        The most particles of one tree (1,048,576). More are parted into blocks, which threads build
        side by side, over a copy of the particles; what rays hit does not depend on the threads.
        Systems of different types or times have one tree whatever they hold.
    memory : int, optional
        Most bytes of memory for the trees of blocks; those beyond it lie in a file without a name
        in TMPDIR or /var/tmp, and are read when rays need them. The hits are the same.
    cache : path, optional
        Folder of files with the trees, which the next primitive over the same particles finds.
    threads : int
        0: as many as there are processors.
    progress : callable, optional
        See the module.

    Raises ValueError for particles that cannot be in one tree, MemoryError, KeyboardInterrupt.
    """

    __slots__ = ("_systems", "_bases", "_tree", "__weakref__")

    def __init__(
        self,
        particles: Union[Particles, Sequence[Particles]],
        *,
        max_depth: Optional[int] = None,
        min_node_size: float = 0.0,
        leaf_size_factor: Optional[float] = None,
        pack: bool = True,
        moving_bounds: bool = False,
        block: Optional[int] = None,
        memory: Optional[int] = None,
        cache: Optional[Union[str, "os.PathLike[str]"]] = None,
        threads: int = 0,
        progress: Optional[Progress] = None,
    ) -> None:
        systems = tuple(particles) if isinstance(particles, Iterable) else (particles,)
        for system in systems:
            check.instance("particles", system, Particles)
        if len({system.is_moving for system in systems}) > 1:
            raise ValueError("particles: expected all still or all moving, found both")
        if len(systems) > 65536:
            raise ValueError(f"particles: at most 65536 systems, found {len(systems)}")
        if max_depth is not None:
            max_depth = check.integer("max_depth", max_depth, 1, 1024)
        if leaf_size_factor is not None:
            leaf_size_factor = check.number("leaf_size_factor", leaf_size_factor, 0.0, 1e30)
        if block is not None:
            block = check.integer("block", block, 1, 2147483647)
        if memory is not None:
            memory = check.integer("memory", memory, 1, 2**60)
        folder = "" if cache is None else os.fspath(cache)
        if cache is not None and not check.text("cache", folder):
            raise ValueError("cache: expected the name of a folder, found ''")
        self._systems = systems
        self._bases = _bases(systems)
        self._tree = _native.Tree(
            [
                (
                    s.positions, s.radii, s.colors, s.positions1, s.radii1, *s.times,
                    0 if s.type == "sphere" else 1, base,
                )
                for s, base in zip(systems, self._bases)
            ],
            max_depth,
            check.number("min_node_size", min_node_size, 0.0, 1e30),
            leaf_size_factor,
            bool(pack),
            bool(moving_bounds),
            block,
            memory,
            folder,
            check.integer("threads", threads, 0),
            progress,
        )
        self._warn_of_left_out()
        for note in self._tree.take_notes():
            warnings.warn(f"kelpa: {note}", stacklevel=check.caller_level())

    def _warn_of_left_out(self) -> None:
        found = self.statistics
        if found["left_out"] == 0:
            return
        finite = sum(int(_is_finite(system).sum()) for system in self._systems)
        unfit = found["particles"] - finite
        warnings.warn(
            f"kelpa: {found['left_out']:,} of {found['particles']:,} particles left out "
            f"({unfit:,} not finite, {found['left_out'] - unfit:,} with radius 0 or less)",
            stacklevel=check.caller_level(),
        )

    def __reduce__(self) -> NoReturn:
        raise TypeError("a kelpa.Primitive cannot be copied or pickled; its `systems` can")

    @property
    def systems(self) -> tuple[Particles, ...]:
        """The particle systems, in the order in which they were given."""
        return self._systems

    @property
    def bases(self) -> tuple[int, ...]:
        """For each system the reported index of its first particle."""
        return self._bases

    @property
    def is_moving(self) -> bool:
        """Whether the particles move, so that rays have times."""
        return bool(self._systems) and self._systems[0].is_moving

    @property
    def bounds(self) -> Optional[NDArray[np.float32]]:
        """Lowest and highest corner (2, 3) of all usable particles, a little widened; of moving
        ones over the whole way. None without any."""
        found = self._tree.bounds()
        return None if found is None else found[0]

    @property
    def motion(self) -> Optional[NDArray[np.float32]]:
        """Velocities (2, 3) of the corners of `bounds`, in lengths per shutter: at time t all lies
        within bounds + t * motion. Zero unless built with `moving_bounds`."""
        found = self._tree.bounds()
        return None if found is None else found[1]

    @property
    def memory(self) -> int:
        """Bytes that the tree holds, besides the particles' arrays."""
        found = self._tree.statistics()
        return int(found["tree_bytes"] + found["packed_bytes"])

    @property
    def statistics(self) -> dict[str, Any]:
        """What the build made: `particles` given, `used` and `left_out`, `nodes`, `leaf_entries`,
        `max_depth`, `tree_bytes`, `packed_bytes`, `peak_bytes` (while it was built),
        `trees` (one for each block), `build_seconds`; with `memory` or `cache` also `trees_held`,
        `trees_built`, `trees_found`, `trees_written`, `bytes_written`, `trees_read`,
        `bytes_read`."""
        found = self._tree.statistics()
        found["left_out"] = found["particles"] - found["used"]
        return found

    def intersect(
        self,
        origins: ArrayLike,
        directions: ArrayLike,
        *,
        tmin: ArrayLike = 0.0,
        tmax: ArrayLike = math.inf,
        time: ArrayLike = 0.5,
        skip: ArrayLike = -1,
        lists: bool = False,
        threads: int = 0,
        progress: Optional[Progress] = None,
    ) -> Hits:
        """Finds the closest hit of each ray.

        Parameters
        ----------
        origins, directions : (..., 3) float32
            Directions need not be normalised. One of the two may be (3,), for all rays.
        tmin, tmax : a number, or (...) float64
            The interval of ray parameters to search, in units of the direction's length. Beyond
            1e30 nothing is found.
        time : a number, or (...) float32
            For moving particles: the fraction of the shutter. Outside of all snapshots' times there
            is nothing; exactly at the earliest particles may be missed.
        skip : an integer, or (...) int64
            Index of the particle that a ray starts on: a sphere is then hit only where the ray
            leaves it, a point not at all. -1, or any number that no particle has: none.
        lists : bool
            Ask in lists of 64 rays instead of one by one. The hits are the same; which is faster
            depends on the tree, mostly by a few percent.
        threads, progress
            See the module.

        Returns Hits, whose arrays have the shape (...). Rays that are not finite, or have no
        direction, hit nothing.
        Raises ValueError for arrays of other shapes or types, for masked values, and for NaN in
        `tmin`, `tmax` and `time`.
        """
        starts = check.ray_vectors("origins", origins)
        ways = check.ray_vectors("directions", directions)
        shape = starts.shape[:-1] or ways.shape[:-1] or (1,)
        for name, array in (("origins", starts), ("directions", ways)):
            if array.ndim > 1 and array.shape[:-1] != shape:
                raise check.shape_error(name, f"{(*shape, 3)} like origins, or (3,)", array)
        count = math.prod(shape)
        found = self._tree.intersect(
            count,
            starts,
            ways,
            check.per_ray("tmin", tmin, shape, np.float64),
            check.per_ray("tmax", tmax, shape, np.float64),
            check.per_ray("time", time, shape, np.float32),
            check.per_ray("skip", skip, shape, np.int64),
            bool(lists),
            check.integer("threads", threads, 0),
            progress,
        )
        t, index, normal, kind = found
        return Hits(
            t.reshape(shape), index.reshape(shape), normal.reshape(*shape, 3), kind.reshape(shape)
        )

    def system_of(self, index: ArrayLike) -> NDArray[np.int64]:
        """For each reported index the number of its system in `systems`; -1 for other numbers."""
        indices = check.array("index", index, np.int64, "integers")
        order = np.argsort(self._bases, kind="stable")
        order = order[[len(self._systems[i]) > 0 for i in order]]
        if len(order) == 0:
            return np.full(indices.shape, -1, dtype=np.int64)
        bases = np.array(self._bases, dtype=np.int64)[order]
        counts = np.array([len(self._systems[i]) for i in order], dtype=np.int64)
        place = np.maximum(np.searchsorted(bases, indices, side="right") - 1, 0)
        inside = (indices >= bases[place]) & (indices < bases[place] + counts[place])
        return np.where(inside, order[place], -1)

    def render(
        self,
        camera: Optional[Camera] = None,
        width: int = 640,
        height: int = 480,
        *,
        samples: int = 4,
        shade: str = "headlight",
        color: Union[str, Sequence[float]] = (0.26, 0.42, 0.62),
        background: Union[None, str, Sequence[float]] = None,
        shutter: Sequence[float] = (0.0, 1.0),
        aov: Union[str, Sequence[str]] = (),
        depth: str = "ray",
        aperture: float = 0.0,
        focus: Optional[float] = None,
        cell: bool = False,
        cell_color: Union[None, str, Sequence[float]] = None,
        crop: Optional[Sequence[int]] = None,
        tile: Optional[Sequence[int]] = None,
        seed: int = 0,
        ao_samples: int = 2,
        ao_distance: Optional[float] = None,
        shadows: Optional[bool] = None,
        threads: int = 0,
        progress: Optional[Progress] = None,
    ) -> Picture:
        """Draws the particles: the command's pixels for the same file, camera and look.

        The command's own look is `shade="ao", samples=16, background="sky"`.

        Parameters
        ----------
        camera : Camera, optional
            By default `Camera.framing(self, cell=cell)`.
        samples : int
            Per pixel, spread over its area and over the shutter; 1 is in its middle.
        shade : "ao", "lit", "flat", "headlight" or "normals"
            Light with shadows and ambient occlusion, light, colour alone, lit from the eye, or
            normals in the camera's axes as colours.
        color, background : a colour such as "#3366cc", or three numbers of linear light
            `color` is that of systems without colours. Without `background` the picture is
            transparent; "sky" is the command's, from light to darker grey.
        shutter : (opens, closes)
            For moving particles: the times to blur over, within 0 to 1.
        aov : names out of "depth", "normal", "id", "position", "velocity" and "column:NAME"
            Further channels, in attributes of the picture; the last two in its `layers`.
        depth : "ray" or "planar"
            What the depth is measured along: the ray, or the camera's axis.
        aperture, focus
            Diameter of the camera's lens, and how far in front of it all is sharp; by default what
            it looks at. A single sample is sharp everywhere.
        cell, cell_color
            Whether the edges of the particles' cell are drawn, and their colour; by default dark,
            or pale before a dark background.
        crop : (x0, y0, x1, y1), optional
            Pixels to render: from x0, y0 to before x1, y1.
        tile : (k, n), optional
            Only tile k of the n that share the picture, k from 1; `kelpa.join` puts the files that
            they are saved to together.
        seed : int
            Of the sample patterns.
        ao_samples, ao_distance, shadows
            Occlusion rays per camera ray, how far occlusion reaches (by default half of the
            diagonal), and whether the key light throws shadows (by default with "ao").

        The first picture copies the particles into the order of the renderer.
        Raises ValueError for values out of range.
        """
        width = check.integer("width", width, 1, 65536)
        height = check.integer("height", height, 1, 65536)
        check.choice("shade", shade, ("ao", "lit", "flat", "headlight", "normals"))
        if camera is None:
            camera = Camera.framing(self, aspect=(width, height), cell=cell)
        check.instance("camera", camera, Camera)
        channels = aov.split(",") if isinstance(aov, str) else list(aov)
        columns = [name.removeprefix("column:") for name in channels if name.startswith("column:")]
        channels = [name for name in channels if not name.startswith("column:")]
        for name in channels:
            check.choice(
                "aov", name, ("depth", "normal", "id", "position", "velocity", "column:NAME")
            )
        wish = _native.Wish()
        wish.size = width, height
        wish.samples = check.integer("samples", samples, 1, 65536)
        wish.shade = shade
        wish.color = check.color("color", color)
        wish.transparent = background is None
        if background is not None and not (isinstance(background, str) and background == "sky"):
            wish.background = check.color("background", background)
        wish.shutter = check.span("shutter", shutter)
        wish.aov = channels
        wish.columns = [(name, self._column(name)) for name in columns]
        check.choice("depth", depth, ("ray", "planar"))
        wish.planar_depth = depth == "planar"
        lens = check.number("aperture", aperture, 0.0, 1e30) / 2
        if lens > 0 and camera.parallel_height is not None:
            raise ValueError("aperture: parallel rays have no lens")
        target = np.subtract(camera.target, camera.eye)
        sharp = float(np.linalg.norm(target)) if focus is None else focus
        wish.lens = lens, check.number("focus", sharp, 1e-30, 1e30)
        wish.cells = self._cells() if cell else []
        if cell_color is not None:
            if not cell:
                raise ValueError("cell_color: given without cell=True, whose edges have it")
            wish.cell_color = check.color("cell_color", cell_color)
        part = None if crop is None else check.part("crop", crop, width, height)
        wish.crop = part
        if tile is not None:
            wish.tile = check.tile("tile", tile, height if part is None else part[3] - part[1])
        wish.seed = check.integer("seed", seed, 0, 2**64 - 1)
        wish.ao_samples = check.integer("ao_samples", ao_samples, 0, 65536)
        if ao_distance is not None:
            wish.ao_distance = check.number("ao_distance", ao_distance, 1e-30)
        if shadows is not None:
            check.choice("shadows", shadows, (True, False))
            wish.shadows = bool(shadows)
        arrays = self._tree.render(
            camera._placed, wish, check.integer("threads", threads, 0), progress
        )
        if arrays.get("id") is not None:
            arrays["id"] = self._named(arrays["id"])
        return make_picture(arrays, (width, height), background is None)

    def _cells(self) -> list[tuple[Any, Any, Any]]:
        """The cells of all systems, each once."""
        cells = []
        for system in self._systems:
            if system.cell is None:
                continue
            edges = [list(check.triple("cell", edge)) for edge in system.cell.edges]
            if len(edges) != 3:
                raise ValueError(f"cell: expected three edges, found {len(edges)}")
            cell = (edges, check.triple("cell", system.cell.origin), system.cell.copies)
            if cell not in cells:
                cells.append(cell)
        if not cells:
            raise ValueError("cell: the particles have none; Particles(cell=...) takes one")
        return cells

    def _column(self, name: str) -> NDArray[np.float32]:
        """A column of all systems, (N,) or (N, 3)."""
        parts = []
        for system in self._systems:
            columns = {} if system.ids is None else {"id": system.ids}
            columns.update(system.columns)
            if name not in columns:
                known = ", ".join(columns) or "none"
                raise ValueError(f"aov: no column {name!r}; there are {known}")
            values = check.numbers(name, np.asarray(columns[name])).astype(np.float32)
            if values.shape[1:] not in ((), (3,)):
                raise check.shape_error(f"aov: column {name!r}", "(N,) or (N, 3)", values)
            parts.append(values)
        if len({part.shape[1:] for part in parts}) > 1:
            raise ValueError(f"aov: column {name!r} is a vector in some systems only")
        return np.concatenate(parts) if parts else np.zeros(0, dtype=np.float32)

    def _named(self, places: NDArray[np.int64]) -> NDArray[np.int64]:
        """Ids, where particles have them, for their places among all."""
        if all(system.ids is None for system in self._systems):
            return places
        ends = np.cumsum([len(system) for system in self._systems])
        every = np.arange(ends[-1])
        for system, end in zip(self._systems, ends):
            if system.ids is not None:
                every[end - len(system):end] = system.ids
        return np.where(places == Picture.NOTHING, places, every[places.clip(0)])

    def __repr__(self) -> str:
        kind = "moving" if self.is_moving else "still"
        found = self.statistics
        left_out = f", {found['left_out']:,} left out" if found["left_out"] > 0 else ""
        used = f"{found['used']:,} {kind} particles{left_out}"
        return f"<kelpa.Primitive: {used}, {self.memory:,} bytes>"


def _is_finite(system: Particles) -> NDArray[np.bool_]:
    """Which particles are finite, and what they move by."""
    result: NDArray[np.bool_] = np.isfinite(system.positions).all(axis=1)
    result &= np.isfinite(system.radii)
    if system.positions1 is not None and system.radii1 is not None:
        result &= np.isfinite(system.positions1).all(axis=1) & np.isfinite(system.radii1)
    return result


def _bases(systems: Sequence[Particles]) -> tuple[int, ...]:
    """Reported index of each system's first particle; the ranges must be disjoint."""
    bases = []
    end = 0
    for system in systems:
        base = end if system.base_index is None else system.base_index
        end = base + len(system)
        if end - 1 > check.LARGEST:
            raise ValueError(f"particles: at most {check.LARGEST} indices, found {end}")
        bases.append(base)
    ranges = sorted((b, b + len(s)) for b, s in zip(bases, systems) if len(s) > 0)
    for (_, end_before), (begin, _) in zip(ranges, ranges[1:]):
        if begin < end_before:
            raise ValueError(
                f"base_index: systems overlap, one ends before {end_before}, one begins at {begin}"
            )
    return tuple(bases)


def build(
    positions: ArrayLike,
    radii: ArrayLike,
    *,
    colors: Optional[ArrayLike] = None,
    positions1: Optional[ArrayLike] = None,
    radii1: Optional[ArrayLike] = None,
    times: Sequence[float] = (0.0, 1.0),
    base_index: Optional[int] = None,
    type: str = "sphere",
    **options: Any,
) -> Primitive:
    """A primitive over one system: `Primitive(Particles(positions, radii, ...), **options)`."""
    return Primitive(
        Particles(
            positions, radii, colors=colors, positions1=positions1, radii1=radii1, times=times,
            base_index=base_index, type=type,
        ),
        **options,
    )
