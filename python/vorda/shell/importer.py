"""Reading a CSV file into a table, which is made when there is none: all of it, or nothing."""

import contextlib
import sys
import time
from typing import (Any, BinaryIO, Callable, Dict, Iterator, List, NamedTuple, Optional, Sequence,
                    TextIO, Tuple)

from .. import dbapi
from .csvreader import Fields, Form, Malformed, records
from ..dialects import MARIADB, SQLITE, Dialect
from .interrupts import Interrupts
from .values import PARSERS, SENT_AS_VALUES

SHOWN_ROWS = 500  # between two looks at the progress
NO_TABLE = ("42S02", "42P01")  # SQLSTATEs


class ImportFailed(Exception):
    """The file does not fit the table."""


class Progress:
    """A bar on a terminal; elsewhere it is silent."""

    def __init__(self, out: TextIO, file: BinaryIO) -> None:
        self.out, self.file, self.is_shown = out, file, out.isatty()
        self.total = max(file.seek(0, 2), 1)
        file.seek(0)
        self.due = 0.0

    def show(self, rows: int) -> None:
        if self.is_shown and time.monotonic() >= self.due:
            self.due = time.monotonic() + 0.1
            share = min(self.file.tell() / self.total, 1.0)
            bar = ("#" * int(share * 30)).ljust(30)
            self.out.write("\r[%s] %3d %%  %s rows " % (bar, share * 100, format(rows, ",")))
            self.out.flush()

    def clear(self) -> None:
        if self.is_shown:
            self.out.write("\r\x1b[K")
            self.out.flush()


class Field(NamedTuple):
    """A column that the file has."""

    name: str
    kind: type
    what: str  # a text of it must be
    parse: Callable[[str], Any]  # makes a value of such a text, or raises ValueError


class Importer:
    """Inserts the rows of a file with a header line. An empty field becomes NULL; in a column of
    texts or binary data one with quotes is empty, in one of texts all are with `empty_text`."""

    def __init__(self, connection: dbapi.Connection, dialect: Dialect, interrupts: Interrupts,
                 form: Form, empty_text: bool) -> None:
        self.connection, self.dialect, self.interrupts = connection, dialect, interrupts
        self.form, self.empty_text = form, empty_text
        self.rows = self.line = 0  # read so far, and where the last one begins
        self.stored = -1  # of them, once it is done
        self.table = self.to_make = ""  # one that is to be made, and how
        self.to_undo = ""  # what it then takes to be rid of it

    def run(self, path: str, table: str, out: TextIO = sys.stderr) -> None:
        with open(path, "rb") as file:
            try:
                self.read(file, table, Progress(out, file) if file.seekable() else None)
            except KeyboardInterrupt:
                raise KeyboardInterrupt("nothing is imported" * (self.stored < 0)) from None
            except Malformed as error:
                raise ImportFailed(str(error)) from error

    def read(self, file: BinaryIO, table: str, progress: Optional[Progress]) -> None:
        lines = records(file, self.form)
        header = next(lines, (0, []))[1]
        if header in ([], [None]):
            raise ImportFailed("the file has no header line")
        name, columns = self.described(table, header)
        chosen = [columns[i] for i in choose([column[0] for column in columns], header)]
        statement = "INSERT INTO %s (%s) VALUES (%s)" % (
            name, ", ".join(self.dialect.quoted(column[0]) for column in chosen),
            ", ".join("?" * len(chosen)))
        try:
            self.interrupts.call(self.insert, statement,
                                 self.values(lines, self.fields(chosen), progress))
        except dbapi.Error as error:
            raise ImportFailed("%s (in line %d or before)" % (error, self.line)) from error
        finally:
            if progress:
                progress.clear()
            if self.stored < 0 and self.to_undo:
                with self.interrupts.ignored(), contextlib.suppress(dbapi.Error):
                    self.connection.execute(self.to_undo)

    def insert(self, statement: str, rows: Iterator[List[Any]]) -> None:
        is_transaction = bool(self.to_make and self.dialect.undoes_tables
                              and not self.connection.in_transaction)
        if is_transaction:
            self.connection.execute("BEGIN")
            self.to_undo = "ROLLBACK"
        if self.to_make:
            self.connection.execute(self.to_make)
            self.to_undo = self.to_undo or "DROP TABLE " + self.table
        stored = self.connection.executemany(statement, rows).rowcount
        if is_transaction:
            self.connection.execute("COMMIT")
        self.stored = stored

    def described(self, table: str, header: Fields) -> Tuple[str, Sequence[Any]]:
        """The table's name as it stands in statements, and its columns as a cursor has them."""
        quoted = self.dialect.quoted
        parts = [table] if self.dialect.quote in table else table.split(".")
        for names in (parts, [table]):
            try:
                columns = self.columns(quoted(*names))
            except dbapi.Error as error:
                if error.sqlstate not in NO_TABLE and "no such table" not in str(error):
                    raise
            else:
                if self.dialect is MARIADB:
                    self.refuse_without_transactions(names)
                return quoted(*names), columns
        return quoted(*parts), self.made_from(header, quoted(*parts))

    def columns(self, name: str) -> Sequence[Any]:
        return self.connection.execute("SELECT * FROM %s WHERE 1 = 0" % name).description or ()

    def made_from(self, header: Fields, table: str) -> Sequence[Any]:
        """The columns of a table that is to be made: texts, as they are in the file."""
        if self.connection.in_transaction and not self.dialect.undoes_tables:
            raise ImportFailed("there is no table %s, and making one would commit the transaction"
                               % table)
        names = [(name or "").strip() for name in header]
        if not all(names):
            raise ImportFailed("the header has a column without a name")
        columns = ["%s %s" % (self.dialect.quoted(name), self.dialect.text) for name in names]
        self.table = table
        self.to_make = "CREATE TABLE %s (%s)" % (table, ", ".join(columns))
        return [(name, str) for name in names]

    def refuse_without_transactions(self, parts: Sequence[str]) -> None:
        found = self.connection.execute(
            "SELECT e.transactions, e.engine FROM information_schema.tables t"
            " JOIN information_schema.engines e ON e.engine = t.engine "
            " WHERE t.table_schema = COALESCE(?, DATABASE()) AND t.table_name = ?",
            (".".join(parts[:-1]) or None, parts[-1]))
        for transactions, engine in found:
            if transactions != "YES":
                raise ImportFailed("the table's engine, %s, has no transactions: an import that"
                                   " fails could not be undone" % engine)

    def fields(self, columns: Sequence[Any]) -> List[Field]:
        # A server looks at texts itself; SQLite stores what it cannot read back.
        known = PARSERS if self.dialect is SQLITE else {kind: PARSERS[kind]
                                                        for kind in SENT_AS_VALUES}
        return [Field(column[0], column[1], *known.get(column[1], ("", str)))
                for column in columns]

    def values(self, lines: Iterator[Tuple[int, Fields]], fields: Sequence[Field],
               progress: Optional[Progress]) -> Iterator[List[Any]]:
        for number, texts in lines:
            self.interrupts.check()
            if texts == [None] and len(fields) > 1:
                continue  # an empty line
            if len(texts) != len(fields):
                raise ImportFailed("line %d has %d fields, the header has %d"
                                   % (number, len(texts), len(fields)))
            self.rows, self.line = self.rows + 1, number
            if progress and self.rows % SHOWN_ROWS == 0:
                progress.show(self.rows)
            yield [self.value(text, field) for text, field in zip(texts, fields)]

    def value(self, text: Optional[str], field: Field) -> Any:
        if not text:
            is_empty = text is not None or (self.empty_text and field.kind is str)
            return field.kind() if is_empty and field.kind in (str, bytes) else None
        try:
            return field.parse(text)
        except ValueError:
            raise ImportFailed("line %d: %r is no %s, which column %s needs"
                               % (self.line, text, field.what, field.name)) from None


def choose(names: Sequence[str], header: Fields) -> List[int]:
    """The table's columns in the order of the header; names are the same, but for their case."""
    by_name: Dict[str, int] = {name.lower(): i for i, name in enumerate(names)}
    by_name.update({name: i for i, name in enumerate(names)})
    texts = [name or "" for name in header]
    found = [by_name.get(name, by_name.get(name.strip().lower(), -1)) for name in texts]
    unknown = [repr(name) for name, column in zip(texts, found) if column < 0]
    if unknown:
        raise ImportFailed("the table has no column %s; its columns are %s"
                           % (", ".join(unknown), ", ".join(names)))
    twice = sorted({names[i] for i in found if found.count(i) > 1})
    if twice:
        raise ImportFailed("the header names a column twice: %s" % ", ".join(twice))
    return found
