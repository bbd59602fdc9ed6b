"""The shell at a terminal."""

import sys
from typing import Set

from .. import dbapi
from .commands import BY_NAME, HINTS
from .editing import Reader, reading
from .failure import Failure
from .session import Session

PROMPT, IN_TRANSACTION, CONTINUED = "vorda> ", "vorda*> ", "  ...> "
PLAIN_COMMANDS = {"help": ".help", "quit": ".quit", "exit": ".quit"}
WORDS: Set[str] = {*PLAIN_COMMANDS, *HINTS}


def word_of(line: str) -> str:
    return line.strip().rstrip("; ").lower()


def is_command(text: str) -> bool:
    return text.lstrip()[:1] in (".", "\\") or word_of(text) in WORDS


class Terminal:
    """Reads until Ctrl-D or .quit. Neither Ctrl-C nor a failure ends it."""

    def __init__(self, session: Session) -> None:
        self.session, self.splitter = session, session.splitter(interactive=True)
        session.is_interactive = session.destination.pages = True

    def run(self) -> None:
        with reading(self.session, self.is_complete) as reader:
            while True:
                try:
                    self.step(reader)
                except EOFError:
                    print()
                    return
                except KeyboardInterrupt as interrupt:
                    # A second Ctrl-C, in impatience, must not end the shell.
                    with self.session.interrupts.ignored():
                        self.splitter.clear()
                        print()
                        self.session.note(self.session.stopped(interrupt))
                        self.session.tell_of_transaction()

    def is_complete(self, text: str) -> bool:
        """Whether a text, behind what is there already, leaves no statement half-typed."""
        if self.splitter.is_empty and is_command(text):
            return True
        probe = self.session.splitter(interactive=True)
        probe.delimit(self.splitter.delimiter)
        for line in ("".join(self.splitter.lines) + text).split("\n"):
            for _ in probe.feed(line + "\n"):
                pass
        return probe.is_empty

    def step(self, reader: Reader) -> None:
        """One text from the terminal."""
        session, splitter = self.session, self.splitter
        try:
            session.begin()
            prompt = IN_TRANSACTION if session.was_open else PROMPT
            pending = "".join(splitter.lines)
            text = reader(prompt if splitter.is_empty else CONTINUED, pending)
            for line in text.split("\n"):
                self.take(line)
        except UnicodeDecodeError:
            session.note("error: the line is not text in the encoding of this terminal, %s"
                         % sys.stdin.encoding)
        except (Failure, dbapi.Error) as error:
            splitter.clear()
            session.note("error: %s" % error)
            session.tell_of_transaction()

    def take(self, line: str) -> None:
        session, splitter, word = self.session, self.splitter, word_of(line)
        if splitter.is_empty and is_command(line):
            session.run_command(PLAIN_COMMANDS.get(word, line))
            return
        if not splitter.is_empty and word in {*PLAIN_COMMANDS, *BY_NAME}:
            session.note("note: this is inside a statement, which ends with %s and is dropped"
                         " with Ctrl-C." % splitter.delimiter)
        was_procedure = splitter.is_slashed
        for statement in splitter.feed(line + "\n"):
            session.execute(statement)
        if splitter.is_slashed and not was_procedure:
            print("(an empty line ends the procedure)")
