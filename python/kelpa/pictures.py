"""Pictures: from light to what files hold."""

from __future__ import annotations

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _checks as check


def to_srgb(picture: ArrayLike) -> NDArray[np.uint8]:
    """A picture of linear light (..., 3 or 4) as 8-bit sRGB of the same shape, for files.

    A fourth channel stays linear, and the colours are divided by it, as PNG wants them.
    """
    linear = check.array("picture", picture, np.float32, "an array of shape (..., 3 or 4)")
    if linear.ndim == 0 or linear.shape[-1] not in (3, 4):
        raise check.shape_error("picture", "(..., 3) or (..., 4)", linear)
    colors = linear[..., :3]
    if linear.shape[-1] == 4:
        alpha = linear[..., 3:]
        colors = colors / np.where(alpha > 0, alpha, np.float32(1))
    colors = np.clip(colors, 0, 1)
    encoded = np.where(colors <= 0.0031308, colors * 12.92, 1.055 * colors ** (1 / 2.4) - 0.055)
    if linear.shape[-1] == 4:
        encoded = np.concatenate([encoded, np.clip(alpha, 0, 1)], axis=-1)
    return (encoded * 255 + 0.5).astype(np.uint8)
