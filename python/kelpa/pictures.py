"""Pictures: what they show, in notebooks and in files."""

from __future__ import annotations

import os
from typing import Any, Optional, Union, cast

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _checks as check
from . import _native
from ._progress import Progress

_CHANNELS = ("depth", "normal", "id", "position", "layers")
_BORDERS = _native.code_borders()  # the lights from which on codes 1 to 255 are the nearest


class Picture(NDArray[np.float32]):
    """A picture of particles: an array (height, width, 4) that shows and saves itself.

    The channels are linear red, green, blue, already multiplied by the fourth: the part of the
    pixel that particles cover, or 1 where there is a background. Rows run from the top. Whatever
    numpy does with arrays works; what comes out with the same shape is a picture, too.

    depth : (height, width) float32, or None
        Distance along the ray to what the pixel's first sample hit; 1e30 where that is nothing.
    normal, position : (height, width, 3) float32, or None
        Unit normal and place there; zero where that is nothing.
    id : (height, width) int64, or None
        The particle there: its id if it has one, else its place among all; `NOTHING` where none is.
    layers : dictionary, or None
        Columns, by name, (height, width) float32 or (height, width, 3); and "velocity", (height,
        width, 2), how many pixels what is seen goes to the right and up while the shutter is open.
    """

    NOTHING = -(2**63) + 0xFFFFFFFF

    depth: Optional[NDArray[np.float32]]
    normal: Optional[NDArray[np.float32]]
    id: Optional[NDArray[np.int64]]
    position: Optional[NDArray[np.float32]]
    layers: Optional[dict[str, NDArray[np.float32]]]
    _frame: Optional[tuple[tuple[int, int], tuple[int, int, int, int], bool, bytes, Any]]

    def __array_finalize__(self, source: Optional[NDArray[Any]]) -> None:
        alike = isinstance(source, Picture) and source.shape == self.shape
        for name in (*_CHANNELS, "_frame"):
            setattr(self, name, getattr(source, name, None) if alike else None)

    def __reduce__(self) -> Any:
        make, arguments, state = cast(Any, super().__reduce__())
        return make, arguments, (state, [getattr(self, name) for name in (*_CHANNELS, "_frame")])

    def __setstate__(self, state: Any) -> None:
        array, rest = state
        super().__setstate__(array)
        for name, value in zip((*_CHANNELS, "_frame"), rest):
            setattr(self, name, value)

    def save(
        self, path: Union[str, "os.PathLike[str]"], *, compression: str = "zip",
        progress: Optional[Progress] = None,
    ) -> None:
        """Writes a .png or .ppm (8-bit sRGB) or an .exr (linear, with all further channels).

        compression : "zip", "zips", "piz", "dwaa" or "none"
            Of an .exr; "dwaa" loses a little of the colours. It also tells of the camera.

        The file appears when it is whole. Pictures without a background are transparent.
        Raises ValueError for other suffixes, OSError for what cannot be written.
        """
        check.choice("compression", compression, ("zip", "zips", "piz", "dwaa", "none"))
        name = os.fspath(path)
        if any(getattr(self, channel) is not None for channel in _CHANNELS):
            if not name.lower().endswith(".exr"):
                wanted = ", ".join(c for c in _CHANNELS if getattr(self, c) is not None)
                raise ValueError(f"path: {name} cannot hold {wanted}; write an .exr")
        image = self._image()  # first: where no files are written there is no `save_picture`
        _native.save_picture(
            os.fsencode(path), image, self._is_transparent(), compression, progress
        )

    def _repr_png_(self) -> Optional[bytes]:
        """What notebooks show."""
        if _native.missing or self.ndim != 3 or self.shape[2] != 4 or 0 in self.shape:
            return None
        return _native.png_of(self._image(), self._is_transparent())

    def _is_transparent(self) -> bool:
        return self._frame[2] if self._frame is not None else bool((self[..., 3] != 1).any())

    def _image(self) -> _native.Image:
        if _native.missing:
            raise ImportError(
                f"this build of kelpa writes no pictures; it was made without {_native.missing}"
            )
        if self.ndim != 3 or self.shape[2] != 4:
            raise check.shape_error("picture", "(height, width, 4)", self)
        height, width = self.shape[:2]
        size, part, label, facts = (width, height), (0, 0, width, height), b"", None
        if self._frame is not None:
            size, part, _, label, facts = self._frame
        pixels = np.ascontiguousarray(self, dtype=np.float32)
        return _native.Image(
            size, part, pixels, self.depth, self.normal, self.id, self.position,
            list((self.layers or {}).items()), label, facts,
        )


def make_picture(
    arrays: dict[str, Any], size: tuple[int, int], is_transparent: bool
) -> Picture:
    """The picture of these channels, which show a part of `size`."""
    picture = arrays["rgba"].view(Picture)
    for name in _CHANNELS:
        setattr(picture, name, arrays.get(name))
    picture._frame = (size, arrays["part"], is_transparent, arrays["tile_label"], arrays["facts"])
    return cast(Picture, picture)


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
        colors = colors * (np.float32(1) / np.where(alpha > 0, alpha, np.float32(1)))
    codes = np.searchsorted(_BORDERS, np.nan_to_num(colors), side="right").astype(np.uint8)
    if linear.shape[-1] == 4:
        coverage = (np.clip(alpha, 0, 1) * 255 + 0.5).astype(np.uint8)
        codes = np.concatenate([codes, coverage], axis=-1)
    return codes
