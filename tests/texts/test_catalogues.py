"""The words of the interface are those of the large desktops: how many agree, and why the others don't.

catalogue_words.json holds what the message catalogues of desktops and their programs call the things that this program has as well, for each
language and English word, with the number of catalogues that say so. Keys for the keyboard, colons and dots are left out. A word differs

- if no catalogue has it, or
- if three or more catalogues agree on a word, and fewer on this one.

Each word that differs has its reason in differences.txt, where the figures stand too. After a change of words, run this test and put right
what it tells.
"""

from __future__ import annotations

import json
import re
import unicodedata
from collections.abc import Iterator
from pathlib import Path
from typing import NamedTuple

from source_texts import keys, tables

HERE = Path(__file__).resolve().parent
SOME = 3  # catalogues that agree are a custom


class Word(NamedTuple):
    """What one thing is called in one language."""
    language: str
    key: str
    ours: str
    theirs: dict[str, int]  # with the number of catalogues

    @property
    def known(self) -> bool:
        return self.ours in self.theirs

    @property
    def there_is_a_custom(self) -> bool:
        return max(self.theirs.values()) >= SOME

    @property
    def follows_custom(self) -> bool:
        return self.theirs.get(self.ours, 0) >= SOME

    @property
    def differs(self) -> bool:
        return not self.known or self.there_is_a_custom and not self.follows_custom


def words() -> Iterator[Word]:
    """Everything that the catalogues have a word for."""
    catalogues = json.loads((HERE / "catalogue_words.json").read_text())
    for language, entries in catalogues.items():
        ours = dict(zip(keys(), tables()[language], strict=True))
        for key, theirs in entries.items():
            yield Word(language, key, unicodedata.normalize("NFC", ours[key]), theirs)


def statements() -> list[tuple[str, str]]:
    """The lines of differences.txt: what they are about, and what they say."""
    lines = (HERE / "differences.txt").read_text().splitlines()
    return [tuple(line.split(": ", 1)) for line in lines if line and not line.startswith("#")]


def test_each_word_that_differs_has_its_reason() -> None:
    reasons = dict(statements())
    missing = {f"{word.language} {word.key}": (word.ours, word.theirs) for word in words() if word.differs}
    assert {name: missing[name] for name in missing if name not in reasons} == {}


def test_no_reason_is_left_of_a_word_that_agrees() -> None:
    reasons = [name for name, _ in statements() if not name.startswith("agreement")]
    assert len(reasons) == len(set(reasons))
    assert set(reasons) - {f"{word.language} {word.key}" for word in words() if word.differs} == set()
    assert all(re.fullmatch(r"\S.{6,}", reason) for _, reason in statements())


def test_figures_are_those_of_the_tables() -> None:
    every = list(words())
    customs = [word for word in every if word.there_is_a_custom]
    assert [statement for statement in statements() if statement[0].startswith("agreement")] == [
        ("agreement", f"{sum(word.known for word in every)} of {len(every)}"),
        ("agreement where three or more agree", f"{sum(word.follows_custom for word in customs)} of {len(customs)}"),
    ]


def test_catalogues_are_in_the_form_of_the_tables() -> None:
    for word in words():
        assert word.theirs and all(count > 0 for count in word.theirs.values())
        for theirs in word.theirs:
            assert theirs == unicodedata.normalize("NFC", theirs).strip() != ""
