"""How particles from elsewhere get radii, colours and motion where they are not told."""

from __future__ import annotations

import functools
import inspect
from dataclasses import dataclass
from typing import Any, Callable, Mapping, Optional, Sequence, Union

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _checks as check
from . import _native
from .particles import Cell, Particles

Radius = Union[None, str, ArrayLike]
Color = Union[None, str, Sequence[float]]
Radii = Union[str, Mapping[Union[str, int], float]]


@dataclass
class Source:
    """What another program's object holds, as far as it holds it."""

    what: str  # for messages: the argument that it came in
    positions: ArrayLike
    columns: Mapping[str, NDArray[Any]]
    numbers: Optional[NDArray[np.uint8]] = None  # atomic; 0: unknown
    types: Optional[NDArray[np.int64]] = None  # kinds that are only numbered
    radii: Optional[ArrayLike] = None
    colors: Optional[ArrayLike] = None
    ids: Optional[ArrayLike] = None
    cell: Optional[Cell] = None
    velocities: Callable[[], Optional[ArrayLike]] = lambda: None


@dataclass
class Looks:
    """What callers of the adapters may ask for, in their words."""

    radius: Radius = None
    radius_scale: float = 1.0
    radii: str = "vdw"
    points: bool = False
    color: Color = None
    color_by: Optional[str] = None
    colormap: Optional[str] = None
    range: Optional[Sequence[float]] = None
    motion: str = "none"
    dt: float = 1.0
    shutter: Sequence[float] = (0.0, 0.5)


def with_looks(adapter: Callable[..., Particles]) -> Callable[..., Particles]:
    """Hands the words of `Looks` to an adapter as its `looks`; help() and editors show each."""
    own = inspect.signature(adapter).parameters
    words = [
        word.replace(kind=inspect.Parameter.KEYWORD_ONLY)
        for word in inspect.signature(Looks).parameters.values()
    ]
    signature = inspect.signature(adapter).replace(
        parameters=[*(word for word in own.values() if word.name != "looks"), *words]
    )

    @functools.wraps(adapter)
    def adapted(*arguments: Any, **options: Any) -> Particles:
        signature.bind(*arguments, **options)  # refuses unknown words
        looks = {word.name: options.pop(word.name) for word in words if word.name in options}
        return adapter(*arguments, **options, looks=Looks(**looks))

    adapted.__signature__ = signature  # type: ignore[attr-defined]
    return adapted


def make_particles(source: Source, looks: Looks) -> Particles:
    """The particles of `source` as `looks` want them."""
    positions = check.vectors("positions", source.positions)
    notes: list[str] = []
    radii = _radii(source, looks, positions, notes)
    radii = radii * np.float32(check.number("radius_scale", looks.radius_scale, 0.0, 1e30))
    opened, closed = _ways(source, looks, positions)
    return Particles(
        opened, radii, positions1=closed, colors=_colors(source, looks, len(positions)),
        type="point" if looks.points else "sphere", ids=source.ids, columns=source.columns,
        cell=source.cell, notes=notes,
    )


def atomic_numbers(values: Optional[ArrayLike]) -> Optional[NDArray[np.uint8]]:
    """Atomic numbers of symbols ("Si", "H12", "Fe3+") or of numbers; None where none is known."""
    if values is None:
        return None
    given = np.asarray(values)
    if given.dtype.kind in "iu":
        numbers = np.where((given >= 1) & (given <= 118), given, 0).astype(np.uint8)
    else:
        symbols, places = np.unique(given.astype(str), return_inverse=True)
        found = [_native.atomic_number(symbol) for symbol in symbols.tolist()]
        numbers = np.array(found, dtype=np.uint8)[places]
    return numbers if numbers.any() else None


def _radii(
    source: Source, looks: Looks, positions: NDArray[np.float32], notes: list[str]
) -> NDArray[np.float32]:
    check.choice("radii", looks.radii, ("vdw", "covalent"))
    if isinstance(looks.radius, str):
        return check.scalars("radius", named(source, "radius", looks.radius), len(positions))
    if looks.radius is not None:
        return check.scalars("radius", looks.radius, len(positions))
    if source.radii is not None:
        notes.append(f"radii of the {source.what}")
        return check.scalars("radii", source.radii, len(positions))
    if source.numbers is not None:
        covalent = looks.radii == "covalent"
        notes.append(f"{'covalent' if covalent else 'van der Waals'} radii by element")
        unknown = int(np.count_nonzero(source.numbers == 0))
        if unknown > 0:
            notes.append(f"1.70 for {unknown:,} particles of unknown elements")
        return _native.element_radii(covalent)[source.numbers]
    spacing = _native.radius_from_spacing(positions)
    told = "half the median distance to the 6th neighbour" if spacing > 0 else "no distances"
    notes.append(f"no radius in the {source.what}: {spacing or 1.0:.3g} for all ({told})")
    return np.full(len(positions), spacing or 1.0, dtype=np.float32)


def _colors(source: Source, looks: Looks, count: int) -> Optional[ArrayLike]:
    check.coloring(looks.color, looks.color_by, looks.colormap, looks.range)
    if looks.color is not None:
        return np.tile(np.asarray(check.color("color", looks.color), dtype=np.float32), (count, 1))
    if looks.color_by is not None:
        column = named(source, "color_by", looks.color_by)
        values = check.scalars("color_by", column, count)
        ends = None if looks.range is None else check.interval("range", looks.range)
        name = looks.colormap and check.color_map("colormap", looks.colormap)
        if name == "kinds" or (not name and not ends and _native.shows_kinds(looks.color_by)):
            return _native.map_types(values.astype(np.int64))
        return _native.map_colors(values, ends, name or "viridis")
    if source.colors is not None:
        return source.colors
    if source.numbers is not None:
        return _native.element_colors()[source.numbers]
    return None if source.types is None else _native.map_types(source.types)


def named(source: Source, argument: str, name: str) -> NDArray[Any]:
    """A column by the name that the caller gave for an argument."""
    if name not in source.columns:
        known = ", ".join(map(str, source.columns)) or "none"
        raise ValueError(f"{argument}: no column {name!r} in the {source.what}, which has: {known}")
    return source.columns[name]


def _ways(
    source: Source, looks: Looks, positions: NDArray[np.float32]
) -> tuple[NDArray[np.float32], Optional[NDArray[np.float32]]]:
    """Where the particles are when the shutter opens and, if they move, when it closes."""
    check.choice("motion", looks.motion, ("none", "velocity"))
    if looks.motion == "none":
        return positions, None
    given = source.velocities()
    if given is None:
        raise ValueError(f"motion: no velocities in the {source.what}")
    velocities = check.vectors("velocities", given, len(positions)).astype(np.float64)
    dt = check.number("dt", looks.dt, -1e30, 1e30)
    opens, closes = check.shutter("shutter", looks.shutter)

    def at(time: float) -> NDArray[np.float32]:
        return (positions.astype(np.float64) + velocities * (time * dt)).astype(np.float32)

    return at(opens), at(closes)
