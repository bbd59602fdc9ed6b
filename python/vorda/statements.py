"""Finding where a statement ends in text that comes line by line."""

import re
from typing import Dict, FrozenSet, Iterator, List, NamedTuple, Optional, Pattern, Tuple


class Syntax(NamedTuple):
    """How a database reads a text, as far as it decides where a statement ends."""

    token: str
    escapes: FrozenSet[str] = frozenset()  # what opens a text in which \ hides a quote
    nested: bool = False  # comments
    has_delimiter: bool = False  # DELIMITER, as a line, says what ends the statements behind it
    # Kinds of statements that hold others: up to a line that is only "/", or, where these words
    # stand in them, up to END behind a semicolon.
    slashed: FrozenSet[str] = frozenset()
    bodies: Dict[str, Tuple[str, ...]] = {}


SQLITE = Syntax(r"--[^\n]*|/\*|['\"`\[]|;|\w+|\S", slashed=frozenset({"CREATE PROCEDURE"}),
                bodies={"CREATE TRIGGER": ("BEGIN",)})
POSTGRESQL = Syntax(
    r"--[^\n]*|/\*|[eE]'|['\"]|(?<![\w$])\$(?:[^\W\d]\w*)?\$|;|\w+|\S",
    escapes=frozenset({"e'", "E'"}), nested=True,
    bodies=dict.fromkeys(("CREATE FUNCTION", "CREATE PROCEDURE"), ("BEGIN", "ATOMIC")))
# What stands in /*! */ is executed.
MARIADB = Syntax(r"--(?=\s|\Z)[^\n]*|\#[^\n]*|/\*M?!|/\*|['\"`]|;|\w+|\S",
                 escapes=frozenset({"'", '"'}), has_delimiter=True,
                 slashed=frozenset({"CREATE PROCEDURE"}), bodies={"CREATE TRIGGER": ("BEGIN",)})

_CLOSING = {"'": "'", '"': '"', "`": "`", "[": "]", "e'": "'", "E'": "'"}
_DELIMITER = re.compile(r"\s*DELIMITER\s+(\S+)\s*", re.IGNORECASE)
_HEADS = ("CREATE FUNCTION", "CREATE PROCEDURE", "CREATE TRIGGER")


class Splitter:
    """Takes lines, gives statements.

    A statement ends with its semicolon, unless the database reads it otherwise. A procedure that
    holds statements of its own goes on to a line with nothing but "/", or at a terminal to an empty
    one.
    """

    def __init__(self, interactive: bool = False, syntax: Syntax = SQLITE) -> None:
        self.interactive, self.syntax = interactive, syntax
        self.delimit(";")
        self.clear()

    def delimit(self, delimiter: str) -> None:
        self.delimiter = delimiter
        self.token = re.compile(re.escape(delimiter) + "|" + self.syntax.token)

    def clear(self) -> None:
        self.lines: List[str] = []
        self.words: List[str] = []  # the first of the statement
        self.last_two = ("", "")
        self.closing: Optional[Pattern[str]] = None
        self.depth = 0  # of comments in comments
        self.has_body = False

    @property
    def is_empty(self) -> bool:
        """Whether there is nothing yet but blanks and comments."""
        return not self.words and not self.closing

    @property
    def kind(self) -> str:
        head = " ".join(word for word in self.words
                        if word not in ("OR", "REPLACE", "TEMP", "TEMPORARY"))
        return head if head in _HEADS else ""

    @property
    def is_slashed(self) -> bool:
        """Whether the statement goes on to a line that is only "/"."""
        return self.kind in self.syntax.slashed and self.delimiter == ";"

    def feed(self, line: str) -> Iterator[str]:
        if not self.closing and not self.is_empty and self.is_slashed:
            if line.strip() == "/" or (self.interactive and not line.strip()):
                yield from self.finish()
                return
        if self.is_empty and self.syntax.has_delimiter:
            delimiter = _DELIMITER.fullmatch(line)
            if delimiter:
                self.clear()
                self.delimit(delimiter[1])
                return
        start = position = 0
        while position < len(line):
            if self.closing:
                end = self.closing.search(line, position)
                if not end:
                    break
                position = end.end()
                self.close(end.group())
                continue
            match = self.token.search(line, position)
            if not match:
                break
            token, position = match.group(), match.end()
            if token == self.delimiter and self.ends_here():
                self.lines.append(line[start:position if token == ";" else match.start()])
                yield from self.finish()
                start = position
            elif not token.startswith(("--", "#") if self.syntax.has_delimiter else "--"):
                self.take(token)
        self.lines.append(line[start:])

    def close(self, found: str) -> None:
        """Something that may end a text or comment was found."""
        if found == "/*":
            self.depth += 1
        elif self.depth:
            self.depth -= 1
        elif not found.startswith("\\"):
            self.closing = None

    def take(self, token: str) -> None:
        if token == "/*":
            self.closing = re.compile(r"\*/|/\*" if self.syntax.nested else r"\*/")
            return
        if token in _CLOSING or (len(token) > 1 and token[0] == token[-1] == "$"):
            pattern = re.escape(_CLOSING.get(token, token))
            if token in self.syntax.escapes:
                pattern = r"\\.|" + pattern
            self.closing = re.compile(pattern, re.DOTALL)
        self.last_two = (self.last_two[1], token.upper())
        if len(self.words) < 4 and token != ";" and not self.kind:
            self.words.append(token.upper())
        body = self.syntax.bodies.get(self.kind)
        if body and self.last_two[-len(body):] == body:
            self.has_body = True

    def ends_here(self) -> bool:
        if self.delimiter != ";":
            return True
        if self.has_body:
            return self.last_two == (";", "END")
        return not self.is_slashed

    def finish(self) -> Iterator[str]:
        """What there is, as a statement; nothing when it is only blanks and comments."""
        text, is_empty = "".join(self.lines).strip(), self.is_empty
        self.clear()
        if not is_empty:
            yield text
