"""Running statements and the shell's own commands, from a terminal, a pipe or a file."""

import contextlib
import ctypes
import os
import re
import shlex
import signal
import sys
import threading
import time
import warnings
from typing import Any, Callable, Dict, Iterable, Iterator, List, NamedTuple, Tuple

from . import history, importer, zelqa
from .display import printable
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
PIECE = 500  # characters of a text that arrive whole whatever their size in bytes

# Statements that run, but whose rows cannot be had.
NO_ROWS = {
    "WITH": "SELECT * FROM (WITH ...)",
    "VALUES": "SELECT * FROM (VALUES ...)",
    "PRAGMA": "SELECT * FROM pragma_NAME(...)",
    "EXPLAIN": "",
}


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

    def __call__(self, message: Any, *_: Any, **__: Any) -> None:
        self.count += 1
        if len(self.first) < SHOWN_WARNINGS:
            self.first.append(str(message))


class Interrupts:
    """Lets Ctrl-C end a statement that the provider is busy with. The module holds the interpreter lock all
    the while, so the signal's number goes through a pipe to a thread that waits in the module."""

    def __init__(self) -> None:
        reader, self.writer = os.pipe()
        os.set_blocking(self.writer, False)
        watch = ctypes.CDLL(str(zelqa.__file__)).VordaCancelOnInterrupt
        threading.Thread(target=watch, args=(reader,), daemon=True).start()

    def __enter__(self) -> None:
        signal.set_wakeup_fd(self.writer, warn_on_full_buffer=False)

    def __exit__(self, *_: object) -> None:
        signal.set_wakeup_fd(-1)


class Session:
    """A connection and how its results are shown. Commands and statements raise Failure or zelqa.Error."""

    def __init__(self, connection: zelqa.Connection, style: str, mask: Mask, interactive: bool = False) -> None:
        self.connection = connection
        self.style = style
        self.mask = mask
        self.interactive = interactive
        self.depth = 0
        self.rows = 0  # of the result that is being written
        self.running = ""  # the statement
        self.interrupts = Interrupts()
        self.commands: Dict[str, Command] = {
            ".tables": Command(self.tables, (0, 0), "", "the tables and views"),
            ".schema": Command(self.schema, (0, 1), "[NAME]", "the statements that made a table, view or procedure"),
            ".read": Command(self.read, (1, 1), "FILE", "run the statements of a file"),
            ".import": Command(self.import_file, (2, 3), "[--empty-text] FILE.csv TABLE",
                               "add a file's rows, all or none; an empty field is NULL, or an empty text"),
            ".help": Command(self.help, (0, 0), "", "this list"),
            ".quit": Command(self.quit, (0, 0), "", "leave; so does Ctrl-D"),
        }

    def say(self, text: str) -> None:
        """Words about a result, which have no place in data for other programs."""
        if self.style == "table":
            print(printable(text, sys.stdout.encoding.lower(), "\n"))

    def note(self, text: str) -> None:
        sys.stdout.flush()
        print(printable(self.mask(text), sys.stderr.encoding.lower(), "\n"), file=sys.stderr)

    # --- statements

    @contextlib.contextmanager
    def warnings_shown(self) -> Iterator[None]:
        seen = Warnings()
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

    def counted(self, rows: Iterable[Any]) -> Iterator[Any]:
        for self.rows, row in enumerate(rows, 1):
            yield row

    def execute(self, sql: str) -> None:
        self.rows, self.running = 0, sql
        start = time.monotonic()
        with self.warnings_shown(), self.interrupts:
            cursor = self.connection.execute(sql)
            if cursor.description is not None:
                FORMATS[self.style](sys.stdout).write(cursor.description, self.counted(cursor))
                done = plural(self.rows, "row")
            else:
                done = "%s changed" % plural(cursor.rowcount, "row") if cursor.rowcount >= 0 else "done"
        self.say("(%s, %.3f s)" % (done, time.monotonic() - start))
        sys.stdout.flush()
        self.rows, self.running = 0, ""
        if cursor.description is None:
            self.explain_no_rows(sql)

    def explain_no_rows(self, sql: str) -> None:
        plain = re.sub(r"--[^\n]*|/\*.*?\*/|'[^']*'", " ", sql, flags=re.DOTALL)
        words = re.findall(r"\w+", plain.upper())
        first = words[0] if words else ""
        if first in NO_ROWS or "RETURNING" in words:
            instead = NO_ROWS.get(first)
            self.note("note: rows come only from SELECT, EXECUTE and EXEC; what this statement yields is not shown."
                      + (" Write: " + instead if instead else ""))

    def release(self) -> None:
        """Ends a result that is not read to its end, so that it holds no lock while nobody looks."""
        with contextlib.suppress(zelqa.Error):
            self.connection.execute("SELECT 1 WHERE 1 = 0").fetchall()

    # --- commands

    def run_command(self, line: str) -> None:
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
        try:
            self.execute("SELECT name, type FROM sqlite_master WHERE type IN ('table', 'view')"
                         " AND name NOT LIKE 'sqlite\\_%' ESCAPE '\\' UNION ALL"
                         " SELECT name, 'temporary ' || type FROM sqlite_temp_master"
                         " WHERE type IN ('table', 'view') ORDER BY name")
        except zelqa.Error as error:
            raise Failure(self.no_catalogue(error)) from None

    @staticmethod
    def no_catalogue(error: Exception) -> str:
        return "this provider keeps no catalogue that the shell knows (sqlite_master): %s" % error

    def schema(self, names: List[str]) -> None:
        found = False
        for column, text, table in CATALOGUES:
            where = " AND lower(%s) = lower(?)" % column if names else ""
            query = "SELECT rowid, length(%s) FROM %s WHERE length(%s) > 0%s ORDER BY rowid" % (
                text, table, text, where)
            if table == "sys_procedures":
                query = query.replace("rowid", column)
            try:
                entries = [tuple(row) for row in self.connection.execute(query, names)]
            except zelqa.Error as error:
                if table == CATALOGUES[0][2]:
                    raise Failure(self.no_catalogue(error)) from None
                continue
            for key, length in entries:
                key_column = column if table == "sys_procedures" else "rowid"
                pieces = [self.connection.execute(
                    "SELECT substr(%s, ?, %d) FROM %s WHERE %s = ?" % (text, PIECE, table, key_column),
                    start, key).fetchall()[0][0] for start in range(1, int(length) + 1, PIECE)]
                end = "\n/" if table == "sys_procedures" else ";"
                print(printable("".join(pieces) + end, sys.stdout.encoding.lower(), "\n\t"))
                found = True
        if names and not found:
            raise Failure("there is no table, view or procedure %s; .tables lists them" % names[0])

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
            with self.warnings_shown():
                count = importer.import_csv(self.connection, path, table, empty_text)
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
                if splitter.is_empty and line.lstrip().startswith("."):
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
        with history.kept():
            while True:
                try:
                    self.step(splitter)
                except EOFError:
                    print()
                    return
                except KeyboardInterrupt:
                    # A second Ctrl-C, in impatience, must not end the shell.
                    previous = signal.signal(signal.SIGINT, signal.SIG_IGN)
                    splitter.clear()
                    print("\n(stopped%s)" % (" after " + plural(self.rows, "row") if self.rows else ""))
                    if self.running and not self.running.upper().startswith("SELECT"):
                        self.note("note: a transaction that was open may have been rolled back as a whole.")
                    self.rows, self.running = 0, ""
                    self.release()
                    signal.signal(signal.SIGINT, previous)

    def step(self, splitter: Splitter) -> None:
        """One line from the terminal."""
        try:
            line = input(PROMPT if splitter.is_empty else CONTINUED)
            if splitter.is_empty and (line.lstrip().startswith(".") or line.strip() in PLAIN_COMMANDS):
                self.run_command(PLAIN_COMMANDS.get(line.strip(), line))
                return
            if not splitter.is_empty and line.strip() in {*PLAIN_COMMANDS, *self.commands}:
                self.note("note: this is inside a statement, which ends with ; and is dropped with Ctrl-C.")
            was_procedure = splitter.kind == "CREATE PROCEDURE"
            for statement in splitter.feed(line + "\n"):
                self.execute(statement)
            if splitter.kind == "CREATE PROCEDURE" and not was_procedure:
                print("(an empty line ends the procedure)")
        except UnicodeDecodeError:
            self.note("error: the line is not text in the encoding of this terminal, %s" % sys.stdin.encoding)
        except (Failure, zelqa.Error) as error:
            splitter.clear()
            self.running = ""
            self.note("error: %s" % error)
            self.note_help(error)
            self.release()

    def note_help(self, error: BaseException) -> None:
        if "Binary type not supported" in str(error):
            self.note("note: hex(COLUMN) reads a binary column as text.")
