"""The statements typed so far, in files of the user's own."""

import os
import re

from ..masking import holds_secret

KEPT_LINES = 1000
_SETS_PASSWORD = re.compile(r"\b(IDENTIFIED\s+(BY|VIA|WITH)|PASSWORD)\b[^;]*['\"]", re.IGNORECASE)


def path(name: str) -> str:
    """Of a file that nobody else can read, which is made when there is none. OSError where it
    cannot be made."""
    state = os.environ.get("XDG_STATE_HOME") or os.path.expanduser("~/.local/state")
    file = os.path.join(state, "vorda", name)
    os.makedirs(os.path.dirname(file), mode=0o700, exist_ok=True)
    os.close(os.open(file, os.O_CREAT | os.O_WRONLY, 0o600))
    os.chmod(file, 0o600)
    return file


def is_kept(text: str) -> bool:
    """Whether a text has no password in it, as far as can be told."""
    return not holds_secret(text) and not _SETS_PASSWORD.search(text)
