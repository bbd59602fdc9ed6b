"""Running statements and the shell's own commands, from a terminal, a pipe or a file."""

import contextlib
import os
import re
import shlex
import sys
import time
import warnings
from typing import Any, Callable, Dict, Iterable, Iterator, List, NamedTuple, Optional, Tuple

from . import history, importer, zelqa
from .dialects import SQLITE, Dialect, dialect_of
from .display import printable, tell
from .interrupts import Interrupts
from .masking import Mask
from .output import FORMATS
from .statements import Splitter

PROMPT, CONTINUED = "vorda> ", "  ...> "
SHOWN_WARNINGS = 5
MAX_DEPTH = 20  # of files that read files

# Where a catalogue keeps what it knows: the name that is asked for, the text, the table.
CATALOGUES = (
    ("tbl_name", "sql", "sqlite_master"),
    ("tbl_name", "sql", "sqlite_temp_master"),
    ("ProcedureName", "Definition", "sys_procedures"),
)
PLAIN_COMMANDS = {"help": ".help", "quit": ".quit", "exit": ".quit"}
# What other shells know, and where it is here.
HINTS = {"clear": "Ctrl-L clears the screen", "cls": "Ctrl-L clears the screen",
         "\\q": ".quit leaves",
         "\\i": ".read FILE runs the statements of a file", "\\?": ".help lists the commands"}
BACKSLASH = ".tables lists tables, .schema NAME shows one, .help has the rest"
END = object()
PIECE = 500  # characters of a text that arrive whole whatever their size in bytes

# Statements that run, but whose rows cannot be had.
NO_ROWS = {
    "WITH": "SELECT * FROM (WITH ...)",
    "VALUES": "SELECT * FROM (VALUES ...)",
    "PRAGMA": "SELECT * FROM pragma_NAME(...)",
    "EXPLAIN": "",
}


NO_CATALOGUE = ("this command knows SQLite's catalogue, and .tables those of PostgreSQL, MariaDB"
                " and MySQL too; ask this database by its own statements")


class Failure(Exception):
    """What a user did wrong, in words for the screen."""


class Command(NamedTuple):
    run: Callable[[List[str]], None]
    arguments: Tuple[int, int]  # least and most
    usage: str
    help: str


def plural(count: int, noun: str) -> str:
    return "%s %s%s" % (format(count, ","), noun, "" if count == 1 else "s")


class Warnings:
    """Collects the module's warnings of one statement: the first few, and how many there were."""

    def __init__(self) -> None:
        self.first: List[str] = []
        self.count = 0
        self.place = ""

    def __call__(self, message: Any, *_: Any, **__: Any) -> None:
        self.count += 1
        if len(self.first) < SHOWN_WARNINGS:
            self.first.append(self.place + str(message))


def hint(line: str) -> str:
    """Words about a command of another shell, or nothing."""
    word = (line.split() or [""])[0].rstrip(";").lower()
    return HINTS.get(word, BACKSLASH if word.startswith("\\") else "")


class Session:
    """A connection and how its results are shown. Commands and statements raise Failure or
    zelqa.Error."""

    def __init__(self, connection: zelqa.Connection, style: str, mask: Mask) -> None:
        self.connection = connection
        self.style = style
        self.mask = mask
        self.depth = 0
        self.is_one_document = style == "json"
        self.results = 0
        self.rows = 0  # of the result that is being written
        self.running = ""  # the statement
        self.has_ended = False  # the statement, with no rows to come
        self.description: Any = None
        self.warnings = Warnings()
        self.interrupts = Interrupts()
        self.known_dialect: Optional[Dialect] = None
        self.commands: Dict[str, Command] = {
            ".tables": Command(self.tables, (0, 0), "", "the tables and views"),
            ".schema": Command(self.schema, (0, 1), "[NAME]",
                               "the statements that made a table, view or procedure"),
            ".read": Command(self.read, (1, 1), "FILE", "run the statements of a file"),
            ".import": Command(self.import_file, (2, 3), "[--empty-text] FILE.csv TABLE",
                               "add a file's rows, all or none; an empty field is NULL, or a text"),
            ".help": Command(self.help, (0, 0), "", "this list"),
            ".quit": Command(self.quit, (0, 0), "", "leave; so does Ctrl-D"),
        }

    def say(self, text: str) -> None:
        """Words about a result, which have no place in data for other programs."""
        if self.style == "table":
            print(printable(text, sys.stdout.encoding.lower(), "\n"))

    def note(self, text: str) -> None:
        sys.stdout.flush()
        tell(self.mask(text), sys.stderr)

    def ask(self, sql: str, *parameters: Any) -> List[Tuple[Any, ...]]:
        def rows() -> List[Tuple[Any, ...]]:
            return [tuple(row) for row in self.connection.execute(sql, *parameters)]

        return list(self.interrupts.call(rows))

    @property
    def dialect(self) -> Dialect:
        if self.known_dialect is None:
            self.known_dialect = dialect_of(self.connection)
        return self.known_dialect

    # --- statements

    @contextlib.contextmanager
    def warnings_shown(self) -> Iterator[None]:
        seen = self.warnings = Warnings()
        with warnings.catch_warnings():
            warnings.simplefilter("always")
            warnings.showwarning = seen
            try:
                yield
            finally:
                for text in seen.first:
                    self.note("warning: " + text)
                if seen.count > len(seen.first):
                    self.note("warning: and %d more" % (seen.count - len(seen.first)))

    def start(self, sql: str) -> zelqa.Cursor:
        cursor = self.connection.execute(sql)
        self.description = cursor.description
        self.has_ended = cursor.description is None
        return cursor

    def fetched(self, rows: Iterator[Any]) -> Iterator[Any]:
        """The rows. What other programs read is whole, or ends with an error."""
        known = self.warnings.count
        while True:
            self.warnings.place = "row %d: " % (self.rows + 1)
            row = self.interrupts.call(next, rows, END)
            if row is END:
                return
            if self.style != "table" and self.warnings.count > known:
                raise Failure("row %d is not whole and is not written; substr(COLUMN, 1, 500) and"
                              " so on read a long text in pieces" % (self.rows + 1))
            self.rows += 1
            yield row

    def execute(self, sql: str) -> None:
        self.rows, self.running, self.has_ended, self.description = 0, sql, False, None
        start = time.monotonic()
        with self.warnings_shown(), self.interrupts:
            try:
                cursor = self.interrupts.call(self.start, sql)
            except UnicodeEncodeError as error:
                raise Failure("the statement is not valid text (%s)" % error.reason) from error
            if self.description is not None:
                self.results += 1
                if self.is_one_document and self.results > 1:
                    raise Failure("this is a second result, and --json writes one document:"
                                  " run it on its own")
                FORMATS[self.style](sys.stdout).write(self.description, self.fetched(cursor))
                done = plural(self.rows, "row")
            else:
                # A call does not tell how many rows its statements changed.
                is_counted = cursor.rowcount >= 0 and not sql.upper().startswith("EXEC")
                done = "%s changed" % plural(cursor.rowcount, "row") if is_counted else "done"
        self.say("(%s, %.3f s)" % (done, time.monotonic() - start))
        sys.stdout.flush()
        self.running, self.has_ended = "", False
        if cursor.description is None:
            self.explain_no_rows(sql)

    def stopped(self, interrupt: KeyboardInterrupt) -> str:
        """What Ctrl-C came to."""
        if self.has_ended:
            return "(Ctrl-C came too late: the statement has run to its end)"
        after = " after " + plural(self.rows, "row") if self.running and self.rows else ""
        text = "(stopped%s%s)" % (after, ": %s" % interrupt if str(interrupt) else "")
        if self.running and not self.running.upper().startswith("SELECT"):
            with self.interrupts.ignored():
                text += "\nnote: " + self.transaction_now()
        return text

    def transaction_now(self) -> str:
        """What an interrupted statement has left of a transaction: SQLite ends some as a whole."""
        if self.dialect is not SQLITE:
            return "a transaction that was open may have been rolled back as a whole."
        try:
            for statement in ("BEGIN", "COMMIT"):
                self.connection.execute(statement)
        except zelqa.Error:
            return "the transaction is still open."
        return "no transaction is open now."

    def explain_no_rows(self, sql: str) -> None:
        plain = re.sub(r"--[^\n]*|/\*.*?\*/|'[^']*'", " ", sql, flags=re.DOTALL)
        words = re.findall(r"\w+", plain.upper())
        first = words[0] if words else ""
        if first in NO_ROWS or "RETURNING" in words:
            instead = NO_ROWS.get(first)
            self.note("note: rows come only from SELECT, EXECUTE and EXEC; what this statement"
                      " yields is not shown."
                      + (" Write: " + instead if instead else ""))

    def release(self) -> None:
        """Ends a result that is not read to its end: it holds no lock while nobody looks."""
        self.running, self.has_ended = "", False
        with contextlib.suppress(zelqa.Error), self.interrupts.ignored():
            self.connection.execute("SELECT 1 WHERE 1 = 0").fetchall()

    # --- commands

    def run_command(self, line: str) -> None:
        if hint(line):
            raise Failure("there is no command %s; %s" % (line.split()[0], hint(line)))
        try:
            words = shlex.split(line)
        except ValueError as error:
            raise Failure("%s: %s" % (line.strip(), error)) from None
        command = self.commands.get(words[0])
        if command is None:
            raise Failure("there is no command %s; .help lists them" % words[0])
        least, most = command.arguments
        if not least <= len(words) - 1 <= most:
            raise Failure(("usage: %s %s" % (words[0], command.usage)).rstrip())
        command.run(words[1:])

    def help(self, _: List[str]) -> None:
        for name, command in self.commands.items():
            print(("%s %s" % (name, command.usage)).rstrip() + "\n    " + command.help)
        print("A statement may take several lines and ends with a semicolon; CREATE PROCEDURE\n"
              "ends with a line that holds only /, or here with an empty line. Ctrl-C stops a\n"
              "result or a half-typed statement.")

    def quit(self, _: List[str]) -> None:
        raise EOFError

    def tables(self, _: List[str]) -> None:
        if not self.dialect.tables:
            raise Failure(NO_CATALOGUE)
        self.execute(self.dialect.tables)

    def schema(self, names: List[str]) -> None:
        if self.dialect is not SQLITE:
            raise Failure(NO_CATALOGUE)
        found = False
        with self.interrupts:
            for text in self.definitions(names):
                if sys.stdout.isatty():
                    text = printable(text, sys.stdout.encoding.lower(), "\n\t")
                print(text)
                found = True
        if names and not found:
            raise Failure("there is no table, view or procedure %s; .tables lists them" % names[0])

    def definitions(self, names: List[str]) -> Iterator[str]:
        for column, text, table in CATALOGUES:
            key_column, end = ("rowid", ";") if column == "tbl_name" else (column, "\n/")
            where = " AND lower(%s) = lower(?)" % column if names else ""
            try:
                entries = self.ask(
                    "SELECT %s, length(%s) FROM %s WHERE length(%s) > 0%s ORDER BY %s"
                    % (key_column, text, table, text, where, key_column), names)
            except zelqa.Error:
                if table != "sys_procedures":  # which is there once there was a procedure
                    raise
                return
            for key, length in entries:
                yield "".join(self.ask("SELECT substr(%s, ?, %d) FROM %s WHERE %s = ?" % (
                    text, PIECE, table, key_column), start, key)[0][0]
                    for start in range(1, int(length) + 1, PIECE)) + end

    def read(self, arguments: List[str]) -> None:
        path = os.path.expanduser(arguments[0])
        if self.depth >= MAX_DEPTH:
            raise Failure("%s: files that read files go %d deep at most" % (path, MAX_DEPTH))
        self.depth += 1
        try:
            with open(path, encoding="utf-8-sig") as file:
                self.run_lines(file, path)
        except OSError as error:
            raise Failure("%s: %s" % (path, error.strerror)) from error
        finally:
            self.depth -= 1

    def import_file(self, arguments: List[str]) -> None:
        empty_text = "--empty-text" in arguments
        names = [argument for argument in arguments if argument != "--empty-text"]
        if len(names) != 2:
            raise Failure("usage: .import " + self.commands[".import"].usage)
        path, table = os.path.expanduser(names[0]), names[1]
        start = time.monotonic()
        try:
            with self.interrupts:
                importing = importer.Importer(self.connection, self.interrupts, empty_text)
                count = importing.run(path, table)
        except OSError as error:
            raise Failure("%s: %s" % (path, error.strerror)) from error
        except importer.ImportFailed as error:
            raise Failure("%s: %s; nothing is imported" % (path, error)) from error
        self.say("(%s imported, %.3f s)" % (plural(count, "row"), time.monotonic() - start))

    # --- sources of lines

    def run_lines(self, lines: Iterable[str], source: str = "") -> None:
        """Runs what the lines hold, up to the first failure, whose message then names the place."""
        splitter = Splitter()
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
        except (Failure, zelqa.Error) as error:
            raise Failure("%s:%d: %s" % (source, begin, error) if source else str(error)) from error

    def interact(self) -> None:
        """Reads from the terminal until Ctrl-D or .quit. Neither Ctrl-C nor a failure ends it."""
        splitter = Splitter(interactive=True)
        self.is_one_document = False
        with history.kept():
            while True:
                try:
                    self.step(splitter)
                except EOFError:
                    print()
                    return
                except KeyboardInterrupt as interrupt:
                    # A second Ctrl-C, in impatience, must not end the shell.
                    with self.interrupts.ignored():
                        splitter.clear()
                        print()
                        self.note(self.stopped(interrupt))
                        self.release()

    def step(self, splitter: Splitter) -> None:
        """One line from the terminal."""
        try:
            line = input(PROMPT if splitter.is_empty else CONTINUED)
            word = line.strip().rstrip("; ").lower()
            if splitter.is_empty and (line.lstrip()[:1] in (".", "\\")
                                      or word in {*PLAIN_COMMANDS, *HINTS}):
                self.run_command(PLAIN_COMMANDS.get(word, line))
                return
            if not splitter.is_empty and word in {*PLAIN_COMMANDS, *self.commands}:
                self.note("note: this is inside a statement, which ends with ; and is dropped"
                          " with Ctrl-C.")
            was_procedure = splitter.kind == "CREATE PROCEDURE"
            for statement in splitter.feed(line + "\n"):
                self.execute(statement)
            if splitter.kind == "CREATE PROCEDURE" and not was_procedure:
                print("(an empty line ends the procedure)")
        except UnicodeDecodeError:
            self.note("error: the line is not text in the encoding of this terminal, %s"
                      % sys.stdin.encoding)
        except (Failure, zelqa.Error) as error:
            splitter.clear()
            self.note("error: %s" % error)
            self.note_help(error)
            self.release()

    def note_help(self, error: BaseException) -> None:
        if "Binary type not supported" not in str(error):
            return
        names = [column[0] for column in self.description or () if column[1] is bytearray]
        self.note("note: %s; %s reads a binary column as text." % (
            "the binary column is " + ", ".join(map(repr, names)) if names else "one is binary",
            self.dialect.binary % (names[0] if len(names) == 1 else "COLUMN")))
