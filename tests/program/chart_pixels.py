"""Reading what is painted in a chart, from a picture of the window."""

from __future__ import annotations

from functools import cache

import cairo
import numpy

from accessibility import Rect

CHART_BACKGROUND = (0xF5, 0xF5, 0xF5)  # of the light theme
FILL_TOP, FILL_BOTTOM = 0.55, 0.04  # how much of the accent colour stands under the curve
CURVE = 0.85  # and in it
POINTS = 60  # of a full history
GRID_LINES = (0.25, 0.5, 0.75)
TEXT_HEIGHT = 20  # of the frequency in the middle, at most, in the program's pixels

OVERLAY_SIZE, OVERLAY_MARGIN = 12.0, 4.0  # font and distance from the corner, in the program's pixels
OVERLAY_AREA = (48, 20)  # the corner that holds every percentage

Color = tuple[int, int, int]


def color_of(text: str) -> Color:
    """Red, green and blue (0..255) of "#RRGGBB", with or without "#"."""
    red, green, blue = bytes.fromhex(text.removeprefix("#"))
    return red, green, blue


class Chart:
    """A chart in a picture of its window."""

    def __init__(self, picture: numpy.ndarray, rect: Rect, accent: str, scale: int = 1) -> None:
        self.pixels = picture[rect.y * scale:rect.bottom * scale, rect.x * scale:rect.right * scale].astype(float)
        self.height, self.width = self.pixels.shape[:2]
        self.scale = scale
        background, color = (numpy.array(part, float) for part in (CHART_BACKGROUND, color_of(accent)))
        way = color - background
        #: How far each pixel is on the way from the background to the accent colour, 0 to 1.
        self.accent = ((self.pixels - background) @ way) / (way @ way)

    @property
    def newest(self) -> numpy.ndarray:
        """The accent from top to bottom where the newest value stands; no text of a chart reaches so far."""
        return self.accent[:, -2 * self.scale]

    def curve_height(self) -> float:
        """The load at which the curve ends on the right, 0 to 1."""
        return 1 - (int(numpy.argmax(self.newest)) + 0.5) / self.height

    def points(self) -> int:
        """The number of values in the chart, if they are level, by how far the fill reaches to the left."""
        row = self._row_of_fill_alone()
        is_bare = self.accent[row] < fill_share((row + 0.5) / self.height) / 2
        left = int(numpy.nonzero(is_bare)[0].max(initial=-1)) + 1
        return round(POINTS - left / self.width * (POINTS - 1)) if left < self.width else 0

    def _row_of_fill_alone(self) -> int:
        """A row under the curve that neither a grid line nor the text in the middle crosses."""
        curve, text = int(numpy.argmax(self.newest)), self.height // 2 + TEXT_HEIGHT * self.scale // 2
        row = max(curve, text) + 3 * self.scale
        while min(abs(row + 0.5 - line * self.height) for line in GRID_LINES) < 2 * self.scale:
            row += 1
        return min(row, self.height - 1)

    def fills_whole_width(self) -> bool:
        """Whether the curve reaches the left edge."""
        return bool(self.accent[:, 0].max() > CURVE / 3)

    def corners(self) -> list[Color]:
        """The colours of the two corners on the left."""
        return [tuple(int(part) for part in self.pixels[row, 0]) for row in (0, self.height - 1)]

    def is_drawn_in_full_resolution(self) -> bool:
        """Whether there are details finer than two by two pixels."""
        even = self.pixels[:self.height // 2 * 2, :self.width // 2 * 2]
        return bool((even[::2] != even[1::2]).any() and (even[:, ::2] != even[:, 1::2]).any())


def fill_share(depth: float) -> float:
    """How much of the accent colour stands under the curve at this depth, 0 (top) to 1 (bottom)."""
    return FILL_TOP + (FILL_BOTTOM - FILL_TOP) * depth


# --- the percentage in the corner of the total chart ---

def read_overlay(picture: numpy.ndarray, rect: Rect, scale: int = 1) -> str:
    """The percentage, read by comparison with all that it can be."""
    width, height = (length * scale for length in OVERLAY_AREA)
    right, top = rect.right * scale, rect.y * scale
    corner = picture[top:top + height, right - width:right].astype(float)
    # How far each pixel is from the colours around it, whatever colour the text has.
    ink = numpy.abs(corner - numpy.median(corner, axis=(0, 1))).sum(axis=2)
    return max(_drawn_percentages(scale), key=lambda item: _likeness(ink, item[1]))[0]


def _likeness(ink: numpy.ndarray, drawing: numpy.ndarray) -> float:
    return float(numpy.corrcoef(ink.ravel(), drawing.ravel())[0, 1])


@cache
def _drawn_percentages(scale: int) -> list[tuple[str, numpy.ndarray]]:
    return [(text, _draw(text, scale)) for text in (f"{value}%" for value in range(101))]


def _draw(text: str, scale: int) -> numpy.ndarray:
    """The text's ink in the corner, 0 to 255."""
    width, height = OVERLAY_AREA
    surface = cairo.ImageSurface(cairo.FORMAT_A8, width * scale, height * scale)
    surface.set_device_scale(scale, scale)
    context = cairo.Context(surface)
    context.select_font_face("monospace", cairo.FONT_SLANT_NORMAL, cairo.FONT_WEIGHT_BOLD)
    context.set_font_size(OVERLAY_SIZE)
    extents = context.text_extents(text)
    context.move_to(width - extents.width - extents.x_bearing - OVERLAY_MARGIN, OVERLAY_MARGIN - extents.y_bearing)
    context.show_text(text)
    surface.flush()
    rows = numpy.frombuffer(surface.get_data(), numpy.uint8).reshape(height * scale, surface.get_stride())
    return rows[:, :width * scale].astype(float)
