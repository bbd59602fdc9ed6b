# mypy: disable-error-code="import-not-found, misc, type-arg, no-untyped-call"
# mypy: no-disallow-subclassing-any
"""What the dialects have in common: connecting, isolation levels, when a connection is gone, and
decimals."""

from decimal import Context, Decimal
from typing import Any, Dict, FrozenSet, List, Tuple

import sqlalchemy
from sqlalchemy import exc, types

from .. import dbapi as vorda_dbapi

IS_OLD = sqlalchemy.__version__.startswith("1.")

# Keys of a URL that dbapi.connect() would take for its own arguments.
_OTHER_CASE = {"timeout": "Timeout", "autocommit": "Autocommit"}


def _own(connection: Any) -> Any:
    """The connection itself, where SQLAlchemy 1.4 gives its pool's one."""
    return getattr(connection, "dbapi_connection", connection)


class Dialect:
    """Stands before SQLAlchemy's own dialect of the database among the bases of one on vorda."""

    driver = "vorda"
    default_paramstyle = "qmark"
    supports_statement_cache = True
    supports_native_decimal = True
    # What a driver says besides class 08 when its connection is gone.
    lost_states: FrozenSet[str] = frozenset()
    lost_codes: FrozenSet[int] = frozenset()
    # The ODBC driver if the URL names none and no data source, and what it calls the URL's parts.
    odbc_driver = ""
    odbc_keys: Dict[str, str] = {}

    @classmethod
    def import_dbapi(cls) -> Any:
        return vorda_dbapi

    if IS_OLD:

        @classmethod
        def dbapi(cls) -> Any:
            return cls.import_dbapi()

    def create_connect_args(self, url: Any) -> Tuple[List[Any], Dict[str, Any]]:
        keys = {}
        for key, value in url.query.items():
            if not isinstance(value, str):
                raise exc.ArgumentError("The URL has the key %r twice" % key)
            keys[_OTHER_CASE.get(key, key)] = value
        parts = self.connection_keys(url)
        if not {"dsn", "filedsn", "driver"} & {key.lower() for key in keys}:
            parts = {**self.default_source(), **parts}
        return [], {**parts, **keys}

    def connection_keys(self, url: Any) -> Dict[str, Any]:
        """The parts of a URL as connection keys."""
        parts = {key: getattr(url, part) for part, key in self.odbc_keys.items()}
        return {key: value for key, value in parts.items() if value not in (None, "")}

    def default_source(self) -> Dict[str, Any]:
        """Connection keys for a URL that names neither a data source nor a driver."""
        return {"Driver": self.odbc_driver}

    def is_disconnect(self, error: Any, connection: Any, cursor: Any) -> bool:
        state = getattr(error, "sqlstate", None) or ""
        return (
            state.startswith("08")
            or state in self.lost_states
            or getattr(error, "native_code", None) in self.lost_codes
        )

    def get_isolation_level_values(self, connection: Any) -> List[str]:
        parent: Any = super()
        return [*parent.get_isolation_level_values(connection), "AUTOCOMMIT"]

    def get_isolation_level(self, connection: Any) -> Any:
        parent: Any = super()
        connection = _own(connection)
        was_in_transaction = connection.in_transaction
        level = parent.get_isolation_level(connection)
        if not was_in_transaction:
            connection.rollback()
        return level

    def set_isolation_level(self, connection: Any, level: str) -> None:
        parent: Any = super()
        connection = _own(connection)
        connection.autocommit = True
        if level != "AUTOCOMMIT":
            parent.set_isolation_level(connection, level)
            connection.autocommit = False

    def detect_autocommit_setting(self, connection: Any) -> bool:
        return bool(_own(connection).autocommit)

    def do_begin_twophase(self, connection: Any, xid: Any) -> None:
        raise NotImplementedError("Two-phase transactions are not offered.")

    def do_rollback(self, connection: Any) -> None:
        # A connection may come back to its pool while a thread that was given up still uses it.
        connection.cancel()
        parent: Any = super()
        parent.do_rollback(connection)

    def do_terminate(self, connection: Any) -> None:
        connection.cancel()
        connection.close()


# Of more digits than any number here has.
_EXACT = Context(prec=1000)


class _Exact:
    """Stands before SQLAlchemy's own type. Decimals of columns come as such, with as many digits as
    there are; expressions and other columns may give integers and doubles."""

    def bind_processor(self, dialect: Any) -> Any:
        return None

    def result_processor(self, dialect: Any, coltype: Any) -> Any:
        this: Any = self
        if not this.asdecimal:
            return None if coltype is float else _as_float
        digits = "%%.%df" % this._effective_decimal_return_scale
        declared = (getattr(this, "scale", None), this.decimal_return_scale)
        is_declared = any(places is not None for places in declared)
        zero = Decimal(digits % 0) if is_declared else Decimal()

        def process(value: Any) -> Any:
            if value is None:
                return None
            if isinstance(value, float):
                return Decimal(digits % value)
            return _EXACT.add(Decimal(value), zero)

        return process


class Numeric(_Exact, types.Numeric):
    pass


class Float(_Exact, types.Float):
    pass


def _as_float(value: Any) -> Any:
    return None if value is None else float(value)
