"""Particle files: read as the command reads them."""

from __future__ import annotations

import errno
import inspect
import os
import re
from types import SimpleNamespace
from typing import Any, Iterator, Mapping, Optional, Sequence, Union

import numpy as np

from . import _checks as check
from . import _native
from ._looks import Color, Radii
from .particles import Cell, Particles
from ._progress import Progress

Path = Union[str, bytes, "os.PathLike[str]", "os.PathLike[bytes]"]
Paths = Union[Path, Sequence[Path]]


class ReadError(ValueError):
    """A file whose particles cannot be read; says where, what was found and the way on."""


class NoSuchFrame(ReadError, IndexError):
    """A frame that the file or the sequence does not have."""


def read(
    path: Paths,
    frame: Optional[int] = None,
    *,
    radius: Optional[float] = None,
    radius_from: Optional[str] = None,
    radius_scale: float = 1.0,
    radii: Radii = "vdw",
    points: bool = False,
    color: Color = None,
    color_by: Optional[str] = None,
    colormap: Optional[str] = None,
    colors: Optional[Mapping[Union[str, int], Color]] = None,
    range: Optional[Sequence[float]] = None,
    select: Optional[str] = None,
    slice: Union[str, Sequence[str]] = (),
    every: int = 1,
    replicate: Sequence[int] = (1, 1, 1),
    wrap: bool = False,
    assembly: Optional[Union[str, int]] = None,
    elements: Optional[Union[str, Sequence[str]]] = None,
    format: Optional[str] = None,
    part_type: Optional[Union[str, Sequence[str]]] = None,
    topology: Optional[Path] = None,
    motion: Union[str, Path] = "none",
    times: Sequence[float] = (0.0, 1.0),
    shutter: Optional[Sequence[float]] = None,
    dt: Optional[float] = None,
    columns: Optional[Sequence[str]] = None,
    progress: Optional[Progress] = None,
) -> Particles:
    """Reads one frame of a particle file, in any format that the command reads, plain or gzipped.

    The words are those of the command's options; what is not said is chosen as the command does,
    and told by `Particles.notes`.

    Parameters
    ----------
    path : str or path, or several
        Several are one snapshot, such as each process of a code wrote one.
        `cache.{}.ply`, `cache.####.ply` and `cache.%04d.ply` stand for a sequence of files.
    frame : int, optional
        Of the file, or the number of a file of a sequence; negative: from the end.
    radius, radius_from, radius_scale : a number, a column, a factor
        Radius of all; else from the column; else the file's own, by element, or by spacing.
    radii : "vdw", "covalent", or a dictionary such as {"O": 1.5, 2: 0.5}
        Radii of the elements; or of some elements or types, whatever the others have.
    points : bool
        Points with a radius instead of solid spheres.
    color, color_by, range : a colour, a column, two numbers
        Colour of all, or the column to colour by and the values for both ends of the colour map.
        Else the file's own colours, or by element. "forces" shows the length of fx fy fz.
    colormap : str, optional
        viridis, magma, inferno, plasma, cividis, turbo or coolwarm, with "_r" reversed; "kinds" for
        whole numbers without order, as types, chains and the like are shown by themselves.
    colors : dictionary such as {"O": "red", 2: "#c33"}, optional
        Colours of some elements or types, whatever the others have.
    select, slice, every, replicate, wrap
        Which particles: "type == 2 and z < 10"; planes such as "x" or "-z:3.5" that leave out what
        lies beyond; one in so many; copies along the cell's edges; moved into the cell. Columns
        have the rows of the particles that are left.
    assembly : str or int, optional
        The biological assembly of a PDB or mmCIF file to build.
    elements : "O,H" or a sequence of symbols, optional
        Elements of the numbered types 1, 2 and so on.
    format : str, optional
        Name of the format; else told from the content.
    part_type : "gas,stars" or a sequence of names, optional
        The kinds of particles to read of an HDF5 file; by default all.
    topology : path, optional
        A file that names the particles of a trajectory.
    motion : "none", "velocity", "next" or the path of a later snapshot
        Where the particles move while the shutter is open.
    times, shutter, dt : two numbers, two numbers, a number
        When the two snapshots were taken; when the shutter opens and closes; how much of the file's
        time passes in one unit of the shutter.
    columns : sequence of str, optional
        The further columns to keep; by default all.
    progress
        See the module. Ctrl-C ends the reading.

    Raises FileNotFoundError, `ReadError` for what cannot be read, `NoSuchFrame`, ValueError by the
    name of the argument, MemoryError.
    """
    given = locals()
    return frames(path, **{word: given[word] for word in _WORDS}).read(frame, progress)


# What of `read` says how any frame is read.
_WORDS = {
    name: word for name, word in inspect.signature(read).parameters.items()
    if name not in ("path", "frame", "progress")
}


def frames(path: Paths, **options: Any) -> Frames:
    """The frames of a file or of a sequence; `options` are those of `read`.

        for particles in kelpa.frames("run.dump", color_by="c_pe"): ...

    len() counts them. Frames that are read in rising order cost one way through the file.
    """
    return Frames(path, **options)


def join(path: Path, tiles: Sequence[Path], *, progress: Optional[Progress] = None) -> None:
    """Writes the picture that tiles make up, as the command's `join` does.

    `tiles` are .exr or .png files of what was rendered with `tile=(k, n)`, or by the command with
    `--tile`, in any order; `path` has their format. The file is, byte for byte, what one run would
    have written.

    Raises FileNotFoundError, `ReadError` for files that are no tiles or not those of one picture,
    OSError for what cannot be written.
    """
    if _native.missing:
        raise ImportError(
            f"kelpa.join: this build of kelpa has no pictures; it was made without {_native.missing}"
        )
    if isinstance(tiles, (str, bytes, os.PathLike)) or len(tiles) == 0:
        raise ValueError(f"tiles: expected a sequence of paths, found {tiles!r}")
    for tile in tiles:
        _must_exist(os.fsdecode(tile))
    with _reading():
        _native.join(os.fsencode(path), [os.fsencode(tile) for tile in tiles], progress)


def _must_exist(path: str) -> None:
    if not os.path.exists(path):
        raise FileNotFoundError(errno.ENOENT, os.strerror(errno.ENOENT), path)


class Frames(Sequence[Particles]):
    """See `frames`."""

    def __init__(self, path: Paths, **options: Any) -> None:
        paths = [path] if isinstance(path, (str, bytes, os.PathLike)) else list(path)
        if not paths:
            raise ValueError("path: expected at least one, found none")
        self._paths = [os.fsdecode(path) for path in paths]
        self._options = options
        self._wanted = _wanted(options)
        self._numbers: Optional[list[int]] = None
        for name in self._paths:
            if not re.search(r"\{\}|#|%\d*d", name):
                _must_exist(name)
        with _reading():
            self._source = _native.Frames([os.fsencode(name) for name in self._paths])

    def read(self, frame: Optional[int] = None, progress: Optional[Progress] = None) -> Particles:
        """The frame of this number; negative: from the end; by default the first."""
        if frame is not None:
            frame = check.integer("frame", frame, -check.LARGEST)
        with _reading():
            found = self._source.read(frame, self._wanted, progress)
        return _particles(found)

    @property
    def numbers(self) -> list[int]:
        """The numbers that `read` knows the frames by: of the files of a sequence, else from 0."""
        if self._numbers is None:
            with _reading():
                self._numbers = self._source.numbers(self._wanted, None)
        return list(self._numbers)

    def __len__(self) -> int:
        return len(self.numbers)

    def __getitem__(self, place: Any) -> Any:
        chosen = self.numbers[place]
        return [self.read(n) for n in chosen] if isinstance(place, slice) else self.read(chosen)

    def __iter__(self) -> Iterator[Particles]:
        return (self.read(number) for number in self.numbers)

    def __repr__(self) -> str:
        return f"<kelpa.Frames of {', '.join(map(repr, self._paths))}>"


def _wanted(options: Mapping[str, Any]) -> _native.Wanted:
    """What the words of `read` ask for; those that are missing as `read` has them by default."""
    if _native.missing:
        raise ImportError(
            f"kelpa.read: this build of kelpa reads no files; it was made without {_native.missing}"
        )
    bound = inspect.Signature(list(_WORDS.values())).bind(**options)
    bound.apply_defaults()
    given = SimpleNamespace(**bound.arguments)
    wanted = _native.Wanted()
    _want_particles(wanted, given)
    _want_looks(wanted, given)
    wanted.motion = os.fsencode(given.motion)
    wanted.times = check.interval("times", given.times)
    wanted.shutter = None if given.shutter is None else check.shutter("shutter", given.shutter)
    wanted.dt = None if given.dt is None else check.number("dt", given.dt, -1e30, 1e30)
    return wanted


def _want_particles(wanted: _native.Wanted, given: SimpleNamespace) -> None:
    """What is read of the file."""
    if given.format is not None:
        check.choice("format", given.format, _native.format_names().split("|"))
    wanted.format = given.format or ""
    wanted.assembly = "" if given.assembly is None else str(given.assembly)
    wanted.topology = b"" if given.topology is None else os.fsencode(given.topology)
    wanted.kinds = (
        given.part_type.split(",") if isinstance(given.part_type, str)
        else check.names("part_type", given.part_type or ())
    )
    wanted.elements = _elements(given.elements)
    wanted.columns = None if given.columns is None else check.names("columns", given.columns)
    wanted.select = check.text("select", given.select)
    wanted.slices = (
        [given.slice] if isinstance(given.slice, str) else check.names("slice", given.slice)
    )
    wanted.every = check.integer("every", given.every, 1)
    wanted.replicate = [check.integer("replicate", n, 1, 1000) for n in given.replicate]
    wanted.wrap = bool(given.wrap)


def _want_looks(wanted: _native.Wanted, given: SimpleNamespace) -> None:
    """Radii and colours."""
    if isinstance(given.radii, str):
        check.choice("radii", given.radii, ("vdw", "covalent"))
    check.coloring(given.color, given.color_by, given.colormap, given.range)
    wanted.radius_from = check.text("radius_from", given.radius_from)
    wanted.radius = None if given.radius is None else _radius("radius", given.radius)
    wanted.radius_scale = _radius("radius_scale", given.radius_scale)
    wanted.covalent = given.radii == "covalent"
    wanted.radii_of_kinds = (
        [] if isinstance(given.radii, str) else check.kinds("radii", given.radii, _radius)
    )
    wanted.points = bool(given.points)
    wanted.color = None if given.color is None else check.color("color", given.color)
    wanted.color_by = check.text("color_by", given.color_by)
    wanted.colormap = "" if given.colormap is None else check.color_map("colormap", given.colormap)
    wanted.colors_of_kinds = check.kinds("colors", given.colors or {}, check.color)
    wanted.range = None if given.range is None else check.interval("range", given.range)


def _radius(name: str, value: float) -> float:
    return check.number(name, value, 1e-15, 1e30)


def _elements(given: Optional[Union[str, Sequence[str]]]) -> list[int]:
    symbols = given.split(",") if isinstance(given, str) else check.names("elements", given or ())
    numbers = [_native.atomic_number(symbol) for symbol in symbols]
    if 0 in numbers:
        raise ValueError(f"elements: expected symbols such as 'O,H', found {given!r}")
    return numbers


def _particles(found: dict[str, Any]) -> Particles:
    cell = found.pop("cell")
    if cell is not None:
        edges, origin, periodic, copies = cell
        cell = Cell(np.array(edges), np.array(origin), periodic, copies)
    for name in ("name", "format", "frame"):
        del found[name]
    return Particles(**found, cell=cell)


class _reading:
    """What the readers raise, as exceptions of this module."""

    def __enter__(self) -> None:
        pass

    def __exit__(self, kind: object, error: Optional[BaseException], trace: object) -> None:
        if isinstance(error, _native.NoSuchFrame):
            raise NoSuchFrame(str(error)) from None
        if isinstance(error, _native.ReadError):
            raise ReadError(str(error)) from None
