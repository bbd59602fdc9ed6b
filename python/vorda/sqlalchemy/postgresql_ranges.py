# mypy: disable-error-code="import-not-found, misc, type-arg, no-untyped-call"
# mypy: no-disallow-subclassing-any
"""Ranges of PostgreSQL, as SQLAlchemy has them from 2.0 on."""

from decimal import Decimal
from typing import Any, Callable, Dict

from sqlalchemy.dialects.postgresql import pg_catalog, ranges

from . import postgresql_texts as texts

# By how the name of a type of ranges begins.
_READERS: Dict[str, Callable[[str], Any]] = {
    "INT": int,
    "NUM": Decimal,
    "DAT": texts.read_date,
    "TST": texts.read_datetime,
    "TSR": texts.read_datetime,
    "TSM": texts.read_datetime,
}


def _ranges(kind: Any) -> Any:
    read = _READERS[kind.__visit_name__[:3]]

    def process(text: str) -> Any:
        if text == "empty":
            return [ranges.Range(empty=True)]
        found: Any = texts.read_ranges(text, read)
        return [ranges.Range(low, high, bounds=ends) for low, high, ends in found]

    return process


class _Range(ranges.AbstractSingleRangeImpl):
    render_bind_cast = True

    def bind_processor(self, dialect: Any) -> Any:
        return lambda value: None if value is None else str(value)

    def result_processor(self, dialect: Any, coltype: Any) -> Any:
        process = _ranges(self)
        return lambda value: None if value is None else process(value)[0]


class _MultiRange(ranges.AbstractMultiRangeImpl):
    render_bind_cast = True

    def bind_processor(self, dialect: Any) -> Any:
        def process(value: Any) -> Any:
            return "{%s}" % ",".join(map(str, value)) if isinstance(value, list) else value

        return process

    def result_processor(self, dialect: Any, coltype: Any) -> Any:
        process = _ranges(self)
        return lambda value: None if value is None else ranges.MultiRange(process(value))


class _Oids(pg_catalog._SpaceVector, pg_catalog.OIDVECTOR):
    cache_ok = True


class _SmallIntegers(pg_catalog._SpaceVector, pg_catalog.INT2VECTOR):
    cache_ok = True


COLSPECS = {
    ranges.AbstractSingleRange: _Range,
    ranges.AbstractMultiRange: _MultiRange,
    pg_catalog.OIDVECTOR: _Oids,
    pg_catalog.INT2VECTOR: _SmallIntegers,
}
