"""What callers give, checked and converted, or refused by the name of the argument."""

from __future__ import annotations

import math
import sys
import warnings
from typing import Any, Callable, Mapping, Optional, Sequence, Union

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _native

LARGEST = 2**31 - 1

_LIGHT_OF_CODE = _native.light_of_codes()  # linear, for the 256 codes of sRGB


def array(name: str, value: ArrayLike, dtype: type, expected: str) -> NDArray[Any]:
    """`value` as a C-contiguous array of `dtype`; the same memory if it is one already."""
    _refuse_masked(name, value)
    try:
        array = np.asarray(value)
    except ValueError as error:  # rows of different lengths
        raise ValueError(f"{name}: expected {expected}, found no regular array ({error})") from None
    if not np.can_cast(array.dtype, dtype, casting="same_kind"):
        raise ValueError(
            f"{name}: expected {expected} of a type that converts to {np.dtype(dtype).name}, "
            f"found {array.dtype}"
        )
    return np.require(array, dtype=dtype, requirements=["C", "A"])


def _refuse_masked(name: str, value: ArrayLike) -> None:
    # numpy would hand over what lies below the mask.
    parts = value if isinstance(value, (list, tuple)) else [value]
    masked = sum(
        int(np.count_nonzero(part.mask)) for part in parts if isinstance(part, np.ma.MaskedArray)
    )
    if masked > 0:
        raise ValueError(
            f"{name}: {masked:,} values are masked; leave them out or fill them, "
            "for example by .filled(...)"
        )


def instance(name: str, value: object, kind: type) -> None:
    if not isinstance(value, kind):
        raise TypeError(f"{name}: expected a kelpa.{kind.__name__}, found {type(value).__name__}")


def offers(name: str, value: object, expected: str, *attributes: str) -> None:
    """Refuses what is not of the kind that has these attributes, whatever its class."""
    for attribute in attributes:
        if not hasattr(value, attribute):
            raise TypeError(
                f"{name}: expected {expected}, found {type(value).__name__}, "
                f"which has no {attribute!r}"
            )


def shape_error(name: str, expected: str, array: NDArray[Any]) -> ValueError:
    return ValueError(f"{name}: expected shape {expected}, found {array.shape}")


def vectors(name: str, value: ArrayLike, count: Optional[int] = None) -> NDArray[np.float32]:
    expected = f"({'N' if count is None else count}, 3)"
    values = array(name, value, np.float32, f"an array of shape {expected}")
    if values.ndim != 2 or values.shape[1] != 3 or (count is not None and len(values) != count):
        raise shape_error(name, expected, values)
    return values


def scalars(name: str, value: ArrayLike, count: int) -> NDArray[np.float32]:
    expected = f"({count},) or a single number"
    values = array(name, value, np.float32, f"an array of shape {expected}")
    if np.ndim(value) == 0:
        return np.full(count, values.reshape(()), dtype=np.float32)
    if values.shape != (count,):
        raise shape_error(name, expected, values)
    return values


def integers(name: str, value: ArrayLike, count: int) -> NDArray[np.int64]:
    expected = f"({count},)"
    values = array(name, value, np.int64, f"an array of shape {expected}")
    if values.shape != (count,):
        raise shape_error(name, expected, values)
    return values


def numbers(name: str, values: NDArray[Any]) -> NDArray[Any]:
    """The values of a named column, which have to be numbers."""
    if values.dtype.kind not in "biuf":
        raise ValueError(f"column {name!r}: expected numbers, found {values.dtype}")
    return values


def column(name: str, value: ArrayLike, count: int) -> NDArray[Any]:
    """Values of any type, one for each of `count` particles."""
    values = np.asanyarray(value)
    if values.ndim == 0 or len(values) != count:
        raise shape_error(f"columns[{name!r}]", f"({count}, ...)", values)
    return values


def colors(value: ArrayLike, count: int) -> NDArray[np.float32]:
    light = vectors("colors", value, count)
    given = np.asarray(value)
    if given.dtype == np.uint8 or (given.dtype.kind in "iu" and not np.isin(given, (0, 1)).all()):
        return _light_of_codes(given)
    strange = int(np.count_nonzero(~((light >= -1e-3) & (light <= 1.001)).all(axis=1)))
    if strange > 0:
        warnings.warn(
            f"kelpa: {strange:,} of {count:,} colors are not within 0 to 1, which is linear light; "
            "sRGB from 0 to 255 is given as integers, such as colors.astype(np.uint8)",
            stacklevel=caller_level(),
        )
    return light


def _light_of_codes(codes: NDArray[Any]) -> NDArray[np.float32]:
    """Linear light of sRGB codes, 0 to 255."""
    if codes.size > 0 and not 0 <= codes.min() <= codes.max() <= 255:
        raise ValueError(
            "colors: expected sRGB from 0 to 255 in integers, or linear light from 0 to 1, "
            f"found {codes.dtype} from {codes.min()} to {codes.max()}"
        )
    light: NDArray[np.float32] = _LIGHT_OF_CODE[codes]
    return light


def ray_vectors(name: str, value: ArrayLike) -> NDArray[np.float32]:
    values = array(name, value, np.float32, "an array of shape (..., 3)")
    if values.ndim == 0 or values.shape[-1] != 3:
        raise shape_error(name, "(..., 3)", values)
    return values


def per_ray(name: str, value: ArrayLike, shape: tuple[int, ...], dtype: type) -> NDArray[Any]:
    expected = f"{shape} or a single number"
    values = array(name, value, dtype, f"an array of shape {expected}")
    if np.ndim(value) != 0 and values.shape != shape:
        raise shape_error(name, expected, values)
    if np.isnan(values).any():
        raise ValueError(f"{name}: {np.count_nonzero(np.isnan(values)):,} values are NaN")
    return values.reshape(-1)


def number(name: str, value: float, least: float, most: float = math.inf) -> float:
    try:
        result = float(value)
    except (TypeError, ValueError):
        result = math.nan
    if not (least <= result <= most and math.isfinite(result)):
        upper = f" to {most:g}" if math.isfinite(most) else " or more"
        raise ValueError(f"{name}: expected a number, {least:g}{upper}, found {value!r}")
    return result


def integer(name: str, value: int, least: int, most: int = LARGEST) -> int:
    if not isinstance(value, (int, np.integer)) or not least <= value <= most:
        raise ValueError(f"{name}: expected an integer, {least} to {most}, found {value!r}")
    return int(value)


def triple(name: str, value: ArrayLike) -> tuple[float, float, float]:
    values = array(name, value, np.float64, "three numbers")
    if values.shape != (3,) or not np.isfinite(values).all():
        raise ValueError(f"{name}: expected three finite numbers, found {value!r}")
    x, y, z = values.tolist()
    return x, y, z


def interval(name: str, value: Sequence[float]) -> tuple[float, float]:
    try:
        first, second = (float(v) for v in value)
    except (TypeError, ValueError):
        first = second = math.nan
    if not (math.isfinite(first) and math.isfinite(second) and first != second):
        raise ValueError(f"{name}: expected two different finite numbers, found {value!r}")
    return first, second


def shutter(name: str, value: Sequence[float]) -> tuple[float, float]:
    """When it opens and when it closes."""
    opens, closes = interval(name, value)
    if closes < opens:
        raise ValueError(f"{name}: closes before it opens, {value!r}")
    return opens, closes


def coloring(color: object, color_by: object, colormap: object, range: object) -> None:
    """Refuses words of colour that have no meaning together."""
    for name, value in (("colormap", colormap), ("range", range)):
        if value is not None and color_by is None:
            raise ValueError(f"{name}: given without color_by, the column that it is for")
    if color is not None and color_by is not None:
        raise ValueError("color: given together with color_by")


def color(name: str, value: Union[str, Sequence[float]]) -> tuple[float, float, float]:
    """Linear light of a colour as people write it, or of three numbers."""
    if not isinstance(value, str):
        return triple(name, value)
    try:
        return _native.parse_color(value)
    except ValueError as error:
        raise ValueError(f"{name}: {error}") from None


def color_map(name: str, value: str) -> str:
    choices = _native.color_map_names().split("|")
    if value != "kinds" and value.removesuffix("_r") not in choices:
        raise ValueError(
            f"{name}: expected kinds or one of {', '.join(choices)}, each also with _r, "
            f"found {value!r}"
        )
    return value


def kinds(
    name: str, value: Mapping[Any, Any], parse: Callable[[str, Any], Any]
) -> list[tuple[str, Any]]:
    """What is said of kinds of particles: symbols of elements, numbers of types."""
    return [(str(kind), parse(f"{name}[{kind!r}]", said)) for kind, said in value.items()]


def text(name: str, value: Optional[str]) -> str:
    """A word, or nothing for None."""
    if value is not None and not isinstance(value, str):
        raise TypeError(f"{name}: expected a str, found {value!r}")
    return value or ""


def names(name: str, value: Sequence[str]) -> list[str]:
    """Several words; one by itself is not meant to be taken apart into letters."""
    if isinstance(value, str):
        return [value]
    try:
        return [text(name, one) for one in value]
    except TypeError:
        raise TypeError(f"{name}: expected names, found {value!r}") from None


def choice(name: str, value: object, choices: Sequence[str]) -> None:
    if value not in choices:
        known = ", ".join(map(repr, choices[:-1]))
        raise ValueError(f"{name}: expected {known} or {choices[-1]!r}, found {value!r}")


def span(name: str, value: Sequence[float]) -> tuple[float, float]:
    try:
        first, second = (float(v) for v in value)
    except (TypeError, ValueError):
        first = second = math.nan
    if not 0.0 <= first < second <= 1.0:
        raise ValueError(
            f"{name}: expected two numbers, 0 <= first < second <= 1, found {value!r}"
        )
    return first, second


def unit(vector: NDArray[np.float64], name: str) -> NDArray[np.float64]:
    length = float(np.linalg.norm(vector))
    if not 0.0 < length < math.inf:
        raise ValueError(f"{name}: expected a direction, found {vector.tolist()}")
    return vector / length


def part(
    name: str, value: Sequence[int], width: int, height: int
) -> tuple[int, int, int, int]:
    """A part of a picture: x0, y0, x1, y1."""
    numbers = list(value)
    if len(numbers) == 4 and all(isinstance(n, (int, np.integer)) for n in numbers):
        x0, y0, x1, y1 = map(int, numbers)
        if 0 <= x0 < x1 <= width and 0 <= y0 < y1 <= height:
            return x0, y0, x1, y1
    raise ValueError(
        f"{name}: expected x0, y0, x1, y1 within {width} x {height} pixels, found {value!r}"
    )


def tile(name: str, value: Sequence[int], rows: int) -> tuple[int, int]:
    """One of several tiles of a picture: k, n."""
    numbers = list(value)
    if len(numbers) == 2 and all(isinstance(n, (int, np.integer)) for n in numbers):
        k, n = map(int, numbers)
        if 1 <= k <= n <= rows:
            return k, n
    raise ValueError(
        f"{name}: expected k, n with 1 <= k <= n <= {rows}, the picture's rows, found {value!r}"
    )


def caller_level() -> int:
    """The `stacklevel` by which the caller's warning names the line that called this module."""
    here = __name__.partition(".")[0]
    level = 1
    frame = sys._getframe(1)
    while frame.f_back is not None and frame.f_globals["__name__"].partition(".")[0] == here:
        frame = frame.f_back
        level += 1
    return level
