"""Running statements and the shell's own commands, from a terminal, a pipe or a file."""

import contextlib
import io
import re
import shlex
import sys
import time
from typing import Any, Dict, Iterable, Optional, Sequence, Type

from .. import dbapi
from ..display import printable, tell
from ..masking import Mask
from ..statements import Splitter
from . import commands
from .destination import Destination
from ..dialects import SQLITE, dialect_of
from .failure import Failure
from .formats import Blocks, Columns, Csv, Json, Markdown
from .interrupts import Interrupts
from .pager import PagerLeft
from .table import Record, Table

FORMATS: Dict[str, Type[Any]] = {"table": Table, "record": Record, "csv": Csv, "json": Json,
                                 "markdown": Markdown}
FOR_PEOPLE = ("table", "record")
MOST_ROWS = 1024  # of a block

# A statement that does something before its rows are read. Elsewhere the words do no harm.
CHANGES = re.compile(r"\b(RETURNING|CALL|EXEC(UTE)?)\b", re.IGNORECASE)


def plural(count: int, noun: str) -> str:
    return "%s %s%s" % (format(count, ","), noun, "" if count == 1 else "s")


class Session:
    """A connection and how its results are shown. Commands and statements raise Failure or
    dbapi.Error."""

    def __init__(self, connection: dbapi.Connection, style: str, mask: Mask) -> None:
        self.connection, self.mask = connection, mask
        self.set_style(style)
        self.timer: Optional[bool] = None  # None: with results for people
        self.destination = Destination()
        self.dialect = dialect_of(connection)
        self.interrupts = Interrupts(connection)
        self.depth = 0  # of files that read files
        self.is_interactive = False
        self.generation = 0  # of what the database holds, as far as is known here
        self.begin()

    def close(self) -> None:
        with self.interrupts.ignored():
            self.destination.close()
            if self.connection.in_transaction:
                self.note("note: the transaction was not committed, and is rolled back.")
            self.connection.close()

    def set_style(self, style: str) -> None:
        """How results are written; for other programs in UTF-8, whatever the locale is."""
        self.style = style
        if isinstance(sys.stdout, io.TextIOWrapper):
            if style in FOR_PEOPLE or sys.stdout.isatty():
                sys.stdout.reconfigure(errors="backslashreplace")
            else:
                sys.stdout.reconfigure(encoding="utf-8", newline="\n")

    def say(self, text: str, seconds: Optional[float] = None) -> None:
        """Words about a result, which have no place in data for other programs."""
        if seconds is not None and self.timer is not False:
            text += ", %.3f s" % seconds
        text = "(%s)" % text
        if self.style in FOR_PEOPLE:
            print(printable(text, sys.stdout.encoding.lower(), "\n"))
        elif self.timer and seconds is not None:
            self.note(text)
        sys.stdout.flush()

    def note(self, text: str) -> None:
        sys.stdout.flush()
        tell(self.mask(text), sys.stderr)

    # --- statements

    def begin(self) -> None:
        """Nothing of what is to run has happened yet."""
        self.rows = 0  # of the result that is being written
        self.has_ended = False  # what was run last, with no rows to come
        self.stays = False  # what it has done, whether its rows are read or not
        self.was_open = self.is_interactive and self.connection.in_transaction

    def execute(self, sql: str) -> None:
        start = time.monotonic()
        self.begin()
        # Before the next prompt a result that was not read to its end has no locks any more.
        with contextlib.closing(self.connection.cursor()) as cursor:
            self.interrupts.call(self.start, cursor, sql)
            columns = cursor.description
            if columns is not None:
                self.show(columns, self.blocks(cursor), start)
            else:
                # A call does not tell how many rows its statements changed.
                is_counted = cursor.rowcount >= 0 and not sql.upper().startswith("EXEC")
                done = "%s changed" % plural(cursor.rowcount, "row") if is_counted else "done"
                self.generation += 1
                self.say(done, time.monotonic() - start)
        self.was_open = False

    def start(self, cursor: dbapi.Cursor, sql: str) -> None:
        self.has_ended = cursor.execute(sql).description is None
        self.stays = bool(CHANGES.search(sql))

    def blocks(self, cursor: dbapi.Cursor) -> Blocks:
        """The first row by itself, which may come long before the others, then more and more."""
        size = 1
        while True:
            block = cursor.fetchmany(size)
            if not block:
                return
            yield block
            size = min(2 * size, MOST_ROWS)

    def counted(self, blocks: Blocks) -> Blocks:
        for block in blocks:
            yield block
            self.rows += len(block)

    def show(self, columns: Columns, blocks: Blocks, start: Optional[float] = None) -> None:
        """Writes a result to where results go."""
        if self.style == "json" and self.destination.results and not self.destination.is_screen:
            raise Failure("this is a second result, and --json writes one document:"
                          " run it on its own")
        try:
            with self.destination.opened() as target:
                FORMATS[self.style](target).show(columns, self.counted(blocks))
                seconds = time.monotonic() - start if start else None
        except PagerLeft:
            self.say("left after " + plural(self.rows, "row"))
            return
        except OSError as error:
            if isinstance(error, BrokenPipeError):
                raise
            raise Failure("the result cannot be written: %s" % error.strerror) from error
        self.say(plural(self.rows, "row"), seconds)

    def show_rows(self, names: Sequence[str], rows: Sequence[Sequence[Any]]) -> None:
        """A result that a command has made."""
        self.begin()
        columns = [(name, int if rows and all(type(row[i]) is int for row in rows) else str)
                   for i, name in enumerate(names)]
        self.show(columns, iter([list(rows)] if rows else []))

    def stopped(self, interrupt: KeyboardInterrupt) -> str:
        """What Ctrl-C came to."""
        if self.has_ended:
            return "(Ctrl-C came too late: the statement has run to its end)"
        after = " after " + plural(self.rows, "row") if self.rows else ""
        words = "what the statement did stays" if self.stays else str(interrupt)
        return "(stopped%s%s)" % (after, ": " + words if words else "")

    def tell_of_transaction(self) -> None:
        """SQLite, for one, ends a transaction when a statement in it is interrupted."""
        if self.was_open and not self.connection.in_transaction:
            self.note("note: the transaction is over%s."
                      % (", and all of it rolled back" if self.dialect is SQLITE else ""))

    # --- text

    def run_command(self, line: str) -> None:
        hint = commands.hint(line)
        if hint:
            raise Failure("there is no command %s; %s" % (line.split()[0], hint))
        try:
            words = shlex.split(line)
        except ValueError as error:
            raise Failure("%s: %s" % (line.strip(), error)) from None
        command = commands.BY_NAME.get(words[0])
        if command is None:
            raise Failure("there is no command %s; .help lists them" % words[0])
        command.call(self, words[1:])

    def splitter(self, interactive: bool = False) -> Splitter:
        return Splitter(interactive, self.dialect.syntax)

    def run_lines(self, lines: Iterable[str], source: str = "") -> None:
        """Runs what the lines hold, up to the first failure, whose message then names the place."""
        splitter = self.splitter()
        number = begin = 0
        try:
            for line in lines:
                number += 1
                begin = number if splitter.is_empty else begin
                if splitter.is_empty and line.lstrip()[:1] in (".", "\\"):
                    self.run_command(line)
                    continue
                for statement in splitter.feed(line):
                    self.execute(statement)
                    begin = number
            for statement in splitter.finish():
                self.execute(statement)
        except UnicodeDecodeError as error:
            raise Failure("%s: after line %d: not valid UTF-8" % (source, number)) from error
        except (Failure, dbapi.Error) as error:
            raise Failure("%s:%d: %s" % (source, begin, error) if source else str(error)) from error
