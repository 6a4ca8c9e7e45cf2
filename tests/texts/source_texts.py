"""The texts of the program as its sources hold them."""

from __future__ import annotations

import ast
import re
from functools import cache
from pathlib import Path

SOURCES = Path(__file__).resolve().parents[2] / "src"
TABLES = SOURCES / "i18n_data.h"

LITERAL = r'"(?P<text>(?:[^"\\\n]|\\.)*)"'
#: What quotes can belong to in C++: raw texts, texts, single characters, comments.
TOKEN = re.compile(rf'''R"(?P<tag>\w*)\((?P<raw>.*?)\)(?P=tag)"|{LITERAL}|'(?:[^'\\\n]|\\.)'|//[^\n]*|/\*.*?\*/''', re.DOTALL)


def literals(code: str) -> list[str]:
    """The texts in C++ code; those that follow each other directly are one."""
    texts: list[str] = []
    end = None  # of the text before
    for token in TOKEN.finditer(code):
        text = token["raw"] if token["text"] is None else unescaped(token["text"])
        if text is None:
            continue
        if end is not None and code[end:token.start()].isspace():
            texts[-1] += text
        else:
            texts.append(text)
        end = token.end()
    return texts


def unescaped(text: str) -> str:
    """What the compiler makes of the text between quotes. Python has the same escapes."""
    return ast.literal_eval(f'"{text}"')


@cache
def keys() -> list[str]:
    """The English texts by which the program asks."""
    return _arrays("KEYS")["KEYS"]


@cache
def tables() -> dict[str, list[str]]:
    """The texts of each language, parallel to the keys, by its code."""
    texts = _arrays(r"VALUES_\w+")
    return {code: texts[f"VALUES_{code}"] for code in native_names()}


@cache
def native_names() -> dict[str, str]:
    """What each language calls itself, by its code."""
    return dict(re.findall(rf'\{{"(\w+)", {LITERAL}, (?:true|false), VALUES_\1\}}', TABLES.read_text()))


def _arrays(name: str) -> dict[str, list[str]]:
    return {name: literals(body) for name, body in re.findall(rf"({name})\[\] = \{{(.*?)\n\}};", TABLES.read_text(), re.DOTALL)}


def fixed_texts() -> list[str]:
    """All texts of the sources beside the tables."""
    files = [*SOURCES.glob("*.cpp"), *SOURCES.glob("*.h")]
    return [text for file in sorted(files) if file != TABLES for text in literals(file.read_text())]
