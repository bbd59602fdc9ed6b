"""A result that is longer than the screen, in the user's pager."""

import os
import signal
from typing import TYPE_CHECKING, Any, List, Optional, TextIO

if TYPE_CHECKING:
    import subprocess

DEFAULT = "less"


class PagerLeft(Exception):
    """The user has seen enough."""


def pager_command() -> str:
    """What shows long texts on this terminal, or nothing."""
    import shutil

    command = os.environ.get("PAGER", DEFAULT).strip()
    if os.environ.get("TERM", "dumb") == "dumb" or command in ("", "cat"):
        return ""
    return command if shutil.which(command.split()[0]) else ""


class Pager:
    """Writes to the screen as far as that goes, and from there on to the pager, from the start."""

    def __init__(self, out: TextIO, command: str) -> None:
        self.out, self.command = out, command
        self.size = os.get_terminal_size(out.fileno())
        self.shown: List[str] = []
        self.rows = 0
        self.process: Optional["subprocess.Popen[str]"] = None

    def write(self, text: str) -> None:
        if not self.process:
            self.out.write(text)
            self.shown.append(text)
            self.rows += sum(1 + len(line) // (self.size.columns or 80)
                             for line in text.splitlines())
            if self.rows < self.size.lines or not self.size.lines:
                return
            import subprocess

            self.out.flush()
            text = "".join(self.shown)
            # Nothing that a key of the pager could start or write.
            self.process = subprocess.Popen(
                self.command, shell=True, stdin=subprocess.PIPE, encoding=self.out.encoding,
                errors="backslashreplace", env={**os.environ, "LESSSECURE": "1"})
        assert self.process.stdin
        try:
            self.process.stdin.write(text)
        except BrokenPipeError:
            raise PagerLeft from None

    def __enter__(self) -> "Pager":
        return self

    def __exit__(self, *_: Any) -> None:
        self.out.flush()
        if not self.process:
            return
        # Ctrl-C is the pager's own affair now.
        previous = signal.signal(signal.SIGINT, signal.SIG_IGN)
        try:
            self.process.communicate()
        except BrokenPipeError:
            self.process.wait()
        finally:
            signal.signal(signal.SIGINT, previous)
