"""Ctrl-C while the database is busy."""

import contextlib
import signal
from typing import Any, Callable, Iterator

from .. import dbapi

AGAIN_SECONDS = 0.25  # a cancellation falls flat between two statements of one call


class Interrupts:
    """Makes Ctrl-C cancel what runs in `call`, until that has ended: a call either fails or has
    done its work. Elsewhere it is a KeyboardInterrupt, as always.
    """

    def __init__(self, connection: dbapi.Connection) -> None:
        self.connection = connection
        self.is_calling = self.is_pressed = False
        if signal.getsignal(signal.SIGINT) is signal.default_int_handler:
            signal.signal(signal.SIGINT, self.press)
            signal.signal(signal.SIGALRM, self.cancel)

    def press(self, *_: object) -> None:
        if not self.is_calling:
            raise KeyboardInterrupt
        self.is_pressed = True
        self.cancel()

    def cancel(self, *_: object) -> None:
        if self.is_calling:
            self.connection.cancel()
            signal.setitimer(signal.ITIMER_REAL, AGAIN_SECONDS)

    def check(self) -> None:
        """For what is called back in the middle of a call."""
        if self.is_pressed:
            raise KeyboardInterrupt

    def call(self, function: Callable[..., Any], *arguments: Any) -> Any:
        """Calls what calls the database. Who is called notes what is done before it returns."""
        self.is_pressed, self.is_calling = False, True
        try:
            result = function(*arguments)
        except dbapi.Error as error:
            if self.is_pressed:
                raise KeyboardInterrupt from error
            raise
        finally:
            self.is_calling = False
            signal.setitimer(signal.ITIMER_REAL, 0)
        self.check()
        return result

    @contextlib.contextmanager
    def ignored(self) -> Iterator[None]:
        """What tidies up is not ended by a second Ctrl-C."""
        previous = signal.signal(signal.SIGINT, signal.SIG_IGN)
        try:
            yield
        finally:
            signal.signal(signal.SIGINT, previous)
