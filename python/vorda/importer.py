"""Reading a CSV file into a table: all of it, or nothing."""

import re
import sys
import time
from typing import (Any, BinaryIO, Callable, Dict, Iterator, List, NamedTuple, Optional, Sequence,
                    TextIO, Tuple)

from . import dbapi
from .dialects import MARIADB, SQLITE, Dialect
from .interrupts import Interrupts
from .values import PARSERS, SENT_AS_VALUES

SHOWN_ROWS = 500  # between two looks at the progress

Fields = List[Optional[str]]

# A field in quotes or without, and what ends it.
_FIELD = re.compile(r'(?:"([^"]*(?:""[^"]*)*)"|([^",\r\n][^,\r\n]*)?)(,|\r?\n|\r?\Z)')


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


def lines_of(file: BinaryIO) -> Iterator[str]:
    for number, line in enumerate(file, 1):
        try:
            yield line.decode("utf-8-sig" if number == 1 else "utf-8")
        except UnicodeDecodeError as error:
            raise ImportFailed("line %d is not valid UTF-8" % number) from error


def records(lines: Iterator[str]) -> Iterator[Tuple[int, Fields]]:
    """Each record with the number of its first line. A field is None where there is nothing, but an
    empty text where there are quotes; csv.reader does not tell one from the other."""
    number = 0
    for line in lines:
        number, first = number + 1, number + 1
        fields: Fields = []
        position, end = 0, ","
        while end == ",":
            match = _FIELD.match(line, position)
            if match:
                quoted, plain, end = match.groups()
                fields.append(plain if quoted is None else quoted.replace('""', '"'))
                position = match.end()
                continue
            if line[position] != '"' or line.count('"', position) % 2 == 0:
                raise ImportFailed("line %d: text beside the quotes of a field" % number)
            pieces, line = [line], ""
            for line in lines:
                number += 1
                pieces.append(line)
                if line.count('"') % 2:
                    break
            else:
                raise ImportFailed("line %d: the quotes of a field are not closed" % first)
            line = "".join(pieces)
        yield first, fields


class Field(NamedTuple):
    """A column that the file has."""

    name: str
    kind: type
    what: str  # a text of it must be
    parse: Callable[[str], Any]  # makes a value of such a text, or raises ValueError


class Importer:
    """Inserts the rows of a UTF-8 file with a header line. An empty field becomes NULL; in a column
    of texts or binary data one with quotes is empty, in one of texts all are with `empty_text`."""

    def __init__(self, connection: dbapi.Connection, dialect: Dialect, interrupts: Interrupts,
                 empty_text: bool) -> None:
        self.connection, self.dialect = connection, dialect
        self.interrupts, self.empty_text = interrupts, empty_text
        self.rows = self.line = 0  # read so far, and where the last one begins
        self.stored = -1  # of them, once it is done

    def run(self, path: str, table: str, out: TextIO = sys.stderr) -> None:
        with open(path, "rb") as file:
            progress = Progress(out, file) if file.seekable() else None
            lines = records(lines_of(file))
            header = next(lines, (0, []))[1]
            if header in ([], [None]):
                raise ImportFailed("the file has no header line")
            name, columns = self.described(table)
            chosen = [columns[i] for i in choose([column[0] for column in columns], header)]
            statement = "INSERT INTO %s (%s) VALUES (%s)" % (
                name, ", ".join(self.dialect.quoted(column[0]) for column in chosen),
                ", ".join("?" * len(chosen)))
            try:
                self.interrupts.call(self.insert, statement,
                                     self.values(lines, self.fields(chosen), progress))
            except KeyboardInterrupt:
                raise KeyboardInterrupt("nothing is imported" * (self.stored < 0)) from None
            except dbapi.Error as error:
                raise ImportFailed("%s (in line %d or before)" % (error, self.line)) from error
            finally:
                if progress:
                    progress.clear()

    def insert(self, statement: str, rows: Iterator[List[Any]]) -> None:
        self.stored = self.connection.executemany(statement, rows).rowcount

    def described(self, table: str) -> Tuple[str, Sequence[Any]]:
        """The table's name as it stands in statements, and its columns as a cursor has them."""
        quoted = self.dialect.quoted
        parts = [table] if self.dialect.quote in table else table.split(".")
        name = ".".join(map(quoted, parts))
        try:
            columns = self.columns(name)
        except dbapi.Error:
            if len(parts) == 1:
                raise
            name, parts = quoted(table), [table]
            columns = self.columns(name)
        if self.dialect is MARIADB:
            self.refuse_without_transactions(parts)
        return name, columns

    def columns(self, name: str) -> Sequence[Any]:
        return self.connection.execute("SELECT * FROM %s WHERE 1 = 0" % name).description or ()

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
