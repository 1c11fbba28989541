"""What rays hit."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
from numpy.typing import NDArray


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
