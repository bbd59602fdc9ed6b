"""Results as a table for people, as CSV or as JSON. All three write rows as they come."""

import datetime
import decimal
import itertools
import json
import os
import re
import time
from typing import Any, Callable, Dict, Iterable, Iterator, List, Sequence, TextIO

from .display import Screen, cut, printable, width

# A table's widths are those of the rows that came first.
SAMPLE_ROWS, SAMPLE_SECONDS = 200, 1.0
_NARROWEST = 6  # columns that a cut text keeps; a table that is wider has one value a line

_QUOTED = re.compile(r'[,"\r\n]|^\s|\s$|^$')  # CSV fields that need quotes

Row = Iterable[Any]
Columns = Sequence[Sequence[Any]]  # the description of a cursor


def text_of(value: Any, separator: str = " ") -> str:
    if type(value) in (str, int):
        return str(value)
    if isinstance(value, decimal.Decimal):
        # Without an exponent, unless that would take a page.
        is_short = value.is_finite() and abs(value.adjusted()) < 100
        return format(value, "f") if is_short else str(value)
    if isinstance(value, bool):
        return "true" if value else "false"
    if isinstance(value, datetime.datetime):
        return value.isoformat(separator)
    if isinstance(value, bytes):
        return value.hex()
    return str(value)  # of dates and times this is the ISO form


class Table:
    """Aligned columns. On a terminal texts and hex are cut to its width; numbers and dates never
    are."""

    def __init__(self, out: TextIO) -> None:
        self.out = out
        self.encoding = (out.encoding or "utf-8").lower()
        # Asked anew for each result: the window may have another size by now. 0 is no limit.
        self.screen = os.get_terminal_size(out.fileno()).columns if out.isatty() else 0
        self.mark = "…" if printable("…", self.encoding) == "…" else "~"

    def write(self, columns: Columns, rows: Iterator[Row]) -> None:
        names = [printable(column[0], self.encoding) for column in columns]
        right = [column[1] in (int, float, decimal.Decimal) for column in columns]
        fixed = [column[1] not in (str, bytes) for column in columns]
        sample: List[List[str]] = []
        deadline = time.monotonic() + SAMPLE_SECONDS
        for row in itertools.islice(rows, SAMPLE_ROWS):
            sample.append(self.cells(row))
            if time.monotonic() > deadline:
                break
        widths = [max(map(width, column)) for column in zip(names, *sample)]
        lines = itertools.chain(sample, map(self.cells, rows))
        if self.screen and not self.shrink(widths, sample, fixed):
            self.write_records(names, lines)
            return
        self.line(names, widths, right, [False] * len(names))
        self.out.write("-+-".join("-" * w for w in widths) + "\n")
        for cells in lines:
            self.line(cells, widths, right, fixed)

    def cells(self, row: Row) -> List[str]:
        return ["NULL" if value is None else printable(text_of(value), self.encoding)
                for value in row]

    def shrink(self, widths: List[int], sample: List[List[str]], fixed: List[bool]) -> bool:
        """Takes from the widest columns until all fit; false when that is not possible."""
        least = [_NARROWEST] * len(widths)
        for i, is_fixed in enumerate(fixed):
            if is_fixed:
                least[i] = max([_NARROWEST] + [width(cells[i]) for cells in sample])
        while sum(widths) + 3 * (len(widths) - 1) > self.screen:
            i = max(range(len(widths)), key=lambda i: (widths[i] > least[i], widths[i]))
            if widths[i] <= least[i]:
                return False
            widths[i] -= 1
        return True

    def line(self, cells: Sequence[str], widths: List[int], right: List[bool],
             fixed: List[bool]) -> None:
        parts = []
        for text, columns, is_right, is_fixed in zip(cells, widths, right, fixed):
            if self.screen and not is_fixed:
                text = cut(text, columns, self.mark)
            blanks = " " * (columns - width(text))
            parts.append(blanks + text if is_right else text + blanks)
        self.out.write(" | ".join(parts).rstrip() + "\n")

    def write_records(self, names: Sequence[str], rows: Iterable[Sequence[str]]) -> None:
        margin = min(max(map(width, names)), (self.screen) // 3)
        for number, cells in enumerate(rows, 1):
            self.out.write("-- row %d --\n" % number)
            for name, text in zip(names, cells):
                name = cut(name, margin, self.mark)
                room = max((self.screen) - margin - 3, _NARROWEST)
                self.out.write("%s | %s\n"
                               % (name + " " * (margin - width(name)), cut(text, room, self.mark)))


class Csv:
    """A header line, then the rows. NULL is an empty field, an empty text is "" in quotes; binary
    data are hex digits."""

    def __init__(self, out: TextIO) -> None:
        self.out = Screen(out) if out.isatty() else out

    @staticmethod
    def field(value: Any) -> str:
        if value is None:
            return ""
        text = text_of(value)
        return '"%s"' % text.replace('"', '""') if _QUOTED.search(text) else text

    def write(self, columns: Columns, rows: Iterator[Row]) -> None:
        for row in itertools.chain([[column[0] for column in columns]], rows):
            self.out.write(",".join(map(self.field, row)) + "\n")


class Json:
    """An array with one object a row. Decimals are texts, so that no reader rounds them; binary
    data are hex digits."""

    def __init__(self, out: TextIO) -> None:
        self.out = Screen(out) if out.isatty() else out

    @staticmethod
    def value(value: Any) -> Any:
        if value is None or isinstance(value, (bool, int, str)):
            return value
        if isinstance(value, float) and value - value == 0:
            return value
        return text_of(value, "T")  # infinities and NaN too: JSON has no numbers for them

    @staticmethod
    def keys(names: Sequence[str]) -> List[str]:
        """The names, each once: of two equal ones the second becomes name_2."""
        keys: Dict[str, None] = {}
        for name in names:
            key = name
            for number in itertools.count(2):
                if key not in keys and (key == name or key not in names):
                    break
                key = "%s_%d" % (name, number)
            keys[key] = None
        return list(keys)

    def write(self, columns: Columns, rows: Iterator[Row]) -> None:
        keys = self.keys([column[0] for column in columns])
        separator = "["
        for row in rows:
            item = dict(zip(keys, map(self.value, row)))
            self.out.write(separator + "\n" + json.dumps(item, ensure_ascii=False))
            separator = ","
        self.out.write("[]\n" if separator == "[" else "\n]\n")


FORMATS: Dict[str, Callable[[TextIO], Any]] = {"table": Table, "csv": Csv, "json": Json}
