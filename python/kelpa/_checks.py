"""What callers give, checked and converted, or refused by the name of the argument."""

from __future__ import annotations

import math
from typing import Any, Optional, Sequence

import numpy as np
from numpy.typing import ArrayLike, NDArray

LARGEST = 2**31 - 1


def array(name: str, value: ArrayLike, dtype: type, expected: str) -> NDArray[Any]:
    """`value` as a C-contiguous array of `dtype`; the same memory if it is one already."""
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


def colors(value: ArrayLike, count: int) -> NDArray[np.float32]:
    if getattr(value, "dtype", None) == np.uint8:
        encoded = np.arange(256) / 255.0
        linear = np.where(encoded <= 0.04045, encoded / 12.92, ((encoded + 0.055) / 1.055) ** 2.4)
        value = linear.astype(np.float32)[np.asarray(value)]
    return vectors("colors", value, count)


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
