"""Values of PostgreSQL that have no ODBC type of their own, and come and go as texts."""

import re
from datetime import date, datetime, time, timedelta
from typing import Any, Callable, List, Optional, Tuple

Reader = Callable[[str], Any]

_SECONDS = r"(\d\d:\d\d:\d\d)(?:\.(\d+))?(?:([+-]\d\d)(?::?(\d\d))?(?::?(\d\d))?)?"
_TIME = re.compile(r"(?:(\d{4}-\d\d-\d\d )?)" + _SECONDS)


def _iso(text: str) -> str:
    """A time as every Python reads it."""
    match = _TIME.fullmatch(text)
    if not match:
        raise ValueError("Python has no such time: %r" % text)
    day, clock, fraction, hours, minutes, seconds = match.groups()
    zone = ":".join(part for part in (hours, hours and (minutes or "00"), seconds) if part)
    return "%s%s.%s%s" % (day or "", clock, (fraction or "").ljust(6, "0"), zone)


def read_datetime(text: str) -> datetime:
    return datetime.fromisoformat(_iso(text))


def read_time(text: str) -> time:
    return time.fromisoformat(_iso(text))


def read_date(text: str) -> date:
    return date.fromisoformat(text)


_INTERVAL = re.compile(
    r"(?:([+-]?\d+) years?)? ?(?:([+-]?\d+) mons?)? ?(?:([+-]?\d+) days?)? ?"
    r"(?:([+-]?)(\d+):(\d\d):(\d\d)(?:\.(\d+))?)?"
)


def read_interval(text: str) -> timedelta:
    """A year is taken as 365 days, a month as 30."""
    match = _INTERVAL.fullmatch(text)
    if not match or not text:
        raise ValueError("not an interval in PostgreSQL's own style: %r" % text)
    years, months, days, hours, minutes, seconds = (int(match[i] or 0) for i in (1, 2, 3, 5, 6, 7))
    clock = timedelta(0, seconds, int((match[8] or "").ljust(6, "0")), 0, minutes, hours)
    return timedelta(365 * years + 30 * months + days) + (-clock if match[4] == "-" else clock)


def write_interval(value: timedelta) -> str:
    return "%d days %d.%06d seconds" % (value.days, value.seconds, value.microseconds)


def read_bytes(text: str) -> bytes:
    return bytes.fromhex(text[2:])


# A brace, a comma, a quoted element, or another.
_ELEMENT = re.compile(r'([{},])|"((?:[^"\\]|\\.)*)"|([^{},"]+)', re.DOTALL)


def read_array(text: str, read: Reader) -> List[Any]:
    """Lists in lists, as deep as the array has dimensions. Bounds other than 1 are not kept."""
    lists: List[List[Any]] = [[]]
    for brace, quoted, plain in _ELEMENT.findall(text[text.index("{"):]):
        if brace == "{":
            lists.append([])
        elif brace == "}":
            done = lists.pop()
            lists[-1].append(done)
        elif plain:
            lists[-1].append(None if plain == "NULL" else read(plain))
        elif not brace:
            lists[-1].append(read(re.sub(r"\\(.)", r"\1", quoted, flags=re.DOTALL)))
    (array,) = lists[0]
    return list(array)


def write_array(value: Any) -> str:
    """An array literal of a list, or an element of one."""
    if value is None:
        return "NULL"
    if isinstance(value, (list, tuple)):
        return "{%s}" % ",".join(map(write_array, value))
    text = "\\x" + value.hex() if isinstance(value, bytes) else str(value)
    return '"%s"' % text.replace("\\", "\\\\").replace('"', '\\"')


_BOUND = r'(?:"((?:[^"\\]|\\.|"")*)"|([^,()\[\]"]*))'
_RANGE = re.compile(r"([\[(])%s,%s([\])])" % (_BOUND, _BOUND))


def read_ranges(text: str, read: Reader) -> List[Tuple[Any, Any, str]]:
    """The lower bounds, the upper ones, and which of them belong to the ranges of a text."""

    def bound(quoted: str, plain: str) -> Optional[Any]:
        value = re.sub(r'[\\"](.)', r"\1", quoted) or plain
        return read(value) if value else None

    return [
        (bound(*found[1:3]), bound(*found[3:5]), found[0] + found[5])
        for found in _RANGE.findall(text)
    ]
