"""Finding where a statement ends in text that comes line by line."""

import re
from typing import Iterator, List

# What may hide a semicolon, and what ends it. A doubled quote ends its text and begins the next.
_CLOSING = {"'": "'", '"': '"', "`": "`", "[": "]", "/*": "*/"}
_TOKEN = re.compile(r"--[^\n]*|/\*|['\"`\[]|;|\w+|\S")


class Splitter:
    """Takes lines, gives statements.

    A statement ends with its semicolon; that of a trigger follows END. A procedure holds statements
    of its own and goes on to a line with nothing but "/", or at a terminal to an empty one.
    """

    def __init__(self, interactive: bool = False) -> None:
        self.interactive = interactive
        self.clear()

    def clear(self) -> None:
        self.lines: List[str] = []
        self.words: List[str] = []  # the first of the statement
        self.last_two = ("", "")
        self.closing = ""

    @property
    def is_empty(self) -> bool:
        """Whether there is nothing yet but blanks and comments."""
        return not self.words and not self.closing

    @property
    def kind(self) -> str:
        head = " ".join(word for word in self.words
                        if word not in ("OR", "REPLACE", "TEMP", "TEMPORARY"))
        return head if head in ("CREATE PROCEDURE", "CREATE TRIGGER") else ""

    def feed(self, line: str) -> Iterator[str]:
        if not self.closing and not self.is_empty and self.kind == "CREATE PROCEDURE":
            if line.strip() == "/" or (self.interactive and not line.strip()):
                yield from self.finish()
                return
        start = position = 0
        while position < len(line):
            if self.closing:
                end = line.find(self.closing, position)
                if end < 0:
                    break
                position = end + len(self.closing)
                self.closing = ""
                continue
            match = _TOKEN.search(line, position)
            if not match:
                break
            token, position = match.group(), match.end()
            if token.startswith("--"):
                continue
            if token == ";" and self.ends_here():
                self.lines.append(line[start:position])
                yield from self.finish()
                start = position
                continue
            self.closing = _CLOSING.get(token, "")
            if token == "/*":
                continue
            self.last_two = (self.last_two[1], token.upper())
            if len(self.words) < 4 and token != ";" and not self.kind:
                self.words.append(token.upper())
        self.lines.append(line[start:])

    def ends_here(self) -> bool:
        if self.kind == "CREATE TRIGGER":
            return self.last_two == (";", "END")
        return self.kind != "CREATE PROCEDURE"

    def finish(self) -> Iterator[str]:
        """What there is, as a statement; nothing when it is only blanks and comments."""
        text, is_empty = "".join(self.lines).strip(), self.is_empty
        self.clear()
        if not is_empty:
            yield text
