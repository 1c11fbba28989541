"""Particles in the browser, to turn and to ask, served from this process."""

from __future__ import annotations

import inspect
import math
import os
import webbrowser
import weakref
from typing import Any, Mapping, Optional, Sequence, Union

import numpy as np

from . import _checks as check
from . import _native
from ._progress import Progress
from .camera import Camera
from .files import _WORDS, Frames, Paths, _reading
from .particles import Particles
from .primitive import Primitive


def view(
    what: Union[Primitive, Particles, Sequence[Particles], Frames, Paths],
    *,
    camera: Optional[Camera] = None,
    size: Optional[Sequence[int]] = None,
    samples: int = 16,
    shade: str = "ao",
    background: Optional[str] = None,
    ao_samples: int = 2,
    ao_distance: Optional[float] = None,
    shadows: Optional[bool] = None,
    host: str = "127.0.0.1",
    port: int = 0,
    open: bool = False,
    height: int = 540,
    title: str = "particles",
    threads: int = 0,
    **options: Any,
) -> View:
    """Shows particles on a page in the browser, as `kelpa view` does, and goes on at once.

        kelpa.view("run.dump", color_by="c_pe")     # the last line of a notebook's cell: there
        with kelpa.view(cloud) as page:             # elsewhere, as long as the page is needed
            print(page)                             # the link

    In a notebook the page stands below the cell. What is read or built is told on the page, and so
    is what goes wrong; `View.wait` waits for it and raises. The page ends with the object.

    Parameters
    ----------
    what : Primitive, Particles or a sequence of them, frames, or a path or several
        A primitive is shown by its own tree. Files are read frame by frame, as the page asks.
    options
        Of files those of `read`, with `frame` for the first to be shown. Of all others `color`,
        `color_by`, `colormap` and `range`, with the names of `Particles.columns`.
    camera : Camera, optional
        The first one; by default all is seen.
    size : (width, height), optional
        Of the picture in pixels; by default that of the window.
    samples, shade, ao_samples, ao_distance, shadows
        As of `Primitive.render`; `shade` is "ao", "lit" or "flat".
    background : str, optional
        A colour such as "#203040", or "none".
    host, port
        Where the server listens; by default on this machine alone, at a port that is free.
    open : bool
        Opens the link in the browser.
    height : int
        Of the frame in a notebook, in pixels.
    title : str
        What the page calls particles that are not of files.
    threads : int
        0: as many as there are processors.

    Raises ImportError where the build lacks the server's libraries, FileNotFoundError, ValueError
    by the name of the argument, OSError when the port is taken.
    """
    if not hasattr(_native, "View"):
        raise ImportError(
            "kelpa.view: this build of kelpa has no view; it was made without "
            f"{_native.missing or 'libcivetweb, libturbojpeg or nlohmann-json'}"
        )
    show = _native.Show()
    show.threads = check.integer("threads", threads, 0)
    show.address = check.text("host", host), check.integer("port", port, 0, 65535)
    show.has_size = size is not None
    show.background = check.text("background", background)
    show.wish = _wish(
        (1280, 720) if size is None else size, samples, shade, background, ao_samples, ao_distance,
        shadows,
    )
    if camera is not None:
        check.instance("camera", camera, Camera)
        show.camera = _camera_options(camera)
    height = check.integer("height", height, 100, 10000)
    if isinstance(what, (Primitive, Particles)) or _is_of_particles(what):
        tree = what if isinstance(what, Primitive) else Primitive(what, threads=threads)
        found = _of_tree(tree, check.text("title", title), options, show)
    else:
        found = _of_files(what, options, show)
    page = View(found, height)
    if open:
        webbrowser.open(page.link)
    return page


class View:
    """A page in the browser; see `view`. `with` closes it at its end."""

    def __init__(self, served: Any, height: int) -> None:
        self._served = served
        self._height = height
        # Also when nobody holds it any more, and before the interpreter ends.
        self._end = weakref.finalize(self, served.close)

    @property
    def link(self) -> str:
        """The address of the page; its token is the key to it."""
        return str(self._served.link)

    @property
    def closed(self) -> bool:
        """Whether it has ended."""
        return bool(self._served.closed)

    def wait(self, progress: Optional[Progress] = None) -> "View":
        """Waits until there is something to see. Raises what there is instead, a ReadError say."""
        with _reading():
            self._served.wait(progress)
        return self

    def close(self) -> None:
        """Ends the page, and all work for it. May be called again."""
        self._end()

    def __enter__(self) -> "View":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<kelpa.View: {'closed' if self.closed else self.link}>"

    __str__ = __repr__

    def _repr_html_(self) -> str:
        if self.closed:
            return "<p>The view is closed.</p>"
        return (
            f'<iframe src="{self.link}" width="100%" height="{self._height}" style="border:0" '
            'allow="clipboard-write; fullscreen" allowfullscreen></iframe>'
        )


def _is_of_particles(what: Any) -> bool:
    is_sequence = isinstance(what, Sequence) and not isinstance(what, (str, bytes, Frames))
    return is_sequence and len(what) > 0 and all(isinstance(one, Particles) for one in what)


def _wish(
    size: Sequence[int],
    samples: int,
    shade: str,
    background: Optional[str],
    ao_samples: int,
    ao_distance: Optional[float],
    shadows: Optional[bool],
) -> Any:
    wish = _native.Wish()
    width, height = size
    wish.size = check.integer("size", width, 1, 8192), check.integer("size", height, 1, 8192)
    check.choice("shade", shade, ("ao", "lit", "flat"))
    wish.shade = shade
    wish.samples = check.integer("samples", samples, 1, 4096)
    wish.ao_samples = check.integer("ao_samples", ao_samples, 0, 4096)
    if ao_distance is not None:
        wish.ao_distance = check.number("ao_distance", ao_distance, 1e-30, 1e30)
    wish.shadows = None if shadows is None else bool(shadows)
    wish.transparent = background == "none"
    if background and background != "none":
        wish.background = check.color("background", background)
    return wish


def _camera_options(camera: Camera) -> Any:
    options = _native.CameraOptions()
    options.eye, options.look_at, options.up = camera.eye, camera.target, camera.up
    options.fov = camera.fov
    if camera.parallel_height is not None:
        distance = math.dist(camera.eye, camera.target)
        options.ortho = True
        # The height that is seen is that of the angle where the target is, through the zoom.
        whole = 2 * distance * math.tan(math.radians(camera.fov) / 2)
        options.zoom = whole / camera.parallel_height
    return options


# --- files


def _of_files(what: Any, options: Mapping[str, Any], show: Any) -> Any:
    frame = dict(options).pop("frame", None)
    words = {name: value for name, value in options.items() if name != "frame"}
    unknown = sorted(set(words) - set(_WORDS))
    if unknown:
        raise TypeError(f"view() got an unexpected keyword argument {unknown[0]!r}")
    if isinstance(what, Frames):
        if words:
            raise TypeError(f"{next(iter(words))}: frames have been given theirs")
        source, words = what, what._options
    else:
        source = Frames(what, **words)
    show.frame = None if frame is None else check.integer("frame", frame, -check.LARGEST)
    show.colormap = words.get("colormap") or ""
    color = words.get("color")
    show.color = color if isinstance(color, str) else ""
    command = _command(source._paths, words)
    show.command = command or []
    slices = words.get("slice", ())
    show.slices = [slices] if isinstance(slices, str) else list(slices)
    with _reading():
        return _native.view_files(
            [os.fsencode(path) for path in source._paths], source._wanted, show
        )


# What the page itself chooses, or has no meaning for pictures.
_NOT_IN_COMMAND = (
    "slice", "color", "color_by", "colormap", "range", "radius_scale", "columns", "progress",
)


def _command(paths: Sequence[str], words: Mapping[str, Any]) -> Optional[list[str]]:
    """The words of a command that reads the same; None for what no command can say."""
    command = [*paths, *(["--together"] if len(paths) > 1 else [])]
    if words.get("color") is not None and not isinstance(words["color"], str):
        return None
    for name, value in words.items():
        if name in _NOT_IN_COMMAND or value is None or value is False or value == ():
            continue
        option = "--" + name.replace("_", "-")
        if value is True:
            command.append(option)
        elif name == "times":
            command += [option, *(repr(float(part)) for part in value)]
        elif name == "shutter":
            command.append(f"{option}={':'.join(repr(float(part)) for part in value)}")
        elif isinstance(value, Mapping):
            if not all(isinstance(said, (str, int, float)) for said in value.values()):
                return None
            command.append(f"{option}={','.join(f'{kind}={said}' for kind, said in value.items())}")
        elif isinstance(value, (str, bytes, os.PathLike)):
            command.append(f"{option}={os.fsdecode(value)}")
        elif isinstance(value, Sequence):
            command.append(f"{option}={','.join(map(str, value))}")
        else:
            command.append(f"{option}={value!r}")
    return command


# --- primitives


def _of_tree(tree: Primitive, title: str, options: Mapping[str, Any], show: Any) -> Any:
    known = inspect.signature(_looks).parameters
    unknown = sorted(set(options) - set(known))
    if unknown:
        raise TypeError(
            f"{unknown[0]}: of particles in memory a view takes {', '.join(known)} alone"
        )
    color = _looks(show, **options)
    systems = tree.systems
    names = list(dict.fromkeys(name for s in systems for name in s.columns))
    if options.get("color_by") not in (None, *names):
        raise ValueError(f"color_by: expected one of {names}, found {options['color_by']!r}")
    has_names = any(s.ids is not None for s in systems) or [*tree.bases] != _firsts(systems)
    ids = np.concatenate([
        s.ids if s.ids is not None else np.arange(base, base + len(s), dtype=np.int64)
        for s, base in zip(systems, tree.bases)
    ]) if has_names and systems else None
    up_axis = systems[0].up_axis if systems else "z"
    return _native.view_tree(
        tree._tree, title, up_axis, color,
        [name for name in names if _is_shown(name, systems)], ids,
        lambda name: _column(systems, name), lambda row: _row(systems, row), show,
    )


def _looks(
    show: Any,
    color: Union[str, Sequence[float]] = (0.26, 0.42, 0.62),
    color_by: Optional[str] = None,
    colormap: Optional[str] = None,
    range: Optional[Sequence[float]] = None,
) -> tuple[float, float, float]:
    """Takes the colours over; returns that of particles without one."""
    check.coloring(None, color_by, colormap, range)
    show.color_by = check.text("color_by", color_by)
    show.colormap = "" if colormap is None else check.color_map("colormap", colormap)
    show.range = None if range is None else check.interval("range", range)
    return check.color("color", color)


def _firsts(systems: Sequence[Particles]) -> list[int]:
    """The row of each system's first particle."""
    ends = np.cumsum([0, *map(len, systems)])
    return [int(end) for end in ends[:-1]]


def _is_shown(name: str, systems: Sequence[Particles]) -> bool:
    """Whether particles can be coloured by a column: numbers, vectors or names."""
    return all(
        s.columns[name].dtype.kind in "biufU" and s.columns[name].ndim <= 2
        for s in systems if name in s.columns
    )


def _column(systems: Sequence[Particles], name: str) -> tuple[Any, Optional[list[str]]]:
    """A number for each particle of all systems, and what the numbers count if these are names.
    Vectors have their length; systems that lack the column, no number."""
    parts = [
        s.columns[name] if name in s.columns else np.full(len(s), np.nan, dtype=np.float32)
        for s in systems
    ]
    if any(part.dtype.kind == "U" for part in parts):
        texts = np.concatenate([part.astype("U") for part in parts])
        names, numbers = np.unique(texts, return_inverse=True)
        return numbers.astype(np.float32), names.tolist()
    lengths = [
        np.linalg.norm(part.astype(np.float64), axis=1) if part.ndim == 2 else part
        for part in parts
    ]
    return np.concatenate([part.astype(np.float32) for part in lengths]), None


def _row(systems: Sequence[Particles], row: int) -> list[tuple[str, str]]:
    """What the columns say of a particle, which counts among those of all systems."""
    firsts = _firsts(systems)
    number = int(np.searchsorted(firsts, row, side="right")) - 1
    while len(systems[number]) == 0:  # one of several that begin there
        number -= 1
    local = row - firsts[number]
    cells = [("system", str(number))] if len(systems) > 1 else []
    for name, values in systems[number].columns.items():
        value = values[local]
        cells.append((name, " ".join(map(str, value)) if np.ndim(value) > 0 else str(value)))
    return cells
