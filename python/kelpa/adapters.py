"""Particles from the objects in which other programs keep them.

Nothing is imported for this: any object will do that offers what is described.
"""

from __future__ import annotations

from typing import Any, Iterable, Optional, Sequence

import numpy as np
from numpy.typing import NDArray

from . import _checks as check
from ._looks import Looks, Source, atomic_numbers, make_particles, with_looks
from .particles import Cell, Particles


@with_looks
def from_ase(atoms: Any, *, looks: Looks) -> Particles:
    """Particles of an `ase.Atoms`: `positions`, `numbers`, `cell`, `pbc` and the further `arrays`.

    Parameters
    ----------
    radius : a number, an array (N,), or the name of one of the atoms' arrays, optional
        By default radii by element, in Angstrom.
    radius_scale : float
        Factor on all radii.
    radii : "vdw" or "covalent"
        Which radii the elements have.
    points : bool
        Points with a radius instead of solid spheres.
    color : "#rrggbb" or three numbers of linear light, optional
        Colour of all; by default each element has its own.
    color_by, range : str, and two numbers, optional
        The array to colour by, and the values for both ends of the colour map; by default the 1st
        and 99th percentile.
    colormap : str, optional
        viridis, magma, inferno, plasma, cividis, turbo or coolwarm, with "_r" reversed; "kinds" for
        whole numbers without order.
    motion, dt, shutter : "none" or "velocity", a number, (opens, closes)
        Along the velocities: `dt` is the atoms' time that passes in one unit of the shutter.

    The further arrays are in `Particles.columns`, what was chosen is told by `Particles.notes`.
    Raises ValueError by the name of the argument that cannot be used.
    """
    check.offers("atoms", atoms, "an ase.Atoms", "arrays", "positions", "numbers", "cell", "pbc")
    columns = {
        name: np.asarray(values) for name, values in atoms.arrays.items()
        if name not in ("numbers", "positions", "momenta")
    }
    source = Source(
        "atoms", atoms.positions, columns, numbers=atomic_numbers(atoms.numbers),
        cell=_cell(atoms.cell, atoms.pbc), velocities=lambda: _moving(atoms.get_velocities()),
    )
    return make_particles(source, looks)


@with_looks
def from_mdanalysis(group: Any, *, looks: Looks) -> Particles:
    """Particles of an MDAnalysis group, or of a whole universe, at the frame that it stands at.

    `radius` and `color_by` may name an attribute with a number per atom, such as "masses" or
    "charges". Radii are the group's own where it has some, else by element. `ids` are the atoms'
    ids. The rest is as in `from_ase`.
    """
    check.offers("group", group, "a group or universe of MDAnalysis", "atoms")
    atoms = group.atoms

    def attribute(name: str) -> Any:
        return getattr(atoms, name, None)  # what a group does not have raises an AttributeError

    asked = [name for name in (looks.radius, looks.color_by) if isinstance(name, str)]
    found = {name: attribute(name) for name in ("masses", "charges", "tempfactors", *asked)}
    columns = {name: np.asarray(values) for name, values in found.items() if values is not None}
    symbols = attribute("elements")
    kinds = attribute("types")
    source = Source(
        "group", atoms.positions, columns,
        numbers=atomic_numbers(kinds if symbols is None else symbols), types=_numbered(kinds),
        radii=attribute("radii"), ids=attribute("ids"),
        cell=_cell(getattr(atoms.universe.trajectory.ts, "triclinic_dimensions", None), True),
        velocities=lambda: getattr(atoms, "velocities", None),
    )
    return make_particles(source, looks)


@with_looks
def from_dataframe(
    frame: Any,
    position: Sequence[str] = ("x", "y", "z"),
    *,
    velocity: Sequence[str] = ("vx", "vy", "vz"),
    colors: Optional[Sequence[str]] = None,
    element: Optional[str] = None,
    id: Optional[str] = None,
    looks: Looks,
) -> Particles:
    """Particles of a table with named columns: a data frame, or a dictionary of arrays.

    Parameters
    ----------
    position, velocity, colors : three names each
        The columns of centres, of velocities (for `motion`), and of red, green and blue: linear
        light from 0 to 1, or sRGB from 0 to 255 in integers.
    element : str, optional
        The column of symbols or atomic numbers, which give radii (in Angstrom) and colours.
    id : str, optional
        The column of the particles' own numbers.
    radius : a number, an array (N,), or the name of a column, optional
        By default by element, or half the median distance to the 6th neighbour.

    The rest is as in `from_ase`. All columns of numbers are kept in `Particles.columns`. Missing
    values become NaN, and particles that need them are left out of trees, with a warning.
    """
    table = _Table(frame)
    source = Source(
        "frame", table.vectors("position", position), table.numeric_columns(),
        numbers=None if element is None else atomic_numbers(table.column("element", element)),
        colors=None if colors is None else table.vectors("colors", colors),
        ids=None if id is None else table.column("id", id),
        velocities=lambda: table.vectors("velocity", velocity),
    )
    return make_particles(source, looks)


class _Table:
    """A table's columns by name, whatever kind of table it is."""

    def __init__(self, frame: Any) -> None:
        if not hasattr(frame, "column_names") and not hasattr(frame, "columns"):
            check.offers("frame", frame, "a data frame or a dictionary of arrays", "keys")
        names: Iterable[Any] = getattr(frame, "column_names", None) or getattr(
            frame, "columns", frame
        )
        self._names = list(names)
        self._frame = frame

    def column(self, argument: str, name: str) -> NDArray[Any]:
        if name not in self._names:
            known = ", ".join(map(str, self._names)) or "none"
            raise ValueError(f"{argument}: no column {name!r} in the frame, which has: {known}")
        column = self._frame[name]
        values = np.asarray(column)
        if values.dtype == object:  # numbers with missing ones among them
            try:
                return np.array(
                    [np.nan if _is_missing(v) else float(v) for v in values], dtype=np.float64
                )
            except (TypeError, ValueError):
                return values  # words
        return values

    def vectors(self, argument: str, names: Sequence[str]) -> NDArray[Any]:
        if isinstance(names, str) or len(names) != 3:
            raise ValueError(f"{argument}: expected the names of three columns, found {names!r}")
        return np.stack([check.numbers(n, self.column(argument, n)) for n in names], axis=1)

    def numeric_columns(self) -> dict[str, NDArray[Any]]:
        columns = {str(name): self.column("columns", name) for name in self._names}
        return {name: values for name, values in columns.items() if values.dtype.kind in "biuf"}


def _is_missing(value: Any) -> bool:
    return value is None or type(value).__name__ == "NAType"


def _moving(velocities: NDArray[Any]) -> Optional[NDArray[Any]]:
    return velocities if velocities.any() else None  # atoms without momenta have zeros


def _numbered(kinds: Optional[NDArray[Any]]) -> Optional[NDArray[np.int64]]:
    """Kinds of particles that are numbers, also where they are written as words."""
    if kinds is None:
        return None
    try:
        return np.asarray(kinds).astype(np.int64)
    except ValueError:
        return None


def _cell(edges: Any, periodic: Any) -> Optional[Cell]:
    if edges is None:
        return None
    rows = np.asarray(edges, dtype=np.float64)
    if rows.shape != (3, 3) or not rows.any():
        return None
    x, y, z = np.broadcast_to(np.asarray(periodic, dtype=bool), 3).tolist()
    return Cell(rows, np.zeros(3), (x, y, z))
