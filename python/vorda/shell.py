"""Running statements and the shell's own commands, from a terminal, a pipe or a file."""

import contextlib
import os
import re
import shlex
import sys
import time
from typing import Any, Callable, Dict, Iterable, Iterator, List, NamedTuple, Optional, Tuple

from . import dbapi, history, importer
from .dialects import SQLITE, Dialect, dialect_of
from .display import printable, tell
from .interrupts import Interrupts
from .masking import Mask
from .output import FORMATS
from .statements import Splitter

PROMPT, IN_TRANSACTION, CONTINUED = "vorda> ", "vorda*> ", "  ...> "
MAX_DEPTH = 20  # of files that read files

# Where a catalogue keeps what it knows: the name that is asked for, the text, the table, the order,
# what ends a text.
CATALOGUES = (
    ("tbl_name", "sql", "sqlite_master", "rowid", ";"),
    ("tbl_name", "sql", "sqlite_temp_master", "rowid", ";"),
    ("ProcedureName", "Definition", "sys_procedures", "ProcedureName", "\n/"),
)
PLAIN_COMMANDS = {"help": ".help", "quit": ".quit", "exit": ".quit"}
# What other shells know, and where it is here.
HINTS = {"clear": "Ctrl-L clears the screen", "cls": "Ctrl-L clears the screen",
         "\\q": ".quit leaves",
         "\\i": ".read FILE runs the statements of a file", "\\?": ".help lists the commands"}
BACKSLASH = ".tables lists tables, .schema NAME shows one, .help has the rest"

# A statement that does something before its rows are read. Elsewhere the words do no harm.
CHANGES = re.compile(r"\b(RETURNING|CALL|EXEC(UTE)?)\b", re.IGNORECASE)

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


def hint(line: str) -> str:
    """Words about a command of another shell, or nothing."""
    word = (line.split() or [""])[0].rstrip(";").lower()
    return HINTS.get(word, BACKSLASH if word.startswith("\\") else "")


class Session:
    """A connection and how its results are shown. Commands and statements raise Failure or
    dbapi.Error."""

    def __init__(self, connection: dbapi.Connection, style: str, mask: Mask) -> None:
        self.connection = connection
        self.style = style
        self.mask = mask
        self.depth = 0
        self.is_one_document = style == "json"
        self.results = 0
        self.rows = 0  # of the result that is being written
        self.has_ended = False  # what was run last, with no rows to come
        self.stays = False  # what it has done, whether its rows are read or not
        self.is_watching = False  # where a transaction goes
        self.was_open = False  # a transaction, when what runs began
        self.interrupts = Interrupts(connection)
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

    def close(self) -> None:
        with self.interrupts.ignored():
            if self.connection.in_transaction:
                self.note("note: the transaction was not committed, and is rolled back.")
            self.connection.close()

    def say(self, text: str) -> None:
        """Words about a result, which have no place in data for other programs."""
        if self.style == "table":
            print(printable(text, sys.stdout.encoding.lower(), "\n"))

    def note(self, text: str) -> None:
        sys.stdout.flush()
        tell(self.mask(text), sys.stderr)

    @property
    def dialect(self) -> Dialect:
        if self.known_dialect is None:
            self.known_dialect = dialect_of(self.connection)
        return self.known_dialect

    # --- statements

    def fetched(self, rows: Iterator[Any]) -> Iterator[Any]:
        for self.rows, row in enumerate(rows, 1):
            yield row

    def begin(self) -> None:
        self.rows, self.has_ended, self.stays = 0, False, False
        self.was_open = self.is_watching and self.connection.in_transaction

    def execute(self, sql: str) -> None:
        start = time.monotonic()
        self.begin()
        # Before the next prompt a result that was not read to its end has no locks any more.
        with contextlib.closing(self.connection.cursor()) as cursor:
            self.interrupts.call(self.start, cursor, sql)
            columns = cursor.description
            if columns is not None:
                self.results += 1
                if self.is_one_document and self.results > 1:
                    raise Failure("this is a second result, and --json writes one document:"
                                  " run it on its own")
                FORMATS[self.style](sys.stdout).write(columns, self.fetched(cursor))
                done = plural(self.rows, "row")
            else:
                # A call does not tell how many rows its statements changed.
                is_counted = cursor.rowcount >= 0 and not sql.upper().startswith("EXEC")
                done = "%s changed" % plural(cursor.rowcount, "row") if is_counted else "done"
        self.say("(%s, %.3f s)" % (done, time.monotonic() - start))
        sys.stdout.flush()
        self.was_open = False

    def start(self, cursor: dbapi.Cursor, sql: str) -> None:
        self.has_ended = cursor.execute(sql).description is None
        self.stays = bool(CHANGES.search(sql))

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
        for text in self.definitions(names):
            if sys.stdout.isatty():
                text = printable(text, sys.stdout.encoding.lower(), "\n\t")
            print(text)
            found = True
        if names and not found:
            raise Failure("there is no table, view or procedure %s; .tables lists them" % names[0])

    def definitions(self, names: List[str]) -> Iterator[str]:
        for column, text, table, order, end in CATALOGUES:
            where = " AND lower(%s) = lower(?)" % column if names else ""
            try:
                found = self.connection.execute(
                    "SELECT %s FROM %s WHERE length(%s) > 0%s ORDER BY %s"
                    % (text, table, text, where, order), names)
            except dbapi.Error:
                if table != "sys_procedures":  # which is there once there was a procedure
                    raise
                return
            with contextlib.closing(found):
                for (definition,) in found:
                    yield definition + end

    def read(self, arguments: List[str]) -> None:
        path = os.path.expanduser(arguments[0])
        if self.depth >= MAX_DEPTH:
            raise Failure("%s: files that read files go %d deep at most" % (path, MAX_DEPTH))
        self.depth += 1
        try:
            with open(path, encoding="utf-8-sig", newline="\n") as file:
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
        importing = importer.Importer(self.connection, self.dialect, self.interrupts, empty_text)
        self.begin()
        try:
            importing.run(path, table)
        except OSError as error:
            raise Failure("%s: %s" % (path, error.strerror)) from error
        except importer.ImportFailed as error:
            raise Failure("%s: %s; nothing is imported" % (path, error)) from error
        finally:
            self.has_ended = importing.stored >= 0
        if importing.stored != importing.rows:
            self.note("warning: of %s the database has stored %s"
                      % (plural(importing.rows, "row"), format(importing.stored, ",")))
        self.say("(%s imported, %.3f s)" % (plural(importing.rows, "row"),
                                            time.monotonic() - start))

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
        except (Failure, dbapi.Error) as error:
            raise Failure("%s:%d: %s" % (source, begin, error) if source else str(error)) from error

    def interact(self) -> None:
        """Reads from the terminal until Ctrl-D or .quit. Neither Ctrl-C nor a failure ends it."""
        splitter = Splitter(interactive=True)
        self.is_one_document, self.is_watching = False, True
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
                        self.tell_of_transaction()

    def step(self, splitter: Splitter) -> None:
        """One line from the terminal."""
        try:
            self.begin()
            prompt = IN_TRANSACTION if self.was_open else PROMPT
            line = input(prompt if splitter.is_empty else CONTINUED)
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
        except (Failure, dbapi.Error) as error:
            splitter.clear()
            self.note("error: %s" % error)
            self.tell_of_transaction()
