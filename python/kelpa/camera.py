"""Cameras: where pictures are seen from, and the rays of their pixels."""

from __future__ import annotations

import math
from dataclasses import dataclass
from typing import TYPE_CHECKING, Optional, Sequence

import numpy as np
from numpy.typing import NDArray

from . import _checks as check

if TYPE_CHECKING:
    from .primitive import Primitive


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
            object.__setattr__(self, name, check.triple(name, getattr(self, name)))
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
        half = math.radians(check.number("fov", fov, 1e-3, 179.0)) / 2
        narrow = math.atan(math.tan(half) * min(check.number("aspect", aspect, 1e-3, 1e3), 1.0))
        forward = check.unit(np.array(check.triple("direction", direction)), "direction")
        eye = centre - forward * (radius / math.sin(narrow))
        return cls(eye.tolist(), centre.tolist(), up, fov)

    def rays(self, width: int, height: int) -> tuple[NDArray[np.float32], NDArray[np.float32]]:
        """Origins and directions (of length 1) of the rays through the pixels' middles.

        Both are (height, width, 3), row by row from the top left, as in pictures.
        """
        width = check.integer("width", width, 1, 65536)
        height = check.integer("height", height, 1, 65536)
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
        forward = check.unit(np.array(self.target) - eye, "target (as seen from eye)")
        right = np.cross(forward, check.unit(np.array(self.up), "up"))
        if np.linalg.norm(right) < 1e-9:
            raise ValueError(
                f"up: expected a direction that is not the line of sight, found {self.up}"
            )
        right = check.unit(right, "up")
        return eye, right, np.cross(right, forward), forward
