"""Pictures that the test displays have taken: load them and look at them."""

from __future__ import annotations

from pathlib import Path
from typing import TYPE_CHECKING

if TYPE_CHECKING:  # at run time imported where needed: it would double the start-up of on-display
    import numpy
    from numpy.typing import NDArray

    Picture = NDArray[numpy.uint8]  # rows, columns, and red, green, blue


def load_picture(path: Path | str) -> Picture:
    """The picture as an array of rows, columns and red, green, blue (0..255)."""
    import numpy
    from PIL import Image

    with Image.open(path) as picture:
        return numpy.asarray(picture.convert("RGB"))


def pixel(picture: Picture, x: int, y: int) -> tuple[int, int, int]:
    """Red, green and blue at x (rightwards) and y (downwards), from the upper left corner."""
    red, green, blue = (int(part) for part in picture[y, x])
    return red, green, blue
