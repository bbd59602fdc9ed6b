"""Ctrl-C while the provider is busy."""

import contextlib
import ctypes
import os
import signal
import threading
from typing import Any, Callable, Iterator

from . import zelqa


class Interrupts:
    """Within it, Ctrl-C ends what the provider is busy with. The module holds the interpreter lock
    all the while, so the signal's number goes through a pipe to a thread that waits in the module.

    A call either fails or has done its work: no KeyboardInterrupt comes in between.
    """

    def __init__(self) -> None:
        self.reader, self.writer = os.pipe()
        for file in (self.reader, self.writer):
            os.set_blocking(file, False)
        self.module = ctypes.CDLL(str(zelqa.__file__))
        watch = self.module.VordaCancelOnInterrupt
        threading.Thread(target=watch, args=(self.reader,), daemon=True).start()
        self.is_calling = self.is_pressed = False
        self.handler: Any = None

    def __enter__(self) -> None:
        self.forget()
        self.handler = signal.getsignal(signal.SIGINT)
        if self.handler is signal.default_int_handler:
            signal.signal(signal.SIGINT, self.press)
        signal.set_wakeup_fd(self.writer, warn_on_full_buffer=False)

    def __exit__(self, *_: object) -> None:
        signal.set_wakeup_fd(-1)
        if self.handler is signal.default_int_handler:
            signal.signal(signal.SIGINT, self.handler)
        self.forget()

    def forget(self) -> None:
        self.module.VordaForgetInterrupts(self.reader)
        self.is_pressed = False

    def press(self, *_: object) -> None:
        self.is_pressed = True
        if not self.is_calling:
            raise KeyboardInterrupt

    def call(self, function: Callable[..., Any], *arguments: Any) -> Any:
        """Calls what calls the provider. Who is called notes what is done before it returns."""
        self.is_calling = True
        try:
            result = function(*arguments)
        except zelqa.Error as error:
            if self.is_pressed:
                raise KeyboardInterrupt from error
            raise
        finally:
            self.is_calling = False
        if self.is_pressed:
            raise KeyboardInterrupt
        return result

    @contextlib.contextmanager
    def ignored(self) -> Iterator[None]:
        """What tidies up is not ended by a second Ctrl-C, nor by the first one's last effect."""
        previous = signal.signal(signal.SIGINT, signal.SIG_IGN)
        self.forget()
        try:
            yield
        finally:
            signal.signal(signal.SIGINT, previous)
