"""Results for other programs: CSV, JSON, Markdown. All write rows as they come."""

import datetime
import decimal
import itertools
import json
import re
from typing import Any, Callable, Dict, Iterator, List, Sequence

from .. import _statement
from ..display import printable
from .destination import Target

Row = Sequence[Any]
Columns = Sequence[Sequence[Any]]  # the description of a cursor
Blocks = Iterator[List[Row]]


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


def writer_of(target: Target) -> Callable[[str], Any]:
    """Writes to a screen what cannot command it, and to all else what there is."""
    if not target.columns:
        return target.write
    return lambda text: target.write(printable(text, target.encoding, "\n"))


class Csv:
    """A header line, then the rows. NULL is an empty field, an empty text is "" in quotes; binary
    data are hex digits."""

    def __init__(self, target: Target, delimiter: str = ",") -> None:
        self.write, self.delimiter = writer_of(target), delimiter

    def show(self, columns: Columns, blocks: Blocks) -> None:
        header: List[Row] = [[column[0] for column in columns]]
        for block in itertools.chain([header], blocks):
            self.write(_statement._csv_lines(block, self.delimiter, text_of))


class Json:
    """An array with one object a row. Decimals are texts, so that no reader rounds them; binary
    data are hex digits."""

    def __init__(self, target: Target) -> None:
        self.write = writer_of(target)

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

    def show(self, columns: Columns, blocks: Blocks) -> None:
        keys = self.keys([column[0] for column in columns])
        separator = "["
        for row in itertools.chain.from_iterable(blocks):
            item = dict(zip(keys, map(self.value, row)))
            self.write(separator + "\n" + json.dumps(item, ensure_ascii=False))
            separator = ","
        self.write("[]\n" if separator == "[" else "\n]\n")


class Markdown:
    """A table of a document. NULL is an empty cell."""

    def __init__(self, target: Target) -> None:
        self.write = writer_of(target)

    @staticmethod
    def cell(value: Any) -> str:
        text = "" if value is None else text_of(value)
        text = re.sub(r"([\\|`*_<&])", r"\\\1", text)
        return re.sub(r"\r\n|[\r\n]", "<br>", text)

    def line(self, cells: Sequence[str]) -> None:
        self.write("| " + " | ".join(cells) + " |\n")

    def show(self, columns: Columns, blocks: Blocks) -> None:
        self.line([self.cell(column[0]) for column in columns])
        self.line(["---:" if column[1] in (int, float, decimal.Decimal) else "---"
                   for column in columns])
        for row in itertools.chain.from_iterable(blocks):
            self.line([self.cell(value) for value in row])
