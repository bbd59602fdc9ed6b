"""Reading a CSV file into a table: all of it, or nothing."""

import csv
import re
import sys
import time
from typing import Any, Dict, Iterator, List, Sequence, TextIO, Tuple

BATCH_ROWS = 1000
BATCH_BYTES = 8 << 20  # a batch has slots as wide as its widest text for every row
SAVEPOINT = "vorda_import"


class ImportFailed(Exception):
    """The file does not fit the table."""


def quoted(name: str) -> str:
    return name if re.fullmatch(r"\w+(\.\w+)*", name) else '"%s"' % name.replace('"', '""')


class Progress:
    """A bar on a terminal; elsewhere it is silent."""

    def __init__(self, out: TextIO, total: int) -> None:
        self.out, self.total, self.is_shown = out, max(total, 1), out.isatty()
        self.due = 0.0

    def show(self, done: int, rows: int) -> None:
        if self.is_shown and time.monotonic() >= self.due:
            self.due = time.monotonic() + 0.1
            share = min(done / self.total, 1.0)
            bar = ("#" * int(share * 30)).ljust(30)
            self.out.write("\r[%s] %3d %%  %s rows " % (bar, share * 100, format(rows, ",")))
            self.out.flush()

    def clear(self) -> None:
        if self.is_shown:
            self.out.write("\r\x1b[K")
            self.out.flush()


def columns_for(connection: Any, table: str, header: Sequence[str]) -> List[str]:
    """The table's columns in the order of the header, names compared exactly or else in any case."""
    names = [column[0] for column in connection.execute("SELECT * FROM %s WHERE 1 = 0" % table).description]
    by_name: Dict[str, str] = {name.lower(): name for name in names}
    by_name.update({name: name for name in names})
    found = [by_name.get(name) or by_name.get(name.strip().lower()) for name in header]
    columns = [name for name in found if name is not None]
    unknown = [repr(name) for name, column in zip(header, found) if column is None]
    if unknown:
        raise ImportFailed("the table has no column %s; its columns are %s" % (
            ", ".join(unknown), ", ".join(names)))
    twice = sorted({name for name in columns if columns.count(name) > 1})
    if twice:
        raise ImportFailed("the header names a column twice: %s" % ", ".join(twice))
    return columns


def batches(reader: Any, columns: int) -> Iterator[Tuple[int, List[List[str]]]]:
    """The rows in batches, each with the number of its first line."""
    batch: List[List[str]] = []
    first, widest = 0, 0
    for row in reader:
        if not row:
            if columns > 1:
                continue
            row = [""]  # of a single column, an empty line is an empty field
        if len(row) != columns:
            raise ImportFailed("line %d has %d fields, the header has %d" % (reader.line_num, len(row), columns))
        longest = 4 * max(map(len, row))
        if batch and (len(batch) >= BATCH_ROWS or (len(batch) + 1) * max(widest, longest) > BATCH_BYTES):
            yield first, batch
            batch, widest = [], 0
        if not batch:
            first = reader.line_num
        batch.append(row)
        widest = max(widest, longest)
    if batch:
        yield first, batch


def import_csv(connection: Any, path: str, table: str, empty_text: bool, out: TextIO = sys.stderr) -> int:
    """Inserts the rows of a UTF-8 file with a header line; returns how many.

    An empty field becomes NULL, or an empty text with `empty_text`. A savepoint makes the import whole or
    not at all, inside a transaction of the user's too.
    """
    csv.field_size_limit(sys.maxsize)
    with open(path, "rb") as raw:
        total = raw.seek(0, 2)
        raw.seek(0)
        lines = (line.decode("utf-8-sig" if number == 0 else "utf-8") for number, line in enumerate(raw))
        reader = csv.reader(lines, strict=True)
        try:
            header = next(reader, [])
            if not header:
                raise ImportFailed("the file has no header line")
            columns = columns_for(connection, quoted(table), header)
            marker = "?" if empty_text else "NULLIF(?, '')"
            statement = "INSERT INTO %s (%s) VALUES (%s)" % (
                quoted(table), ", ".join(map(quoted, columns)), ", ".join([marker] * len(columns)))
            return _insert(connection, statement, batches(reader, len(columns)), Progress(out, total), raw)
        except csv.Error as error:
            raise ImportFailed("line %d: %s" % (reader.line_num, error)) from error
        except UnicodeDecodeError as error:
            raise ImportFailed("line %d is not valid UTF-8" % (reader.line_num + 1)) from error


def _insert(connection: Any, statement: str, parts: Iterator[Tuple[int, List[List[str]]]],
            progress: Progress, raw: Any) -> int:
    cursor = connection.cursor()
    cursor.execute("SAVEPOINT " + SAVEPOINT)
    rows = 0
    try:
        for first, batch in parts:
            try:
                cursor.executemany(statement, batch)
            except Exception as error:
                raise ImportFailed("%s (in the batch of %d rows that begins at line %d)" % (
                    error, len(batch), first)) from error
            rows += len(batch)
            progress.show(raw.tell(), rows)
        cursor.execute("RELEASE " + SAVEPOINT)
    except BaseException:
        cursor.execute("ROLLBACK TO " + SAVEPOINT)
        cursor.execute("RELEASE " + SAVEPOINT)
        raise
    finally:
        progress.clear()
    return rows
