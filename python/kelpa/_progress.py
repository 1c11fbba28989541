"""What long work calls: progress(fraction, message); see the module."""

from typing import Callable, Optional

Progress = Callable[[Optional[float], str], object]
