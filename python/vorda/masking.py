"""Keeps passwords off screens: everything printed here goes through a Mask."""

import re
from os.path import commonprefix
from typing import Iterator, List, Tuple

HIDDEN = "***"
_SECRET_KEY = re.compile(r"pwd|pass|secret|token|credential|(api|access|private|account)[ _-]*key", re.IGNORECASE)
# A secret that is shortened in a message is known by this many of its first characters.
_HEAD = 6


_PAIR = re.compile(r"(?P<key>[^=;]*)=(?P<value>\s*\{(?:[^}]|\}\})*(?:\}[^;]*)?|[^;]*)|(?P<stray>[^;]+)")


def _pairs(connection_string: str) -> Iterator[Tuple[str, str, int]]:
    """Key, value and where the value starts. A value in braces runs to its closing brace, "}}" being one in
    it, or to the end; a piece without "=" has an empty key."""
    for match in _PAIR.finditer(connection_string):
        group = "value" if match["stray"] is None else "stray"
        yield (match["key"] or "").strip(), match[group], match.start(group)


class Mask:
    """Called with a text, returns it without the secrets of the connection string."""

    def __init__(self, connection_string: str = "") -> None:
        self.shown, end = "", 0
        secrets: List[str] = []
        secret = False
        for key, value, start in _pairs(connection_string):
            # What follows a secret without a key is the rest of one that has a semicolon in it.
            secret = bool(_SECRET_KEY.search(key)) if key else secret
            if not secret or not value.strip():
                continue
            self.shown += connection_string[end:start] + HIDDEN
            end = start + len(value)
            bare = value.strip()
            if bare.startswith("{"):
                bare = re.sub(r"\}[^}]*$", "", bare[1:])
            secrets += [value.strip(), bare, bare.strip(), bare.replace("}}", "}").strip()]
        self.shown += connection_string[end:]
        self._connection_string = connection_string
        self._secrets = sorted({s for s in secrets if s}, key=len, reverse=True)

    def __call__(self, text: str) -> str:
        if self._connection_string:
            text = text.replace(self._connection_string, self.shown)
        for secret in self._secrets:
            if len(secret) < _HEAD:  # a short one may be part of any word
                text = re.sub(r"(?<!\w)%s(?!\w)" % re.escape(secret), HIDDEN, text)
                continue
            start = text.find(secret[:_HEAD])
            while start >= 0:
                length = len(commonprefix([secret, text[start:start + len(secret)]]))
                text = text[:start] + HIDDEN + text[start + length:]
                start = text.find(secret[:_HEAD], start + len(HIDDEN))
        return text


def holds_secret(text: str) -> bool:
    return any(key and value and _SECRET_KEY.search(key) for key, value, _ in _pairs(text))
