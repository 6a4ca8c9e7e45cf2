"""Finds what can be changed in a C++ source: small faults as a person might make them, each of which some test should notice.

It looks at tokens, not at meaning, so some mutants are no C++; the compiler tells. Left alone are comments, texts, preprocessor lines,
static_assert, and sizes of char buffers, which are generous on purpose.
"""

from __future__ import annotations

import bisect
import hashlib
import re
from collections.abc import Callable, Iterator
from dataclasses import dataclass

TOKEN = re.compile(r"""
    (?P<skip> \s+ | //[^\n]* | /\*.*?\*/ | (?:(?<=\n)|\A)[ \t]*\#(?:[^\n\\]|\\.)* )
  | (?P<text> (?:u8|[uUL])?R"(?P<mark>[^(]*)\(.*?\)(?P=mark)" | (?:u8|[uUL])?"(?:[^"\\\n]|\\.)*" | (?:u8|[uUL])?'(?:[^'\\\n]|\\.)+' )
  | (?P<number> \.?\d(?:[eEpP][+-]|'?[\w.])* )
  | (?P<name> [A-Za-z_]\w* )
  | (?P<sign> <=>|<<=|>>=|\.\.\.|->\*|::|->|\+\+|--|<<|>>|<=|>=|==|!=|&&|\|\||[-+*/%&|^]=|. )
""", re.VERBOSE | re.DOTALL)

NOT = {"<": ">=", ">": "<=", "<=": ">", ">=": "<", "==": "!=", "!=": "=="}
AT_THE_BOUNDARY = {"<": "<=", ">": ">=", "<=": "<", ">=": ">"}
ARITHMETIC = {"+": "-", "-": "+", "*": "/", "/": "*", "%": "*", "<<": ">>", ">>": "<<", "&": "|", "|": "&",
              "+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=", "&=": "|=", "|=": "&="}
STEPS = {"++": "--", "--": "++"}
LOGICAL = {"&&": "||", "||": "&&"}
WORDS = {"true": "false", "false": "true"}

OPENING, CLOSING = "([{", ")]}"
# What begins something that is no expression
OTHER_STATEMENTS = frozenset("""if for while switch case default do try catch return using namespace class struct enum union template static
    const constexpr inline auto public private protected else goto typedef extern void bool char int double float unsigned signed long
    short explicit virtual friend operator throw static_assert""".split())
TRIVIAL_RESULTS = ("", "{}", "nullptr", "false", "0")
FLOAT = re.compile(r"\d+\.\d*(e[+-]?\d+)?", re.IGNORECASE)
INTEGER = re.compile(r"(0x[0-9a-f]+|\d+)([ul]*)", re.IGNORECASE)


@dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int

    @property
    def end(self) -> int:
        return self.start + len(self.text)


@dataclass(frozen=True)
class Mutant:
    """One change of one file: what stands from start to end becomes `after`."""
    file: str
    line: int  # from 1
    start: int
    end: int
    operator: str
    before: str
    after: str
    declared: str  # what the declaration round it declares, if it stands outside of all functions
    key: str  # the same as long as the line is, wherever it moves to

    def applied_to(self, source: str) -> str:
        return source[:self.start] + self.after + source[self.end:]

    def __str__(self) -> str:
        before, after = (" ".join(text.split()) for text in (self.before, self.after))
        return f"{self.file}:{self.line}: {self.operator}: {before} -> {after or 'nothing'}"


def tokens_of(source: str) -> list[Token]:
    return [Token(str(match.lastgroup if match.lastgroup != "mark" else "text"), match.group(), match.start())
            for match in TOKEN.finditer(source) if match.lastgroup != "skip"]


class Source:
    """The tokens of one file, and which of them belong together."""

    def __init__(self, source: str) -> None:
        self.source = source
        self.tokens = tokens_of(source)
        self.partner: dict[int, int] = {}  # of each bracket
        self.in_code = [False] * len(self.tokens)  # in the body of a function
        self.is_statement = [False] * len(self.tokens)  # likewise, and in no bracket within it
        self._pair_brackets()

    def text(self, index: int) -> str:
        return self.tokens[index].text if 0 <= index < len(self.tokens) else ""

    def spaced(self, index: int) -> bool:
        """Whether blanks stand on both sides, as they do round operators of two sides, and not in `char*` or `vector<int>`."""
        token = self.tokens[index]
        return self.source[token.start - 1:token.start].isspace() and self.source[token.end:token.end + 1].isspace()

    def statement_end(self, index: int) -> int | None:
        """The semicolon that ends the statement beginning there, if no bracket around it closes first."""
        while index < len(self.tokens):
            text = self.text(index)
            if text == ";":
                return index
            if text in CLOSING:
                return None
            index = self.partner.get(index, index) + 1
        return None

    def between(self, first: int, last: int) -> str:
        """The source from one token to the one before another."""
        return self.source[self.tokens[first].start:self.tokens[last - 1].end] if last > first else ""

    def declared(self, index: int) -> str:
        """What the declaration round a token declares; empty in a function, and where no name is found."""
        if self.in_code[index]:
            return ""
        first = index
        while first > 0 and not self._begins_declaration(first):
            before = first - 1
            first = self.partner[before] if self.text(before) in CLOSING and before in self.partner else before
        name = ""
        for token in self.tokens[first:index]:
            if token.text in ("=", "{", "[", "("):
                break
            name = token.text if token.kind == "name" else name
        return name

    def _begins_declaration(self, index: int) -> bool:
        before = self.text(index - 1)
        if before == "{":
            scope = {self.text(i) for i in range(max(index - 8, 0), index - 1)}
            return bool(scope & {"namespace", "struct", "class", "enum", "union"}) and "=" not in scope
        return before in (";", "}") and self.text(index) != ";" or before == "," and self._is_enum(index)

    def _is_enum(self, index: int) -> bool:
        opening = max((first for first, last in self.partner.items() if self.text(first) == "{" and first < index < last), default=0)
        return "enum" in {self.text(i) for i in range(max(opening - 6, 0), opening)}

    def _pair_brackets(self) -> None:
        opened: list[tuple[int, bool]] = []
        for index, token in enumerate(self.tokens):
            if token.kind == "sign" and token.text in OPENING:
                opened.append((index, token.text == "{" and self._opens_code(index)))
            elif token.kind == "sign" and token.text in CLOSING and opened:
                first, _ = opened.pop()
                self.partner[first], self.partner[index] = index, first
            self.in_code[index] = any(code for _, code in opened)
            self.is_statement[index] = bool(opened) and opened[-1][1]

    def _opens_code(self, index: int) -> bool:
        return self.text(index - 2) == "->" or self.text(index - 1) in (")", "]", "}", "const", "noexcept", "override", "mutable", "else",
                                                                        "do", "try")


def mutants_of(file: str, source: str) -> list[Mutant]:
    found = Source(source)
    line_of = _line_finder(source)
    seen: dict[str, int] = {}
    result = []
    for index, (operator, start, end, after) in sorted(_changes(found), key=lambda change: change[1][1:]):
        line = line_of(start)
        text = source.splitlines()[line - 1]
        column = start - source.rfind("\n", 0, start) - len(text) + len(text.lstrip())
        name = f"{file}|{text.strip()}|{column}|{source[start:end]}|{after}"
        seen[name] = seen.get(name, 0) + 1
        key = hashlib.sha256(f"{name}|{seen[name]}".encode()).hexdigest()[:16]
        result.append(Mutant(file, line, start, end, operator, source[start:end], after, found.declared(index), key))
    return result


def _line_finder(source: str) -> Callable[[int], int]:
    ends = [match.start() for match in re.finditer("\n", source)]
    return lambda position: bisect.bisect_left(ends, position) + 1


Change = tuple[str, int, int, str]  # operator, start, end, what stands there then


def _changes(found: Source) -> Iterator[tuple[int, Change]]:
    """With the token at which each was found."""
    index = 0
    while index < len(found.tokens):
        token = found.tokens[index]
        if token.text == "static_assert":
            index = found.partner.get(index + 1, index) + 1
            continue
        yield from ((index, change) for change in _changes_at(found, index))
        index += 1


def _changes_at(found: Source, index: int) -> Iterator[Change]:
    token = found.tokens[index]
    if token.kind == "sign":
        yield from _changes_of_sign(found, index)
    elif token.kind == "number":
        yield from _changes_of_number(found, index)
    elif token.text in WORDS:
        yield "word", token.start, token.end, WORDS[token.text]
    elif token.text in ("if", "while"):
        yield from _negated(found, index)
    elif token.text == "return":
        yield from _result_replaced(found, index)
    if found.is_statement[index]:
        yield from _deleted(found, index)


def _changes_of_sign(found: Source, index: int) -> Iterator[Change]:
    token = found.tokens[index]
    if found.text(index - 1) in ("operator", "="):
        return
    if token.text in STEPS:
        yield "step", token.start, token.end, STEPS[token.text]
    elif token.text == "!" and found.text(index + 1) != "=":
        yield "negation", token.start, token.end, ""
    elif found.spaced(index):
        for operator, table in (("comparison", NOT), ("boundary", AT_THE_BOUNDARY), ("arithmetic", ARITHMETIC), ("logic", LOGICAL)):
            if token.text in table:
                yield operator, token.start, token.end, table[token.text]


def _changes_of_number(found: Source, index: int) -> Iterator[Change]:
    token = found.tokens[index]
    if found.text(index - 1) == "[" and found.text(index - 3) == "char":
        return
    if FLOAT.fullmatch(token.text):
        for other in (float(token.text) + 1, float(token.text) - 1):
            text = f"{other:.10}"  # as a float still where it is a whole number
            yield "constant", token.start, token.end, text if other >= 0 else f"({text})"
    elif match := INTEGER.fullmatch(token.text):
        is_octal = re.fullmatch("0[0-7]+", match[1])
        value = int(match[1], 8 if is_octal else 0)
        for other in (value + 1, value - 1):
            if other >= 0:
                yield "constant", token.start, token.end, f"{f'0{other:o}' if is_octal else other}{match[2]}"


def _negated(found: Source, index: int) -> Iterator[Change]:
    opening = index + 1
    if found.text(opening) != "(" or opening not in found.partner:
        return
    closing = found.partner[opening]
    semicolon = found.statement_end(opening + 1)
    first = semicolon + 1 if semicolon is not None and semicolon < closing else opening + 1
    if found.text(first) in ("const", "auto"):  # it declares what it asks for
        return
    condition = found.between(first, closing)
    yield "condition", found.tokens[first].start, found.tokens[closing].start, f"!({condition})"


def _result_replaced(found: Source, index: int) -> Iterator[Change]:
    end = found.statement_end(index + 1)
    if end is not None and found.between(index + 1, end) not in TRIVIAL_RESULTS:
        yield "result", found.tokens[index + 1].start, found.tokens[end].start, "{}"


def _deleted(found: Source, index: int) -> Iterator[Change]:
    """A whole statement: a call, an assignment, a jump."""
    token, before = found.tokens[index], found.text(index - 1)
    if token.text in OTHER_STATEMENTS or token.kind != "name" and token.text not in ("*", "(", "++", "--"):
        return
    is_first = before in (";", "{", "}", "else") or before == ")" and found.text(found.partner.get(index - 1, 0) - 1) in ("if", "for", "while")
    if not is_first:
        return
    end = found.statement_end(index)
    if end is None or end == index or not _is_expression(found, index, end):
        return
    yield "deletion", found.tokens[index].start, found.tokens[end].start, ""


def _is_expression(found: Source, index: int, end: int) -> bool:
    """Whether it is a call, an assignment or a jump. A declaration has a name behind its type."""
    if found.text(index) in ("break", "continue"):
        return index + 1 == end
    first, has_effect = index, False
    while index < end:
        text = found.text(index)
        if text == "=" or text in ARITHMETIC and text.endswith("=") or text in STEPS:
            return True
        has_effect = has_effect or text == "("
        last = found.partner.get(index, index)
        ends_type = found.tokens[last].kind == "name" or found.text(last) in ("*", "&", ">", ")")
        if ends_type and found.tokens[last + 1].kind == "name":
            return index == first and text in ("*", "delete")
        index = last + 1
    return has_effect
