"""Line editing and its history, by the standard library's readline where there is one."""

import contextlib
import os
from typing import Iterator

from .masking import holds_secret

KEPT_LINES = 1000


def path() -> str:
    state = os.environ.get("XDG_STATE_HOME") or os.path.expanduser("~/.local/state")
    return os.path.join(state, "vorda", "history")


@contextlib.contextmanager
def kept() -> Iterator[None]:
    """Within it, input() edits lines and remembers them; afterwards they are in a file of the
    user's own.

    A line that looks like a connection string with a password is forgotten. A file that cannot be
    read or written is no reason not to work.
    """
    try:
        import readline
    except ImportError:
        yield
        return
    readline.set_history_length(KEPT_LINES)
    with contextlib.suppress(OSError):
        readline.read_history_file(path())
    known = readline.get_current_history_length()
    try:
        yield
    finally:
        for position in reversed(range(known, readline.get_current_history_length())):
            if holds_secret(readline.get_history_item(position + 1) or ""):
                readline.remove_history_item(position)
        with contextlib.suppress(OSError):
            os.makedirs(os.path.dirname(path()), mode=0o700, exist_ok=True)
            # Readline keeps the mode of a file that is there.
            os.close(os.open(path(), os.O_CREAT | os.O_WRONLY, 0o600))
            os.chmod(path(), 0o600)
            readline.append_history_file(readline.get_current_history_length() - known, path())
