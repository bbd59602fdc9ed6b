"""Keeps passwords off screens: everything printed here goes through a Mask."""

import re
from os.path import commonprefix
from typing import Iterator, List, Tuple

HIDDEN = "***"
_SECRET_KEY = re.compile(
    r"pwd|pass|secret|token|credential|\bpw\b|(api|access|private|account)[ _-]*key", re.IGNORECASE)
# A secret that is shortened in a message is known by this many of its first characters.
_HEAD = 6
# A shorter one is left in messages: it protects nothing, and may be any word.
_SHORTEST = 4

_PAIR = re.compile(r"""
    (?P<key>[^=;]*)=(?P<value>\s*\{(?:[^}]|\}\})*(?:\}[^;]*)?|\s*"[^"]*"[^;]*|\s*'[^']*'[^;]*|[^;]*)
    |(?P<stray>[^;]+)""", re.VERBOSE)
# Pairs inside a value, as libraries under a driver take them.
_INNER = re.compile(
    r"""([\w -]+?)\s*[=:]\s*('(?:[^'\\]|\\.)*'|"[^"]*"|[^\s;&}'"](?:[^\s;&}]|\}\})*)""")
_ADDRESS = re.compile(r"://[^\s:/?\#]*:([^\s;]+)@")


def pairs(connection_string: str) -> Iterator[Tuple[str, str, int]]:
    """Key, value and where the value starts. A value in braces runs to its closing brace, "}}"
    being one in it, or to the end; one in quotes to the closing one; a piece without "=" has an
    empty key."""
    for match in _PAIR.finditer(connection_string):
        group = "value" if match["stray"] is None else "stray"
        yield (match["key"] or "").strip(), match[group], match.start(group)


def _secrets(connection_string: str) -> List[Tuple[int, int]]:
    """Where there are secrets, in order and apart from each other."""
    found = [match.span(1) for match in _ADDRESS.finditer(connection_string)]
    secret = False
    for key, value, start in pairs(connection_string):
        # What follows a secret without a key is the rest of one that has a semicolon in it.
        secret = bool(_SECRET_KEY.search(key)) if key else secret
        if secret and value.strip():
            found.append((start, start + len(value)))
        elif not secret:
            found += [(start + inner.start(2), start + inner.end(2))
                      for inner in _INNER.finditer(value)
                      if _SECRET_KEY.search(inner[1])]
    merged: List[Tuple[int, int]] = []
    for start, end in sorted(found):
        if merged and start <= merged[-1][1]:
            start, end = merged[-1][0], max(end, merged.pop()[1])
        merged.append((start, end))
    return merged


class Mask:
    """Called with a text, returns it without the secrets of the connection string."""

    def __init__(self, connection_string: str = "") -> None:
        self.shown, position = "", 0
        secrets: List[str] = []
        for start, end in _secrets(connection_string):
            self.shown += connection_string[position:start] + HIDDEN
            position = end
            bare = value = connection_string[start:end].strip()
            if value.startswith("{"):
                bare = re.sub(r"\}[^}]*$", "", value[1:])
            elif value[:1] in ("'", '"'):
                bare = value[1:].rstrip(value[0])
            secrets += [value, bare, bare.strip(), bare.replace("}}", "}").strip()]
        self.shown += connection_string[position:]
        self._connection_string = connection_string
        self._secrets = sorted({s for s in secrets if len(s) >= _SHORTEST}, key=len, reverse=True)

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
    return bool(_secrets(text))
