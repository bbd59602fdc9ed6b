"""Typing a statement: with prompt_toolkit and Pygments where they are installed, else with the
standard library's readline."""

import contextlib
import os
from typing import TYPE_CHECKING, Any, Callable, Iterable, Iterator, List

from . import history
from .completion import DELIMITERS, Completer

if TYPE_CHECKING:
    from .session import Session

# Reads a text for a prompt, of one line or more. `pending`: what was typed before it.
Reader = Callable[[str, str], str]
IsComplete = Callable[[str], bool]


@contextlib.contextmanager
def reading(session: "Session", is_complete: IsComplete) -> Iterator[Reader]:
    """Within it there is a reader, which remembers what it has read. A file that cannot be read or
    written is no reason not to work."""
    completer = Completer(session)
    if os.environ.get("TERM", "dumb") != "dumb":
        try:
            reader = rich_reader(completer, is_complete)
        except ImportError:
            pass
        else:
            yield reader
            return
    with plain_reader(completer) as plain:
        yield plain


@contextlib.contextmanager
def plain_reader(completer: Completer) -> Iterator[Reader]:
    """Line by line."""
    pending_lines = ""

    def read(prompt: str, pending: str) -> str:
        nonlocal pending_lines
        pending_lines = pending
        return input(prompt)

    try:
        import readline
    except ImportError:
        yield read
        return

    found: List[str] = []

    def complete(_: str, state: int) -> Any:
        nonlocal found
        if state == 0:
            line, end = readline.get_line_buffer(), readline.get_endidx()
            found = completer.candidates(pending_lines + line[:end], line[end:])[1]
        return found[state] if state < len(found) else None

    readline.set_completer(complete)
    readline.set_completer_delims(DELIMITERS)
    is_libedit = "libedit" in (readline.__doc__ or "")
    readline.parse_and_bind("bind ^I rl_complete" if is_libedit else "tab: complete")
    readline.set_history_length(history.KEPT_LINES)
    with contextlib.suppress(OSError):
        readline.read_history_file(history.path("history"))
    known = readline.get_current_history_length()
    try:
        yield read
    finally:
        for position in reversed(range(known, readline.get_current_history_length())):
            if not history.is_kept(readline.get_history_item(position + 1) or ""):
                readline.remove_history_item(position)
        with contextlib.suppress(OSError):
            readline.append_history_file(readline.get_current_history_length() - known,
                                         history.path("history"))


def rich_reader(completer: Completer, is_complete: IsComplete) -> Reader:
    """Whole statements, in colours."""
    from prompt_toolkit import PromptSession
    from prompt_toolkit.completion import Completer as Base
    from prompt_toolkit.completion import Completion
    from prompt_toolkit.document import Document
    from prompt_toolkit.filters import Condition
    from prompt_toolkit.history import FileHistory, InMemoryHistory

    class Names(Base):
        def get_completions(self, document: Document, _: Any) -> Iterable[Completion]:
            word, found = completer.candidates(pending_lines + document.text_before_cursor,
                                               document.text_after_cursor)
            for text in found:
                yield Completion(text, start_position=-len(word))

    class Kept(FileHistory):
        def store_string(self, string: str) -> None:
            if history.is_kept(string):
                with contextlib.suppress(OSError):
                    super().store_string(string)

    pending_lines = ""
    try:
        kept: Any = Kept(history.path("statements"))
    except OSError:
        kept = InMemoryHistory()
    prompts: "PromptSession[str]" = PromptSession(
        history=kept, completer=Names(), complete_while_typing=False, lexer=lexer(completer),
        multiline=Condition(lambda: not is_complete(prompts.default_buffer.text)),
        prompt_continuation=lambda width, *_: "...> ".rjust(width))

    def read(prompt: str, pending: str) -> str:
        nonlocal pending_lines
        pending_lines = pending
        return prompts.prompt(prompt)

    return read


def lexer(completer: Completer) -> Any:
    """Colours, where Pygments is installed and nobody has said that they are not wanted."""
    if os.environ.get("NO_COLOR"):
        return None
    try:
        from prompt_toolkit.lexers import PygmentsLexer
        from pygments.lexers import sql
    except ImportError:
        return None
    lexers = {"PostgreSQL": sql.PostgresLexer, "MariaDB": sql.MySqlLexer}
    return PygmentsLexer(lexers.get(completer.session.dialect.name, sql.SqlLexer))
