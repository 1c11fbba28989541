"""Particle systems: what trees are made of."""

from __future__ import annotations

from dataclasses import dataclass
from types import MappingProxyType
from typing import Any, Mapping, Optional, Sequence

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _checks as check


@dataclass(frozen=True, eq=False)
class Cell:
    """A box of particles that repeats along some of its edges.

    edges : (3, 3) float64, an edge vector in each row.
    origin : (3,) float64, the corner that the edges leave from.
    periodic : along which of the edges it repeats.
    copies : how many of it, with all that is in it, the particles hold along each edge.
    """

    edges: NDArray[np.float64]
    origin: NDArray[np.float64]
    periodic: tuple[bool, bool, bool]
    copies: tuple[int, int, int] = (1, 1, 1)


class Particles:
    """One particle system: spheres or points, still or between two snapshots.

    Parameters
    ----------
    positions : (N, 3) float32
        Centres, in any unit of length.
    radii : (N,) float32, or a number for all
        In the same unit. Particles with a radius below 1e-15, or with anything that is not finite,
        are left out of trees, with a warning that counts them.
    colors : (N, 3) float32 or integers, optional
        For pictures: linear light from 0 to 1, or sRGB from 0 to 255 in integers. Integers of which
        none exceeds 1 are linear light as well, unless they are uint8.
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
    ids : (N,) int64, optional
        The particles' own numbers, by which files and other programs know them.
    columns : mapping of names to arrays, optional
        Further values of the particles, as many as there are particles; kept as they are.
    cell : Cell, optional
        The box that they repeat in.
    up_axis : "z" or "y"
        The axis that points up in pictures if nothing else says so.
    step, time : numbers, optional
        Of the simulation, as the file tells of its frame, in the file's own unit.
    notes : sequence of str
        What is worth knowing about where they come from.

    The arrays are used in place when they are C-contiguous and float32 (memory-mapped files, too),
    and are kept alive; do not change their contents while a primitive uses them. Others are copied.

    Raises ValueError for other shapes, types that do not convert (complex, text), masked values and
    values out of range. All is read-only afterwards. Particles can be copied and pickled.
    """

    __slots__ = (
        "positions", "radii", "colors", "positions1", "radii1", "times", "base_index", "type",
        "ids", "columns", "cell", "up_axis", "step", "time", "notes",
    )

    positions: NDArray[np.float32]
    radii: NDArray[np.float32]
    colors: Optional[NDArray[np.float32]]
    positions1: Optional[NDArray[np.float32]]
    radii1: Optional[NDArray[np.float32]]
    times: tuple[float, float]
    base_index: Optional[int]
    type: str
    ids: Optional[NDArray[np.int64]]
    columns: Mapping[str, NDArray[Any]]
    cell: Optional[Cell]
    up_axis: str
    step: Optional[int]
    time: Optional[float]
    notes: tuple[str, ...]

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
        ids: Optional[ArrayLike] = None,
        columns: Optional[Mapping[str, ArrayLike]] = None,
        cell: Optional[Cell] = None,
        up_axis: str = "z",
        step: Optional[int] = None,
        time: Optional[float] = None,
        notes: Sequence[str] = (),
    ) -> None:
        centers = check.vectors("positions", positions)
        count = len(centers)
        if count > check.LARGEST:
            raise ValueError(f"positions: at most {check.LARGEST} particles, found {count}")
        if radii1 is not None and positions1 is None:
            raise ValueError("radii1: given without positions1, the second snapshot's centres")
        if type not in ("sphere", "point"):
            raise ValueError(f"type: expected 'sphere' or 'point', found {type!r}")
        sizes = check.scalars("radii", radii, count)
        self._set("positions", centers)
        self._set("radii", sizes)
        self._set("colors", None if colors is None else check.colors(colors, count))
        centers1 = None if positions1 is None else check.vectors("positions1", positions1, count)
        sizes1 = sizes if radii1 is None else check.scalars("radii1", radii1, count)
        self._set("positions1", centers1)
        self._set("radii1", None if positions1 is None else sizes1)
        self._set("times", check.span("times", times))
        if base_index is not None:
            most = check.LARGEST - max(count - 1, 0)
            base_index = check.integer("base_index", base_index, 0, most)
        self._set("base_index", base_index)
        self._set("type", type)
        self._set("ids", None if ids is None else check.integers("ids", ids, count))
        kept = {name: check.column(name, values, count) for name, values in (columns or {}).items()}
        self._set("columns", MappingProxyType(kept))
        check.choice("up_axis", up_axis, ("y", "z"))
        self._set("cell", cell)
        self._set("up_axis", up_axis)
        self._set("step", None if step is None else int(step))
        self._set("time", None if time is None else float(time))
        self._set("notes", tuple(notes))

    def _set(self, name: str, value: object) -> None:
        object.__setattr__(self, name, value)

    def __setattr__(self, name: str, value: object) -> None:
        raise AttributeError(f"{name}: particles cannot be changed; make new ones")

    def __getstate__(self) -> dict[str, object]:
        state = {name: getattr(self, name) for name in self.__slots__}
        return {**state, "columns": dict(self.columns)}

    def __setstate__(self, state: dict[str, Any]) -> None:
        self.__init__(**state)  # type: ignore[misc]

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
