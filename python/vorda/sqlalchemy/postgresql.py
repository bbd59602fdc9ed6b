# mypy: disable-error-code="import-not-found, misc, type-arg, no-untyped-call"
# mypy: no-disallow-subclassing-any
"""The dialect postgresql+vorda."""

from datetime import datetime, timedelta, timezone
from decimal import Decimal
from typing import Any, Callable, Dict
from uuid import UUID

from sqlalchemy import cast, extract, literal_column, type_coerce, types
from sqlalchemy.dialects import postgresql
from sqlalchemy.dialects.postgresql import base, json, ranges
from sqlalchemy.sql.elements import Label
from sqlalchemy.sql.visitors import replacement_traverse

from . import common
from . import postgresql_texts as texts

_EPOCH = datetime(1970, 1, 1, tzinfo=timezone.utc)


def _cast(*names: str) -> Dict[Any, Any]:
    """Types whose parameters are sent with a cast: a bare one is of the type of its value."""
    found = [getattr(types, name) for name in names if hasattr(types, name)]
    return {kind: type("_" + kind.__name__, (kind,), {"render_bind_cast": True}) for kind in found}


def _isoformat(value: Any) -> Any:
    """With its time zone, if it has one, which the ODBC types have not."""
    return value if getattr(value, "tzinfo", None) is None else value.isoformat()


def _from_text(read: Callable[[str], Any]) -> Callable[[Any], Any]:
    return lambda value: read(value) if isinstance(value, str) else value


class _DateTime(types.DateTime):
    """ODBC drops the time zone: a column that has one is read as microseconds since 1970."""

    render_bind_cast = True

    @property
    def _has_column_expression(self) -> bool:
        return bool(self.timezone)

    def column_expression(self, column: Any) -> Any:
        micros = cast(extract("epoch", column) * literal_column("1000000"), types.BigInteger)
        return type_coerce(micros, column.type)

    def bind_processor(self, dialect: Any) -> Any:
        return _isoformat if self.timezone else None

    def result_processor(self, dialect: Any, coltype: Any) -> Any:
        def process(value: Any) -> Any:
            return _EPOCH + timedelta(microseconds=value) if isinstance(value, int) else value

        return process if self.timezone else None


class _Time(types.Time):
    render_bind_cast = True

    def bind_processor(self, dialect: Any) -> Any:
        return _isoformat if self.timezone else None

    def result_processor(self, dialect: Any, coltype: Any) -> Any:
        return _from_text(texts.read_time) if self.timezone else None


class _Interval(postgresql.INTERVAL):
    render_bind_cast = True

    @classmethod
    def adapt_emulated_to_native(cls, *impl: Any, **kw: Any) -> Any:
        return cls(precision=impl[0].second_precision)

    def bind_processor(self, dialect: Any) -> Any:
        return lambda value: texts.write_interval(value) if isinstance(value, timedelta) else value

    def result_processor(self, dialect: Any, coltype: Any) -> Any:
        return _from_text(texts.read_interval)


class _Numeric(common.Numeric):
    render_bind_cast = True


class _Float(common.Float):
    render_bind_cast = True


class _Json(json.JSON):
    render_bind_cast = True


class _Jsonb(json.JSONB):
    render_bind_cast = True


class _Enum(postgresql.ENUM):
    render_bind_cast = True


# How an element is read that is of one of these types; others are texts.
_READERS = (
    (types.Boolean, lambda text: text == "t"),
    (types.Integer, int),
    (types.Float, float),
    (types.Numeric, Decimal),
    (types.DateTime, texts.read_datetime),
    (types.Date, texts.read_date),
    (types.Time, texts.read_time),
    (types.LargeBinary, texts.read_bytes),
    (postgresql.UUID, UUID),
    (getattr(types, "Uuid", postgresql.UUID), UUID),
)


def _reader(kind: Any) -> Any:
    return next((read for base, read in _READERS if isinstance(kind, base)), str)


class _Array(postgresql.ARRAY):
    render_bind_cast = True

    def bind_processor(self, dialect: Any) -> Any:
        process = super().bind_processor(dialect)
        return lambda value: None if value is None else texts.write_array(process(value))

    def result_processor(self, dialect: Any, coltype: Any) -> Any:
        process = super().result_processor(dialect, coltype)
        read = _reader(self.item_type.dialect_impl(dialect))
        parse = _from_text(lambda text: texts.read_array(text, read))
        return lambda value: process(parse(value))


_COLSPECS: Dict[Any, Any] = {
    **base.PGDialect.colspecs,
    **_cast("String", "Integer", "SmallInteger", "BigInteger", "Boolean", "Date", "LargeBinary"),
    types.DateTime: _DateTime,
    types.Time: _Time,
    types.Interval: _Interval,
    postgresql.INTERVAL: _Interval,
    types.Numeric: _Numeric,
    types.Float: _Float,
    types.JSON: _Json,
    json.JSON: _Json,
    json.JSONB: _Jsonb,
    types.Enum: _Enum,
    types.ARRAY: _Array,
    postgresql.ARRAY: _Array,
}
_Compiler: Any = type("_Compiler", (), {})
_Reflection: Any = type("_Reflection", (), {})
if hasattr(ranges, "AbstractSingleRangeImpl"):
    from . import postgresql_ranges

    _COLSPECS.update(postgresql_ranges.COLSPECS)
else:
    from . import postgresql_14

    _Compiler, _Reflection = postgresql_14.Compiler, postgresql_14.Reflection


class PGCompiler_vorda(_Compiler, base.PGCompiler):
    def render_bind_cast(self, type_: Any, dbapi_type: Any, sqltext: str) -> Any:
        if isinstance(dbapi_type, _Numeric):
            dbapi_type = _Numeric()  # to no scale: nothing is rounded
        elif isinstance(dbapi_type, types.String) and not isinstance(dbapi_type, types.Enum):
            dbapi_type = types.String()  # and to no length
        compiler = self.dialect.type_compiler
        name = compiler.process(dbapi_type, identifier_preparer=self.preparer)
        return "%s::%s" % (sqltext, name)

    def order_by_clause(self, select: Any, **kw: Any) -> Any:
        # DISTINCT orders by what is selected: by microseconds, where it is those.
        clause = select._order_by_clause
        if len(self.stack) > 1 or not getattr(select, "_distinct", False) or select._distinct_on:
            return super().order_by_clause(select, **kw)
        columns = list(select.inner_columns)
        selected = {*columns, *(column.element for column in columns if isinstance(column, Label))}

        def replace(element: Any, **_: Any) -> Any:
            if element not in selected or isinstance(element, Label):
                return None
            impl = element.type.dialect_impl(self.dialect)
            return impl.column_expression(element) if impl._has_column_expression else None

        sql = self.process(replacement_traverse(clause, {}, replace), **kw)
        return " ORDER BY " + sql if sql else ""

    def visit_custom_op_binary(self, element: Any, operator: Any, **kw: Any) -> Any:
        function = _FUNCTIONS.get(operator.opstring)
        if not function:
            return super().visit_custom_op_binary(element, operator, **kw)
        both = (self.process(side, **kw) for side in (element.left, element.right))
        return "%s(%s)" % (function, ", ".join(both))


# Operators that would be taken for markers.
_FUNCTIONS = {"?": "jsonb_exists", "?|": "jsonb_exists_any", "?&": "jsonb_exists_all"}


class PGDialect_vorda(common.Dialect, _Reflection, base.PGDialect):
    supports_statement_cache = True
    statement_compiler = PGCompiler_vorda
    colspecs = _COLSPECS
    odbc_driver = "PostgreSQL Unicode"
    odbc_keys = {
        "host": "Servername",
        "port": "Port",
        "database": "Database",
        "username": "UID",
        "password": "PWD",
    }
    # The server was stopped, has crashed, or is not up yet.
    lost_states = frozenset(("57P01", "57P02", "57P03"))

    def set_readonly(self, connection: Any, value: bool) -> None:
        self._characterize(connection, "READ ONLY" if value else "READ WRITE")

    def get_readonly(self, connection: Any) -> bool:
        return self._shows(connection, "transaction_read_only")

    def set_deferrable(self, connection: Any, value: bool) -> None:
        self._characterize(connection, "DEFERRABLE" if value else "NOT DEFERRABLE")

    def get_deferrable(self, connection: Any) -> bool:
        return self._shows(connection, "transaction_deferrable")

    @staticmethod
    def _characterize(connection: Any, words: str) -> None:
        connection.execute("SET SESSION CHARACTERISTICS AS TRANSACTION " + words).close()
        connection.commit()

    @staticmethod
    def _shows(connection: Any, name: str) -> bool:
        return bool(connection.execute("SHOW " + name).fetchall() == [("on",)])


dialect = PGDialect_vorda
