"""Where results go: the screen, the user's pager, a file."""

import contextlib
import os
import sys
from typing import Any, Callable, Iterator, NamedTuple, Optional, TextIO

from .failure import Failure
from .pager import Pager, pager_command


class Target(NamedTuple):
    """What a result is written to."""

    write: Callable[[str], Any]
    encoding: str
    columns: int  # of the screen; 0 is no screen, and takes bytes as they are


def screen_width(out: TextIO) -> int:
    """Asked anew for each result: the window may have another size by now."""
    return os.get_terminal_size(out.fileno()).columns or 80 if out.isatty() else 0


class Destination:
    """The place for all results, or for the next one."""

    def __init__(self) -> None:
        self.file: Optional[TextIO] = None
        self.next: Optional[TextIO] = None
        self.results = 0  # that the place has got
        self.pages = False  # whether what is longer than the screen goes to a pager

    def send(self, path: str, once: bool) -> None:
        """Sends results to a file, or with "" to the screen again."""
        self.close(once)
        if not path:
            return
        try:
            file = open(os.path.expanduser(path), "w", encoding="utf-8", newline="\n")
        except OSError as error:
            raise Failure("%s: %s" % (path, error.strerror)) from error
        self.results = 0
        if once:
            self.next = file
        else:
            self.file = file

    def close(self, once: bool = False) -> None:
        if self.next:
            self.next.close()
            self.next = None
        if self.file and not once:
            self.file.close()
            self.file = None

    @property
    def is_screen(self) -> bool:
        return not (self.next or self.file) and sys.stdout.isatty()

    @contextlib.contextmanager
    def opened(self) -> Iterator[Target]:
        """For one result. A pager that the user leaves raises PagerLeft."""
        out = self.next or self.file or sys.stdout
        self.results += 1
        columns, encoding = screen_width(out), (out.encoding or "utf-8").lower()
        try:
            command = pager_command() if columns and self.pages else ""
            if command:
                with Pager(out, command) as pager:
                    yield Target(pager.write, encoding, columns)
            else:
                yield Target(out.write, encoding, columns)
                out.flush()
        finally:
            if out is self.next:
                self.close(once=True)
