"""Results for people: aligned columns, or one value a line."""

import decimal
import itertools
import time
from typing import Iterable, List, Sequence

from ..display import cut, printable, width
from .destination import Target
from .formats import Blocks, Columns, Row, text_of

# A table's widths are those of the rows that came first.
SAMPLE_ROWS, SAMPLE_SECONDS = 200, 1.0
_NARROWEST = 6  # columns that a cut text keeps; a table that is wider has one value a line


class Table:
    """Aligned columns. On a screen texts and hex are cut to its width; numbers and dates never
    are."""

    def __init__(self, target: Target) -> None:
        self.write, self.encoding, self.screen = target
        self.mark = "…" if printable("…", self.encoding) == "…" else "~"

    def show(self, columns: Columns, blocks: Blocks) -> None:
        rows = itertools.chain.from_iterable(blocks)
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
            self.show_records(names, lines)
            return
        self.line(names, widths, right, [False] * len(names))
        self.write("-+-".join("-" * w for w in widths) + "\n")
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
        self.write(" | ".join(parts).rstrip() + "\n")

    def show_records(self, names: Sequence[str], rows: Iterable[Sequence[str]]) -> None:
        margin = max(map(width, names))
        if self.screen:
            margin = min(margin, self.screen // 3)
        room = max(self.screen - margin - 3, _NARROWEST)
        for number, cells in enumerate(rows, 1):
            self.write("-- row %d --\n" % number)
            for name, text in zip(names, cells):
                name = cut(name, margin, self.mark)
                text = cut(text, room, self.mark) if self.screen else text
                self.write("%s | %s\n" % (name + " " * (margin - width(name)), text))


class Record(Table):
    """One value a line."""

    def show(self, columns: Columns, blocks: Blocks) -> None:
        names = [printable(column[0], self.encoding) for column in columns]
        self.show_records(names, map(self.cells, itertools.chain.from_iterable(blocks)))
