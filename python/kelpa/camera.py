"""Cameras: where pictures are seen from, and the rays of their pixels."""

from __future__ import annotations

import math
import os
from dataclasses import dataclass, field
from fractions import Fraction
from typing import TYPE_CHECKING, Any, Optional, Sequence, Union

import numpy as np
from numpy.typing import NDArray

from . import _checks as check
from . import _native

if TYPE_CHECKING:
    from .primitive import Primitive

VIEWS = ("front", "back", "left", "right", "top", "bottom", "iso")


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

    _placed: Any = field(default=None, init=False, repr=False, compare=False)

    def __post_init__(self) -> None:
        for name in ("eye", "target", "up"):
            object.__setattr__(self, name, check.triple(name, getattr(self, name)))
        if not 0.0 < self.fov < 180.0:
            raise ValueError(f"fov: expected degrees above 0 and below 180, found {self.fov}")
        if self.parallel_height is not None and not 0.0 < self.parallel_height < math.inf:
            raise ValueError(
                f"parallel_height: expected a positive number, found {self.parallel_height}"
            )
        # In single precision, in which the camera is placed.
        line = np.subtract(np.float32(self.target), np.float32(self.eye), dtype=np.float64)
        forward = check.unit(line, "target (as seen from eye)")
        if np.linalg.norm(np.cross(forward, check.unit(np.array(self.up), "up"))) < 1e-9:
            raise ValueError(
                f"up: expected a direction that is not the line of sight, found {self.up}"
            )
        options = _native.CameraOptions()
        options.eye, options.look_at, options.up = self.eye, self.target, self.up
        options.fov = self.fov
        *axes, extent, _ = _native.orient(options)
        is_parallel = self.parallel_height is not None
        if self.parallel_height is not None:
            extent = self.parallel_height / 2
        object.__setattr__(self, "_placed", (*axes, extent, is_parallel))

    @classmethod
    def framing(
        cls,
        primitive: "Primitive",
        direction: Optional[Sequence[float]] = None,
        up: Optional[Sequence[float]] = None,
        fov: float = 35.0,
        aspect: Union[float, tuple[int, int]] = 1.0,
        *,
        view: Optional[str] = None,
        target: Optional[Sequence[float]] = None,
        ortho: bool = False,
        zoom: float = 1.0,
        cell: bool = False,
    ) -> "Camera":
        """A camera that sees all of `primitive`, as the command places it.

        All spheres just fit, with a margin of 5 %, at both ends of their motion. An empty primitive
        is seen from somewhere.

        Parameters
        ----------
        direction : three numbers, optional
            Where it looks; or `view`: "front", "back", "left", "right", "top", "bottom" or "iso".
            By default obliquely from above, on a flat set straight.
        up : three numbers, optional
            By default the particles' `up_axis`.
        aspect : a number, or (width, height)
            How much wider than high the picture is.
        target : three numbers, optional
            What is in the picture's middle; by default what makes all fit.
        ortho : bool
            Parallel rays.
        zoom : float
            Factor on the picture's scale.
        cell : bool
            The edges of the cell fit as well, for `render(cell=True)`.
        """
        from .primitive import Primitive  # which draws with cameras

        check.instance("primitive", primitive, Primitive)
        if view is not None:
            check.choice("view", view, VIEWS)
            if direction is not None:
                raise ValueError("direction: given together with view")
        options = _native.CameraOptions()
        if view is not None:
            options.view = view
        if direction is not None:
            options.direction = check.unit(np.array(check.triple("direction", direction)),
                                           "direction").tolist()
        options.up = None if up is None else check.triple("up", up)
        options.look_at = None if target is None else check.triple("target", target)
        options.up_axis = primitive.systems[0].up_axis if primitive.systems else "z"
        options.fov = check.number("fov", fov, 1e-3, 179.0)
        options.ortho = bool(ortho)
        options.zoom = check.number("zoom", zoom, 1e-6, 1e6)
        placed = primitive._tree.place_camera(
            options, *_size(aspect), primitive._cells() if cell else []
        )
        farthest = max(map(abs, placed[0]))
        if farthest > 1e38:  # what is seen from there has no place in single precision
            raise ValueError(
                f"primitive: all of it would be seen from {farthest:.3g} away; leave out the "
                "farthest particles, or give `render` a camera"
            )
        return cls._of(placed)

    @classmethod
    def _of(cls, placed: Any) -> "Camera":
        """The camera of these axes, which it keeps to the last bit."""
        eye, _, up, forward, extent, is_parallel = placed
        away = max(1.0, *map(abs, eye))  # so that far from zero the target is not rounded to the eye
        camera = cls(
            eye, np.add(eye, np.multiply(away, forward)).tolist(), up,
            35.0 if is_parallel else math.degrees(2 * math.atan(extent)),
            2 * extent if is_parallel else None,
        )
        object.__setattr__(camera, "_placed", placed)
        return camera

    def save(self, path: Union[str, "os.PathLike[str]"]) -> None:
        """Writes a file that `load` and the command's `--camera` read, and people edit."""
        if _native.missing:
            raise ImportError(
                f"this build of kelpa writes no cameras; it was made without {_native.missing}"
            )
        with open(path, "w", encoding="utf-8") as file:
            file.write(_native.camera_text(self._placed, self.target))

    @classmethod
    def load(cls, path: Union[str, "os.PathLike[str]"], frame: float = 0.0) -> "Camera":
        """The camera of a file that `save` or the command wrote, or somebody with a pen.

        frame : a number
            Of a file with keys: when on the camera's way. Between keys it goes smoothly.

        Raises FileNotFoundError, ReadError that says where the file is not what it should be.
        """
        from .files import _must_exist, _reading

        if _native.missing:
            raise ImportError(
                f"this build of kelpa reads no cameras; it was made without {_native.missing}"
            )
        frame = check.number("frame", frame, -1e9, 1e9)
        _must_exist(os.fsdecode(path))
        with _reading():
            placed, target, fov, height = _native.read_camera(os.fsencode(path), frame)
        camera = cls(placed[0], target, placed[2], fov, height)
        object.__setattr__(camera, "_placed", placed)
        return camera

    def rays(self, width: int, height: int) -> tuple[NDArray[np.float32], NDArray[np.float32]]:
        """Origins and directions (of length 1) of the rays through the pixels' middles.

        Both are (height, width, 3), row by row from the top left, as in pictures.
        """
        width = check.integer("width", width, 1, 65536)
        height = check.integer("height", height, 1, 65536)
        return _native.camera_rays(self._placed, width, height)


def _size(aspect: Union[float, tuple[int, int]]) -> tuple[int, int]:
    """A picture as much wider than high."""
    if isinstance(aspect, tuple):
        width, height = aspect
        return check.integer("aspect", width, 1, 65536), check.integer("aspect", height, 1, 65536)
    ratio = Fraction(check.number("aspect", aspect, 1e-3, 1e3)).limit_denominator(10000)
    return ratio.numerator, ratio.denominator
