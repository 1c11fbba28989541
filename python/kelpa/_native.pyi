"""What the compiled part offers to kelpa/__init__.py, which describes it."""

from typing import Any, Callable, Optional, Sequence

from numpy import float32
from numpy.typing import NDArray

class Tree:
    def __init__(
        self,
        systems: Sequence[tuple[Any, ...]],
        max_depth: Optional[int],
        min_node_size: float,
        leaf_size_factor: Optional[float],
        pack: bool,
        moving_bounds: bool,
        threads: int,
        progress: Optional[Callable[[Optional[float], str], object]],
        /,
    ) -> None: ...
    def intersect(self, *arguments: Any) -> tuple[NDArray[Any], ...]: ...
    def render(self, *arguments: Any) -> NDArray[float32]: ...
    def bounds(self) -> Optional[tuple[NDArray[float32], NDArray[float32]]]: ...
    def statistics(self) -> dict[str, Any]: ...
