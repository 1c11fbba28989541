"""Ray tracing of particle systems: millions of exact spheres or points, still or moving.

    import numpy as np, kelpa

    positions = np.random.rand(1_000_000, 3).astype(np.float32)
    cloud = kelpa.build(positions, 0.002)
    hits = cloud.intersect(origins=[0.5, 0.5, -1.0], directions=[[0, 0, 1], [0, 0.1, 1]])
    hits.t, hits.index, hits.normal, hits.type, hits.mask
    picture = cloud.render(width=640, height=480)        # (480, 640, 4) float32

Particles are described by `Particles`, put into a tree by `Primitive` (or both at once by `build`),
and asked by `Primitive.intersect` and `Primitive.render`.

Precision. Geometry is in single precision: arrays of float32 in C order are used in place, others
are converted to it. Far from zero, subtract an origin from positions and rays first.

Threads. Builds, rays and pictures use all processors that this process may use, or `threads` of
them, and let other Python threads run meanwhile. A primitive may be asked from several threads at
once. Results do not depend on the number of threads, except which of several particles is reported
that are hit at the same distance, which may depend on the build.

Progress and interruption. `progress`, where it is accepted, is called as progress(fraction,
message) on the thread that called, some twenty times a second; fraction is None where it is not
known. An exception that it raises ends the work and comes out of the call. So does Ctrl-C, as
KeyboardInterrupt.

Errors. ValueError (or TypeError) says which argument cannot be used and what was expected;
MemoryError that memory ran out.
"""

from __future__ import annotations

import math
from dataclasses import dataclass
from typing import Any, Callable, Optional, Sequence, Union

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _native

__version__ = "0.1.0"
__all__ = ["Camera", "Hits", "Particles", "Primitive", "Progress", "build", "to_srgb"]

Progress = Callable[[Optional[float], str], object]

_LARGEST = 2**31 - 1


def _array(name: str, value: ArrayLike, dtype: type, expected: str) -> NDArray[Any]:
    """`value` as a C-contiguous array of `dtype`; the same memory if it is one already."""
    try:
        array = np.asarray(value)
    except ValueError as error:  # rows of different lengths
        raise ValueError(f"{name}: expected {expected}, found no regular array ({error})") from None
    if not np.can_cast(array.dtype, dtype, casting="same_kind"):
        raise ValueError(
            f"{name}: expected {expected} of a type that converts to {np.dtype(dtype).name}, "
            f"found {array.dtype}"
        )
    return np.require(array, dtype=dtype, requirements=["C", "A"])


def _shape_error(name: str, expected: str, array: NDArray[Any]) -> ValueError:
    return ValueError(f"{name}: expected shape {expected}, found {array.shape}")


def _vectors(name: str, value: ArrayLike, count: Optional[int] = None) -> NDArray[np.float32]:
    expected = f"({'N' if count is None else count}, 3)"
    array = _array(name, value, np.float32, f"an array of shape {expected}")
    if array.ndim != 2 or array.shape[1] != 3 or (count is not None and len(array) != count):
        raise _shape_error(name, expected, array)
    return array


def _scalars(name: str, value: ArrayLike, count: int) -> NDArray[np.float32]:
    expected = f"({count},) or a single number"
    array = _array(name, value, np.float32, f"an array of shape {expected}")
    if np.ndim(value) == 0:
        return np.full(count, array.reshape(()), dtype=np.float32)
    if array.shape != (count,):
        raise _shape_error(name, expected, array)
    return array


def _colors(value: ArrayLike, count: int) -> NDArray[np.float32]:
    if getattr(value, "dtype", None) == np.uint8:
        encoded = np.arange(256) / 255.0
        linear = np.where(encoded <= 0.04045, encoded / 12.92, ((encoded + 0.055) / 1.055) ** 2.4)
        value = linear.astype(np.float32)[np.asarray(value)]
    return _vectors("colors", value, count)


def _number(name: str, value: float, least: float, most: float = math.inf) -> float:
    try:
        number = float(value)
    except (TypeError, ValueError):
        number = math.nan
    if not (least <= number <= most and math.isfinite(number)):
        upper = f" to {most:g}" if math.isfinite(most) else " or more"
        raise ValueError(f"{name}: expected a number, {least:g}{upper}, found {value!r}")
    return number


def _integer(name: str, value: int, least: int, most: int = _LARGEST) -> int:
    if not isinstance(value, (int, np.integer)) or not least <= value <= most:
        raise ValueError(f"{name}: expected an integer, {least} to {most}, found {value!r}")
    return int(value)


def _triple(name: str, value: ArrayLike) -> tuple[float, float, float]:
    array = _array(name, value, np.float64, "three numbers")
    if array.shape != (3,) or not np.isfinite(array).all():
        raise ValueError(f"{name}: expected three finite numbers, found {value!r}")
    x, y, z = array.tolist()
    return x, y, z


def _span(name: str, value: Sequence[float]) -> tuple[float, float]:
    try:
        first, second = (float(v) for v in value)
    except (TypeError, ValueError):
        first = second = math.nan
    if not 0.0 <= first < second <= 1.0:
        raise ValueError(
            f"{name}: expected two numbers, 0 <= first < second <= 1, found {value!r}"
        )
    return first, second


class Particles:
    """One particle system: spheres or points, still or between two snapshots.

    Parameters
    ----------
    positions : (N, 3) float32
        Centres, in any unit of length.
    radii : (N,) float32, or a number for all
        In the same unit. Particles with a radius below 1e-15, or with anything that is not finite,
        are left out of trees.
    colors : (N, 3) float32 or uint8, optional
        For pictures: linear light from 0 to 1, or sRGB from 0 to 255.
    positions1, radii1 : as `positions` and `radii`, optional
        The second snapshot, same particles in the same order. With it the particles move in
        straight lines from one to the other; without `radii1` the radii stay.
    times : (first, second)
        When the snapshots were taken, as fractions of the shutter: 0 <= first < second <= 1.
    base_index : int, optional
        Reported index of the first particle; by default they follow those of the system before it
        in the tree, and begin at 0.
    type : "sphere" or "point"
        A sphere is solid and hit on its surface. A point is hit where a ray passes closest to it,
        if that is within the radius.

    The arrays are used in place when they are C-contiguous and float32 (memory-mapped files, too),
    and are kept alive; do not change their contents while a primitive uses them. Others are copied.

    Raises ValueError for other shapes, types that do not convert (complex, text), and values out of
    range. All is read-only afterwards.
    """

    __slots__ = (
        "positions", "radii", "colors", "positions1", "radii1", "times", "base_index", "type",
    )

    positions: NDArray[np.float32]
    radii: NDArray[np.float32]
    colors: Optional[NDArray[np.float32]]
    positions1: Optional[NDArray[np.float32]]
    radii1: Optional[NDArray[np.float32]]
    times: tuple[float, float]
    base_index: Optional[int]
    type: str

    def __init__(
        self,
        positions: ArrayLike,
        radii: ArrayLike,
        *,
        colors: Optional[ArrayLike] = None,
        positions1: Optional[ArrayLike] = None,
        radii1: Optional[ArrayLike] = None,
        times: Sequence[float] = (0.0, 1.0),
        base_index: Optional[int] = None,
        type: str = "sphere",
    ) -> None:
        centers = _vectors("positions", positions)
        count = len(centers)
        if count > _LARGEST:
            raise ValueError(f"positions: at most {_LARGEST} particles, found {count}")
        if radii1 is not None and positions1 is None:
            raise ValueError("radii1: given without positions1, the second snapshot's centres")
        if type not in ("sphere", "point"):
            raise ValueError(f"type: expected 'sphere' or 'point', found {type!r}")
        sizes = _scalars("radii", radii, count)
        self._set("positions", centers)
        self._set("radii", sizes)
        self._set("colors", None if colors is None else _colors(colors, count))
        centers1 = None if positions1 is None else _vectors("positions1", positions1, count)
        sizes1 = sizes if radii1 is None else _scalars("radii1", radii1, count)
        self._set("positions1", centers1)
        self._set("radii1", None if positions1 is None else sizes1)
        self._set("times", _span("times", times))
        if base_index is not None:
            base_index = _integer("base_index", base_index, 0, _LARGEST - max(count - 1, 0))
        self._set("base_index", base_index)
        self._set("type", type)

    def _set(self, name: str, value: object) -> None:
        object.__setattr__(self, name, value)

    def __setattr__(self, name: str, value: object) -> None:
        raise AttributeError(f"{name}: particles cannot be changed; make new ones")

    def __len__(self) -> int:
        """The number of particles."""
        return len(self.positions)

    @property
    def is_moving(self) -> bool:
        """Whether there are two snapshots."""
        return self.positions1 is not None

    def __repr__(self) -> str:
        kind = "moving" if self.is_moving else "still"
        return f"<kelpa.Particles: {len(self):,} {kind} {self.type}s>"


@dataclass(frozen=True, eq=False)
class Hits:
    """The closest hits of rays, in arrays shaped like the rays (without their last axis).

    t : (...) float32
        Ray parameter: the hit lies at origin + t * direction. Infinity without a hit.
    index : (...) int64
        Index of the particle; -1 without a hit.
    normal : (..., 3) float32
        Not normalised: for a sphere from its centre to the hit, as long as its radius; for a point
        against the ray; zero without a hit.
    type : (...) uint8
        0: no hit, 1: on a sphere, 2: on a point.
    """

    t: NDArray[np.float32]
    index: NDArray[np.int64]
    normal: NDArray[np.float32]
    type: NDArray[np.uint8]

    @property
    def mask(self) -> NDArray[np.bool_]:
        """Where there is a hit."""
        return np.not_equal(self.type, 0)

    def unit_normals(self) -> NDArray[np.float32]:
        """The normals with length 1; zero without a hit."""
        length = np.linalg.norm(self.normal, axis=-1, keepdims=True)
        units: NDArray[np.float32] = self.normal / np.where(length > 0, length, np.float32(1))
        return units


@dataclass(frozen=True)
class Camera:
    """A pinhole camera, or with `parallel_height` one with parallel rays.

    eye, target : where it is and what it looks at; three numbers each.
    up : the direction that is up in the picture.
    fov : vertical angle of view, in degrees, above 0 and below 180.
    parallel_height : height seen, in units of the scene; parallel rays start in the eye's plane.

    Raises ValueError when the view is not defined: eye and target coincide, or `up` is along it.
    """

    eye: Sequence[float]
    target: Sequence[float] = (0.0, 0.0, 0.0)
    up: Sequence[float] = (0.0, 0.0, 1.0)
    fov: float = 35.0
    parallel_height: Optional[float] = None

    def __post_init__(self) -> None:
        for name in ("eye", "target", "up"):
            object.__setattr__(self, name, _triple(name, getattr(self, name)))
        if not 0.0 < self.fov < 180.0:
            raise ValueError(f"fov: expected degrees above 0 and below 180, found {self.fov}")
        if self.parallel_height is not None and not 0.0 < self.parallel_height < math.inf:
            raise ValueError(
                f"parallel_height: expected a positive number, found {self.parallel_height}"
            )
        self._axes()

    @classmethod
    def framing(
        cls,
        primitive: "Primitive",
        direction: Sequence[float] = (0.6, 0.8, -0.35),
        up: Sequence[float] = (0.0, 0.0, 1.0),
        fov: float = 35.0,
        aspect: float = 1.0,
    ) -> "Camera":
        """A camera that looks along `direction` and sees all of `primitive`.

        It fits the sphere around the primitive's bounds, at their ends of motion too, into a
        picture `aspect` times as wide as high. An empty primitive is seen from somewhere.
        """
        boxes = primitive._extent()
        low, high = boxes if boxes is not None else (np.full(3, -1.0), np.full(3, 1.0))
        centre = (low + high) / 2
        radius = max(float(np.linalg.norm(high - low)) / 2, 1e-12)
        half = math.radians(_number("fov", fov, 1e-3, 179.0)) / 2
        narrow = math.atan(math.tan(half) * min(_number("aspect", aspect, 1e-3, 1e3), 1.0))
        forward = _unit(np.array(_triple("direction", direction)), "direction")
        eye = centre - forward * (radius / math.sin(narrow))
        return cls(eye.tolist(), centre.tolist(), up, fov)

    def rays(self, width: int, height: int) -> tuple[NDArray[np.float32], NDArray[np.float32]]:
        """Origins and directions (of length 1) of the rays through the pixels' middles.

        Both are (height, width, 3), row by row from the top left, as in pictures.
        """
        width = _integer("width", width, 1, 65536)
        height = _integer("height", height, 1, 65536)
        eye, right, up, forward = self._axes()
        extent = self._extent()
        across = (2.0 * (np.arange(width) + 0.5) / width - 1.0) * (extent * (width / height))
        upwards = (1.0 - 2.0 * (np.arange(height) + 0.5) / height) * extent
        start = forward if self.parallel_height is None else eye
        shifted = start + across[None, :, None] * right + upwards[:, None, None] * up
        if self.parallel_height is not None:
            directions = np.broadcast_to(forward.astype(np.float32), shifted.shape)
            return shifted.astype(np.float32), np.ascontiguousarray(directions)
        x, y, z = shifted[..., 0], shifted[..., 1], shifted[..., 2]
        shifted /= np.sqrt(x * x + y * y + z * z)[..., None]
        origins = np.broadcast_to(eye.astype(np.float32), shifted.shape)
        return np.ascontiguousarray(origins), shifted.astype(np.float32)

    def _extent(self) -> float:
        if self.parallel_height is not None:
            return self.parallel_height / 2
        return math.tan(math.radians(self.fov) / 2)

    def _axes(self) -> tuple[NDArray[np.float64], ...]:
        """Eye, right, up and forward."""
        eye = np.array(self.eye)
        forward = _unit(np.array(self.target) - eye, "target (as seen from eye)")
        right = np.cross(forward, _unit(np.array(self.up), "up"))
        if np.linalg.norm(right) < 1e-9:
            raise ValueError(
                f"up: expected a direction that is not the line of sight, found {self.up}"
            )
        right = _unit(right, "up")
        return eye, right, np.cross(right, forward), forward


def _unit(vector: NDArray[np.float64], name: str) -> NDArray[np.float64]:
    length = float(np.linalg.norm(vector))
    if not 0.0 < length < math.inf:
        raise ValueError(f"{name}: expected a direction, found {vector.tolist()}")
    return vector / length


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
        threads: int = 0,
        progress: Optional[Progress] = None,
    ) -> None:
        systems = (particles,) if isinstance(particles, Particles) else tuple(particles)
        for system in systems:
            if not isinstance(system, Particles):
                raise TypeError(
                    f"particles: expected kelpa.Particles, found {type(system).__name__}"
                )
        if len({system.is_moving for system in systems}) > 1:
            raise ValueError("particles: expected all still or all moving, found both")
        if len(systems) > 65536:
            raise ValueError(f"particles: at most 65536 systems, found {len(systems)}")
        if max_depth is not None:
            max_depth = _integer("max_depth", max_depth, 1, 1024)
        if leaf_size_factor is not None:
            leaf_size_factor = _number("leaf_size_factor", leaf_size_factor, 0.0, 1e30)
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
            _number("min_node_size", min_node_size, 0.0, 1e30),
            leaf_size_factor,
            bool(pack),
            bool(moving_bounds),
            _integer("threads", threads, 0),
            progress,
        )

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
        `max_depth`, `tree_bytes`, `packed_bytes`, `build_seconds`."""
        found = self._tree.statistics()
        found["left_out"] = found["particles"] - found["used"]
        return found

    def _extent(self) -> Optional[tuple[NDArray[np.float64], NDArray[np.float64]]]:
        found = self._tree.bounds()
        if found is None:
            return None
        boxes = [found[0].astype(np.float64), (found[0] + found[1]).astype(np.float64)]
        return np.minimum(boxes[0][0], boxes[1][0]), np.maximum(boxes[0][1], boxes[1][1])

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
        Raises ValueError for arrays of other shapes or types.
        """
        starts = _ray_vectors("origins", origins)
        ways = _ray_vectors("directions", directions)
        shape = starts.shape[:-1] or ways.shape[:-1] or (1,)
        for name, array in (("origins", starts), ("directions", ways)):
            if array.ndim > 1 and array.shape[:-1] != shape:
                raise _shape_error(name, f"{(*shape, 3)} like origins, or (3,)", array)
        count = math.prod(shape)
        found = self._tree.intersect(
            count,
            starts,
            ways,
            _per_ray("tmin", tmin, shape, np.float64),
            _per_ray("tmax", tmax, shape, np.float64),
            _per_ray("time", time, shape, np.float32),
            _per_ray("skip", skip, shape, np.int64),
            bool(lists),
            _integer("threads", threads, 0),
            progress,
        )
        t, index, normal, kind = found
        return Hits(
            t.reshape(shape), index.reshape(shape), normal.reshape(*shape, 3), kind.reshape(shape)
        )

    def system_of(self, index: ArrayLike) -> NDArray[np.int64]:
        """For each reported index the number of its system in `systems`; -1 for other numbers."""
        indices = _array("index", index, np.int64, "integers")
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
        color: Sequence[float] = (0.26, 0.42, 0.62),
        background: Optional[Sequence[float]] = None,
        shutter: Sequence[float] = (0.0, 1.0),
        threads: int = 0,
        progress: Optional[Progress] = None,
    ) -> NDArray[np.float32]:
        """Draws the particles; (height, width, 4) float32, row by row from the top left.

        The channels are linear red, green, blue, already multiplied by the fourth: the part of the
        pixel that particles cover, or 1 with a `background`. `to_srgb` makes it ready for a file.

        Parameters
        ----------
        camera : Camera, optional
            By default `Camera.framing(self)`.
        samples : int
            Per pixel, spread over its area and over the shutter; 1 is in its middle.
        shade : "headlight", "flat" or "normals"
            Lit from the eye, in plain colours, or normals in the camera's axes as colours.
        color, background : three numbers
            Linear; `color` is that of systems without colours.
        shutter : (opens, closes)
            For moving particles: the times to blur over, within 0 to 1.

        Raises ValueError for values out of range.
        """
        width = _integer("width", width, 1, 65536)
        height = _integer("height", height, 1, 65536)
        if shade not in ("headlight", "flat", "normals"):
            raise ValueError(f"shade: expected 'headlight', 'flat' or 'normals', found {shade!r}")
        if camera is None:
            camera = Camera.framing(self, aspect=width / height)
        if not isinstance(camera, Camera):
            raise TypeError(f"camera: expected a kelpa.Camera, found {type(camera).__name__}")
        return self._tree.render(
            [axis.tolist() for axis in camera._axes()],
            camera._extent(),
            camera.parallel_height is not None,
            width,
            height,
            shade,
            _integer("samples", samples, 1, 65536),
            _span("shutter", shutter),
            _triple("color", color),
            None if background is None else _triple("background", background),
            _integer("threads", threads, 0),
            progress,
        )

    def __repr__(self) -> str:
        kind = "moving" if self.is_moving else "still"
        found = self.statistics
        left_out = f", {found['left_out']:,} left out" if found["left_out"] > 0 else ""
        used = f"{found['used']:,} {kind} particles{left_out}"
        return f"<kelpa.Primitive: {used}, {self.memory:,} bytes>"


def _bases(systems: Sequence[Particles]) -> tuple[int, ...]:
    """Reported index of each system's first particle; the ranges must be disjoint."""
    bases = []
    end = 0
    for system in systems:
        base = end if system.base_index is None else system.base_index
        end = base + len(system)
        if end - 1 > _LARGEST:
            raise ValueError(f"particles: at most {_LARGEST} indices, found {end}")
        bases.append(base)
    ranges = sorted((b, b + len(s)) for b, s in zip(bases, systems) if len(s) > 0)
    for (_, end_before), (begin, _) in zip(ranges, ranges[1:]):
        if begin < end_before:
            raise ValueError(
                f"base_index: systems overlap, one ends before {end_before}, one begins at {begin}"
            )
    return tuple(bases)


def _ray_vectors(name: str, value: ArrayLike) -> NDArray[np.float32]:
    array = _array(name, value, np.float32, "an array of shape (..., 3)")
    if array.ndim == 0 or array.shape[-1] != 3:
        raise _shape_error(name, "(..., 3)", array)
    return array


def _per_ray(name: str, value: ArrayLike, shape: tuple[int, ...], dtype: type) -> NDArray[Any]:
    expected = f"{shape} or a single number"
    array = _array(name, value, dtype, f"an array of shape {expected}")
    if np.ndim(value) != 0 and array.shape != shape:
        raise _shape_error(name, expected, array)
    return array.reshape(-1)


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


def to_srgb(picture: ArrayLike) -> NDArray[np.uint8]:
    """A picture of linear light (..., 3 or 4) as 8-bit sRGB of the same shape, for files.

    A fourth channel stays linear, and the colours are divided by it, as PNG wants them.
    """
    linear = np.asarray(picture, dtype=np.float32)
    if linear.ndim == 0 or linear.shape[-1] not in (3, 4):
        raise _shape_error("picture", "(..., 3) or (..., 4)", linear)
    colors = linear[..., :3]
    if linear.shape[-1] == 4:
        alpha = linear[..., 3:]
        colors = colors / np.where(alpha > 0, alpha, np.float32(1))
    colors = np.clip(colors, 0, 1)
    encoded = np.where(colors <= 0.0031308, colors * 12.92, 1.055 * colors ** (1 / 2.4) - 0.055)
    if linear.shape[-1] == 4:
        encoded = np.concatenate([encoded, np.clip(alpha, 0, 1)], axis=-1)
    return (encoded * 255 + 0.5).astype(np.uint8)
