"""Texts of a file as values of the types that a column may be described by."""

import datetime
import decimal
import math
import re
from typing import Any, Callable, Dict, Tuple

_WHOLE = re.compile(r"[+-]?\d+", re.ASCII)
_NUMBER = re.compile(r"[+-]?(\d+(\.\d*)?|\.\d+)(e[+-]?\d+)?", re.ASCII | re.IGNORECASE)
_INFINITE = re.compile(r"[+-]?inf(inity)?", re.IGNORECASE)
_DATE = r"\d{4}-\d\d-\d\d"
_TIME = r"\d\d:\d\d(:\d\d(\.\d{1,6})?)?"
_TRUE, _FALSE = ("true", "t", "yes", "y", "on", "1"), ("false", "f", "no", "n", "off", "0")
_LONG = 1 << 63
_EXACT_DIGITS = 15  # of a double


def _checked(is_right: Any, text: str) -> str:
    if not is_right:
        raise ValueError(text)
    return text


def truth(text: str) -> bool:
    return _checked(text.strip().lower() in _TRUE + _FALSE, text).strip().lower() in _TRUE


def whole(text: str) -> int:
    value = int(_checked(_WHOLE.fullmatch(text.strip()), text))
    _checked(-_LONG <= value < _LONG, text)
    return value


def real(text: str) -> float:
    is_infinite = _INFINITE.fullmatch(text.strip())
    value = float(_checked(is_infinite or _NUMBER.fullmatch(text.strip()), text))
    _checked(is_infinite or math.isfinite(value), text)
    return value


def exact(text: str) -> decimal.Decimal:
    """SQLite keeps a 64-bit integer, or else a double."""
    value = decimal.Decimal(_checked(_NUMBER.fullmatch(text.strip()), text).strip())
    double = float(value)
    _checked(math.isfinite(double) and bool(double) == bool(value), text)
    digits = "".join(map(str, value.as_tuple().digits)).strip("0")
    is_long = -_LONG <= value < _LONG and value == int(value)
    _checked(len(digits) <= _EXACT_DIGITS or is_long, text)
    return value


def _moment(cls: Any, pattern: str) -> Callable[[str], Any]:
    expression = re.compile(pattern, re.ASCII)

    def parse(text: str) -> Any:
        plain = _checked(expression.fullmatch(text.strip()), text).strip()
        whole_part, dot, fraction = plain.partition(".")
        return cls.fromisoformat(whole_part + dot + fraction.ljust(6, "0") * bool(dot))

    return parse


# By type: what a text must be, and the function that makes a value of it or raises ValueError.
PARSERS: Dict[Any, Tuple[str, Callable[[str], Any]]] = {
    bool: ("true or false", truth),
    bytes: ("pairs of hex digits", bytes.fromhex),
    int: ("whole number of 64 bits", whole),
    float: ("number", real),
    decimal.Decimal: ("number that SQLite keeps exactly (15 digits)", exact),
    datetime.date: ("date like 2026-11-21", _moment(datetime.date, _DATE)),
    datetime.time: ("time like 12:30:00", _moment(datetime.time, _TIME)),
    datetime.datetime: ("time like 2026-11-21 12:30:00",
                        _moment(datetime.datetime, "%s([ T]%s)?" % (_DATE, _TIME))),
}

# A text of these is no value for a server, either.
SENT_AS_VALUES = (bool, bytes)
