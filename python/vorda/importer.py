"""Reading a CSV file into a table: all of it, or nothing."""

import re
import sys
import time
import warnings
from typing import (Any, BinaryIO, Callable, Dict, Iterable, Iterator, List, NamedTuple, Optional,
                    Sequence, TextIO, Tuple)

from . import zelqa
from .dialects import MARIADB, SQLITE, Dialect, dialect_of
from .interrupts import Interrupts
from .values import PARSERS

BATCH_ROWS = 1000
BATCH_BYTES = 8 << 20  # a batch has slots as wide as its widest text for every row
SAVEPOINT = "vorda_import"

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
        if b"\0" in line:
            raise ImportFailed("line %d has a NUL character, where texts end" % number)


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


class Target(NamedTuple):
    """Where the rows go."""

    table: str  # as it stands in statements
    columns: List[Any]  # of the table, as a cursor describes them
    chosen: List[int]  # of these, in the order of the header
    dialect: Dialect

    def statement(self, is_null: Sequence[bool]) -> str:
        values = ["NULL" if null else "?" for null in is_null]
        try:
            names = ", ".join(self.dialect.quoted(self.columns[i][0]) for i in self.chosen)
        except ValueError:
            by_column = dict(zip(self.chosen, values))
            values = [by_column.get(i, "DEFAULT") for i in range(len(self.columns))]
            return "INSERT INTO %s VALUES (%s)" % (self.table, ", ".join(values))
        return "INSERT INTO %s (%s) VALUES (%s)" % (self.table, names, ", ".join(values))

    def parsers(self) -> List[Tuple[str, Any, str, Optional[Callable[[str], Any]]]]:
        """By field: name, type, what it must be, and the function that makes a value of a text."""
        found = []
        for i in self.chosen:
            name, kind = self.columns[i][:2]
            # A server looks at values itself; SQLite stores what it cannot read back.
            known = PARSERS if self.dialect is SQLITE else {bool: PARSERS[bool]}
            found.append((name, kind, *known.get(kind, ("", None))))
        return found


class Importer:
    """Inserts the rows of a UTF-8 file with a header line. An empty field becomes NULL; in a column
    of texts one with quotes is an empty text, as all are with `empty_text`."""

    def __init__(self, connection: zelqa.Connection, interrupts: Interrupts,
                 empty_text: bool) -> None:
        self.cursor = connection.cursor()
        self.connection = connection
        self.interrupts, self.empty_text = interrupts, empty_text
        self.end, self.undo = "", [""]

    def run(self, path: str, table: str, out: TextIO = sys.stderr) -> int:
        """Returns how many rows there were."""
        with open(path, "rb") as file, warnings.catch_warnings():
            warnings.simplefilter("error", RuntimeWarning)  # of a value that would be changed
            progress = Progress(out, file) if file.seekable() else None
            lines = records(lines_of(file))
            header = next(lines, (0, []))[1]
            if header in ([], [None]):
                raise ImportFailed("the file has no header line")
            return self.insert(self.target(table, header), lines, progress)

    def ask(self, sql: str, *parameters: Any) -> List[Any]:
        return list(self.interrupts.call(
            lambda: list(self.connection.execute(sql, *parameters))))

    def target(self, table: str, header: Fields) -> Target:
        dialect = self.interrupts.call(dialect_of, self.connection)
        try:
            parts = [table] if dialect.quote in table else table.split(".")
            name = ".".join(map(dialect.quoted, parts))
            try:
                described = self.interrupts.call(self.describe, name)
            except zelqa.Error:
                if len(parts) == 1:
                    raise
                name = dialect.quoted(table)
                described = self.interrupts.call(self.describe, name)
        except ValueError:
            raise ImportFailed("the name of the table cannot be written here: the module takes"
                               " ?, @ and : in it for markers") from None
        if dialect is MARIADB:
            self.refuse_without_transactions(parts)
        return Target(name, described, choose([column[0] for column in described], header), dialect)

    def describe(self, name: str) -> List[Any]:
        return list(self.connection.execute("SELECT * FROM %s WHERE 1 = 0" % name).description
                    or ())

    def refuse_without_transactions(self, parts: Sequence[str]) -> None:
        found = self.ask(
            "SELECT e.transactions, e.engine FROM information_schema.tables t"
            " JOIN information_schema.engines e ON e.engine = t.engine "
            " WHERE t.table_schema = COALESCE(NULLIF(?, ''), DATABASE()) AND t.table_name = ?",
            ".".join(parts[:-1]), parts[-1])
        for transactions, engine in found:
            if transactions != "YES":
                raise ImportFailed("the table's engine, %s, has no transactions: an import that"
                                   " fails could not be undone" % engine)

    # --- all or nothing

    def begin(self) -> None:
        try:
            self.cursor.execute("SAVEPOINT " + SAVEPOINT)
            # Outside a transaction it may be accepted and forgotten.
            self.cursor.execute("ROLLBACK TO SAVEPOINT " + SAVEPOINT)
            self.end = "RELEASE SAVEPOINT " + SAVEPOINT
            self.undo = ["ROLLBACK TO SAVEPOINT " + SAVEPOINT, self.end]
        except zelqa.Error:
            self.cursor.execute("START TRANSACTION")
            self.end, self.undo = "COMMIT", ["ROLLBACK"]

    def insert(self, target: Target, lines: Iterable[Tuple[int, Fields]],
               progress: Optional[Progress]) -> int:
        with self.interrupts.ignored():
            self.begin()
        rows = 0
        try:
            for first, is_null, batch in self.batches(lines, target):
                try:
                    self.interrupts.call(self.send, target, is_null, batch)
                except (zelqa.Error, RuntimeWarning) as error:
                    raise ImportFailed("%s (in the batch of %d rows that begins at line %d)" % (
                        error, len(batch), first)) from error
                rows += len(batch)
                if progress:
                    progress.show(rows)
            with self.interrupts.ignored():
                self.cursor.execute(self.end)
        except BaseException as error:
            with self.interrupts.ignored():
                try:
                    for statement in self.undo:
                        self.cursor.execute(statement)
                except zelqa.Error as failure:
                    raise ImportFailed("%s; the transaction that was open is gone as a whole (%s)"
                                       % (str(error) or "stopped", failure)) from error
            if isinstance(error, KeyboardInterrupt):
                raise KeyboardInterrupt("nothing is imported") from None
            raise
        finally:
            if progress:
                progress.clear()
        return rows

    def send(self, target: Target, is_null: Sequence[bool], batch: List[List[Any]]) -> None:
        statement = target.statement(is_null)
        if all(is_null):
            for _ in batch:
                self.cursor.execute(statement)
            return
        self.cursor.executemany(statement, batch)
        if target.dialect is not SQLITE and 0 <= self.cursor.rowcount != len(batch):
            raise ImportFailed("the server took %d of %d rows" % (self.cursor.rowcount, len(batch)))

    def batches(self, lines: Iterable[Tuple[int, Fields]], target: Target) -> Iterator[
            Tuple[int, Sequence[bool], List[List[Any]]]]:
        """Batches with NULL in the same columns, each with the number of its first line."""
        parsers = target.parsers()
        batch: List[List[Any]] = []
        first, widest, batch_null = 0, 0, [False]
        for number, fields in lines:
            if fields == [None] and len(parsers) > 1:
                continue  # an empty line
            if len(fields) != len(parsers):
                raise ImportFailed("line %d has %d fields, the header has %d"
                                   % (number, len(fields), len(parsers)))
            values = [self.value(text, number, *parser) for text, parser in zip(fields, parsers)]
            is_null = [value is None for value in values]
            values = [value for value in values if value is not None]
            longest = max((4 * len(value) for value in values if isinstance(value, str)), default=0)
            if batch and (len(batch) >= BATCH_ROWS or is_null != batch_null
                          or (len(batch) + 1) * max(widest, longest) > BATCH_BYTES):
                yield first, batch_null, batch
                batch, widest = [], 0
            if not batch:
                first, batch_null = number, is_null
            batch.append(values)
            widest = max(widest, longest)
        if batch:
            yield first, batch_null, batch

    def value(self, text: Optional[str], number: int, name: str, kind: type, what: str,
              parse: Optional[Callable[[str], Any]]) -> Any:
        if not text:
            return (text or "") if kind is str and (self.empty_text or text is not None) else None
        if parse is None:
            return text
        try:
            return parse(text)
        except ValueError:
            raise ImportFailed("line %d: %r is no %s, which column %s needs"
                               % (number, text, what, name)) from None


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
