"""Texts as a terminal shows them: how wide they are, what must be escaped, where to cut."""

import unicodedata
from typing import TextIO

_ESCAPED = {"\n": "\\n", "\r": "\\r", "\t": "\\t"}
_JOINERS = "\u200c\u200d"  # without them some scripts and pictures fall apart


def _character(char: str) -> str:
    category = unicodedata.category(char)
    if (category in ("Cc", "Cf", "Cs", "Zl", "Zp") and char not in _JOINERS) or category == "Cn":
        code = ord(char)
        form = "\\x%02x" if code < 0x100 else "\\u%04x" if code < 0x10000 else "\\U%08x"
        return _ESCAPED.get(char) or form % code
    return char


def printable(text: str, encoding: str = "utf-8", keep: str = "") -> str:
    """The text with all that would move the cursor, or that the encoding lacks, escaped."""
    if not text.isascii() or not text.isprintable():
        text = "".join(char if char in keep else _character(char) for char in text)
    if encoding != "utf-8":
        text = text.encode(encoding, "backslashreplace").decode(encoding)
    return text


class Screen:
    """A terminal, for output that is meant for programs."""

    def __init__(self, out: TextIO) -> None:
        self.out = out

    def write(self, text: str) -> None:
        self.out.write(printable(text, self.out.encoding.lower(), "\n"))


def tell(text: str, out: TextIO) -> None:
    """Words for people, wherever they go."""
    print(printable(text, (out.encoding or "utf-8").lower(), "\n"), file=out)


def _char_width(char: str) -> int:
    if unicodedata.category(char) in ("Mn", "Me") or char in _JOINERS:
        return 0
    return 2 if unicodedata.east_asian_width(char) in "WF" else 1


def width(text: str) -> int:
    return len(text) if text.isascii() else sum(map(_char_width, text))


def cut(text: str, columns: int, mark: str = "…") -> str:
    """The text, or as much of it as fits with the mark."""
    if width(text) <= columns:
        return text
    room, end = columns - width(mark), 0
    for end, char in enumerate(text):
        room -= _char_width(char)
        if room < 0:
            break
    return text[:end] + mark
