# mypy: disable-error-code="import-not-found, misc, type-arg, no-untyped-call"
# mypy: no-disallow-subclassing-any
"""The dialect sqlite+vorda."""

import os
import types as python_types
from decimal import Decimal
from functools import lru_cache
from typing import Any, Dict, Optional, Tuple

from sqlalchemy import exc, pool, types
from sqlalchemy.dialects.sqlite import base

from .. import dbapi as vorda_dbapi
from . import common


def _read(plain: Any) -> Any:
    """A result processor for what comes as a text, as that of an expression does."""

    def process(value: Any) -> Any:
        return plain(value) if isinstance(value, str) else value

    return process


def _number(value: Any) -> Any:
    """A decimal as the double that says the same, where there is one: SQLite computes with it."""
    if not isinstance(value, Decimal):
        return value
    real = float(value)
    return real if Decimal(repr(real)) == value else value


# In a file these stand as texts, in the format of SQLAlchemy's other dialects for SQLite, so that
# values of both compare as equal. Columns declared as such are read without those texts.
class _Date(base.DATE):
    def result_processor(self, dialect: Any, coltype: Any) -> Any:
        return _read(super().result_processor(dialect, coltype))


class _DateTime(base.DATETIME):
    def result_processor(self, dialect: Any, coltype: Any) -> Any:
        return _read(super().result_processor(dialect, coltype))


class _Time(base.TIME):
    def result_processor(self, dialect: Any, coltype: Any) -> Any:
        return _read(super().result_processor(dialect, coltype))


class _Numeric(common.Numeric):
    def bind_processor(self, dialect: Any) -> Any:
        return _number


class _Float(common.Float):
    def bind_processor(self, dialect: Any) -> Any:
        return _number


class SQLiteExecutionContext_vorda(base.SQLiteExecutionContext):
    last_row: Optional[int] = None  # which a closed cursor knows no more

    def get_lastrowid(self) -> Any:
        return self.last_row


@lru_cache(maxsize=None)
def _module() -> python_types.ModuleType:
    """The driver, with the version of SQLite where SQLAlchemy looks for it."""
    module = python_types.ModuleType(vorda_dbapi.__name__)
    vars(module).update(vars(vorda_dbapi))
    connection = vorda_dbapi.connect(":memory:")
    version = connection.execute("SELECT sqlite_version()").fetchone()[0]
    connection.close()
    vars(module)["sqlite_version_info"] = tuple(map(int, version.split(".")))
    return module


class SQLiteDialect_vorda(common.Dialect, base.SQLiteDialect):
    supports_statement_cache = True
    # SQLAlchemy 1.4 has no RETURNING here.
    supports_sane_rowcount_returning = common.IS_OLD
    execution_ctx_cls = SQLiteExecutionContext_vorda
    colspecs = {
        **base.SQLiteDialect.colspecs,
        types.Date: _Date,
        types.DateTime: _DateTime,
        types.Time: _Time,
        types.Numeric: _Numeric,
        types.Float: _Float,
    }

    @classmethod
    def import_dbapi(cls) -> Any:
        return _module()

    @staticmethod
    def _is_url_file_db(url: Any) -> bool:
        return bool(url.database) and url.database != ":memory:"

    @classmethod
    def get_pool_class(cls, url: Any) -> Any:
        is_shared = cls._is_url_file_db(url) or "dsn" in url.query
        return pool.QueuePool if is_shared else pool.SingletonThreadPool

    def connection_keys(self, url: Any) -> Dict[str, Any]:
        if url.username or url.password or url.host or url.port:
            raise exc.ArgumentError("A URL for SQLite is sqlite+vorda:///path, not %s" % url)
        return {"Database": os.path.abspath(url.database)} if self._is_url_file_db(url) else {}

    def default_source(self) -> Dict[str, Any]:
        return {"Database": ":memory:"}

    def do_execute(self, cursor: Any, statement: str, given: Any, context: Any = None) -> None:
        cursor.execute(statement, given)
        if context is not None and cursor.rowcount > 0:
            context.last_row = cursor.lastrowid

    def _get_server_version_info(self, connection: Any) -> Tuple[int, ...]:
        return tuple(self.import_dbapi().sqlite_version_info)


dialect = SQLiteDialect_vorda
