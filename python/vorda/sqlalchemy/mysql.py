# mypy: disable-error-code="import-not-found, misc, type-arg, no-untyped-call"
# mypy: no-disallow-subclassing-any
"""The dialects mysql+vorda and mariadb+vorda."""

from datetime import time
from typing import Any, Dict, Optional
from uuid import UUID

from sqlalchemy import types
from sqlalchemy.dialects import mysql
from sqlalchemy.dialects.mysql import base, mariadb
from sqlalchemy.dialects.mysql.types import _FloatType, _IntegerType, _NumericType

from . import common


class _Time(mysql.TIME):
    """A column gives a time, a parameter its text."""

    def result_processor(self, dialect: Any, coltype: Any) -> Any:
        return lambda value: time.fromisoformat(value) if isinstance(value, str) else value


class _Numeric(common.Numeric, mysql.NUMERIC):
    pass


class _Float(common.Float, mysql.FLOAT):
    pass


class _Bit(mysql.BIT):
    """A single bit comes as a bool, several as bytes."""

    def result_processor(self, dialect: Any, coltype: Any) -> Any:
        def process(value: Any) -> Any:
            if value is None:
                return None
            return int.from_bytes(value, "big") if isinstance(value, bytes) else int(value)

        return process


def _as_integer(value: Any) -> Any:
    return None if value is None else int(value)


class _Integer(types.Integer):
    """The upper half of BIGINT UNSIGNED, and so each of its values, comes as a decimal."""

    def result_processor(self, dialect: Any, coltype: Any) -> Any:
        return None if coltype is int else _as_integer


class _MySQLInteger(_IntegerType):
    def result_processor(self, dialect: Any, coltype: Any) -> Any:
        return None if coltype is int else _as_integer


_COLSPECS: Dict[Any, Any] = {
    **base.MySQLDialect.colspecs,
    types.Time: _Time,
    types.Numeric: _Numeric,
    _NumericType: _Numeric,
    types.Float: _Float,
    _FloatType: _Float,
    mysql.BIT: _Bit,
    types.Integer: _Integer,
    _IntegerType: _MySQLInteger,
}
if hasattr(types, "Uuid"):

    class _Uuid(types.Uuid):
        """Comes as a text."""

        def result_processor(self, dialect: Any, coltype: Any) -> Any:
            made = UUID if self.as_uuid else lambda text: str(UUID(text))
            return lambda value: None if value is None else made(value)

    _COLSPECS[types.Uuid] = _Uuid


class MySQLExecutionContext_vorda(base.MySQLExecutionContext):
    last_row: Optional[int] = None

    def post_exec(self) -> None:
        super().post_exec()
        compiled: Any = self.compiled
        if self.isinsert and compiled.postfetch_lastrowid:
            self.last_row = self.get_lastrowid()

    def get_lastrowid(self) -> Any:
        if self.last_row is not None:
            return self.last_row
        connection: Any = self.root_connection.connection
        return int(connection.execute("SELECT LAST_INSERT_ID()").fetchone()[0])


class MySQLCompiler_vorda(base.MySQLCompiler):
    """Writes values where the server takes no marker, or takes one to be of no type."""

    def visit_frame_clause(self, frameclause: Any, **kw: Any) -> Any:
        return super().visit_frame_clause(frameclause, **{**kw, "literal_execute": True})

    # The same before SQLAlchemy 2.1.
    def _format_frame_clause(self, range_: Any, **kw: Any) -> Any:
        return super()._format_frame_clause(range_, **{**kw, "literal_execute": True})

    def visit_values(self, element: Any, *args: Any, **kw: Any) -> Any:
        return super().visit_values(element, *args, **{**kw, "literal_execute": True})


class MySQLDialect_vorda(common.Dialect, base.MySQLDialect):
    supports_statement_cache = True
    statement_compiler = MySQLCompiler_vorda
    execution_ctx_cls = MySQLExecutionContext_vorda
    colspecs = _COLSPECS
    supports_sane_rowcount = True
    supports_sane_multi_rowcount = True
    odbc_driver = "MariaDB Unicode"
    odbc_keys = {
        "host": "Server",
        "port": "Port",
        "database": "Database",
        "username": "UID",
        "password": "PWD",
    }
    # The connection was killed, or the server is gone in one way or another.
    lost_codes = frozenset((1927, 2006, 2013, 2014, 2045, 2055, 4031))

    def connection_keys(self, url: Any) -> Dict[str, Any]:
        given = [value for key, value in url.query.items() if key.lower() in ("option", "options")]
        # Rows that are found are counted, whether or not an UPDATE changes them.
        return {"Option": int(given[0] if given else 0) | 2, **super().connection_keys(url)}

    def do_executemany(self, cursor: Any, statement: str, given: Any, context: Any = None) -> None:
        if any(given):
            cursor.executemany(statement, given)
        else:
            for _ in given:  # of which the driver executes one
                cursor.execute(statement)

    def _extract_error_code(self, exception: Any) -> Any:
        return exception.native_code

    def _detect_charset(self, connection: Any) -> str:
        return "utf8mb4"


class MariaDBDialect_vorda(mariadb.MariaDBDialect, MySQLDialect_vorda):
    supports_statement_cache = True


dialect = MySQLDialect_vorda
mariadb_dialect = MariaDBDialect_vorda
