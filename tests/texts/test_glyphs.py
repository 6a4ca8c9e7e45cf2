"""No text of the program lacks a glyph: with the fonts installed here, Pango finds one for every character of every text in the sources.

The texts are read from the sources, not from a running program: all 34 of each of the 44 languages, the names of the languages, and the
texts beside the tables, such as the gear, the fire and the minus sign. That covers all that window and dialog can show, but for the CPU's
own name. Each is laid out in the fonts that the stylesheet asks for; from which font Pango then takes a character that these lack is its
affair, as it is in the program. Whether the glyphs look right has to be seen: `make contact-sheets`.
"""

from __future__ import annotations

from collections.abc import Iterator

import gi
import pytest

gi.require_version("Pango", "1.0")
gi.require_version("PangoCairo", "1.0")

from gi.repository import Pango, PangoCairo  # noqa: E402

from source_texts import fixed_texts, native_names, tables  # noqa: E402

FAMILIES = ("monospace", "sans-serif", "DejaVu Sans")  # of the stylesheet, and of the desktop in the tests
STYLES = ("9px", "bold 10px")
NUMBER_OF_LANGUAGES, NUMBER_OF_TEXTS = 44, 34


class Fonts:
    """The fonts of this machine, as a program finds them."""

    def __init__(self) -> None:
        context = PangoCairo.FontMap.get_default().create_context()
        self._layouts = []
        for family in FAMILIES:
            for style in STYLES:
                layout = Pango.Layout.new(context)
                layout.set_font_description(Pango.FontDescription.from_string(f"{family} {style}"))
                self._layouts.append(layout)

    def lacking(self, text: str) -> int:
        """How many glyphs of the text are missing, at most, in one of the fonts."""
        return max(self._lacking_in(layout, text) for layout in self._layouts)

    @staticmethod
    def _lacking_in(layout: Pango.Layout, text: str) -> int:
        layout.set_text(text, -1)
        return layout.get_unknown_glyphs_count()


@pytest.fixture(scope="module")
def fonts() -> Fonts:
    return Fonts()


def complaints(fonts: Fonts, texts: list[str]) -> Iterator[str]:
    for text in texts:
        if lacking := fonts.lacking(text):
            yield f"{lacking} missing in {text!r}"


def test_missing_glyph_is_noticed(fonts: Fonts) -> None:
    assert fonts.lacking("A") == 0
    assert fonts.lacking("A\U000F0000\uE000") == 2  # private use: no font has them


@pytest.mark.parametrize("code", sorted(tables()))
def test_language_has_all_glyphs(fonts: Fonts, code: str) -> None:
    texts = tables()[code]
    assert len(texts) == NUMBER_OF_TEXTS
    assert list(complaints(fonts, [*texts, native_names()[code]])) == []


def test_all_languages_are_looked_at() -> None:
    assert len(tables()) == NUMBER_OF_LANGUAGES


def test_fixed_texts_have_all_glyphs(fonts: Fonts) -> None:
    texts = fixed_texts()
    assert {"⚙", "🔥 ", "−", "Vantric"} <= set(texts)
    assert list(complaints(fonts, texts)) == []
