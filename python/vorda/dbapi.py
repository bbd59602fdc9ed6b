"""DB-API 2.0 in full, on any runtime: SQLite files, and every ODBC data source.

    from vorda import dbapi
    with dbapi.connect("shop.db") as connection:
        connection.execute("INSERT INTO item VALUES (?, ?)", ("nail", Decimal("0.02")))

This is the face; what has to be fast is in the core, vorda._statement.
"""

import collections.abc
import datetime
import enum
import functools
import io
import operator
import os
import re
import time
from decimal import Decimal
from typing import (
    Any,
    Callable,
    Dict,
    FrozenSet,
    List,
    Optional,
    Sequence,
    Tuple,
    Type,
    Union,
)
from uuid import UUID

from . import __version__ as __version__
from . import _statement
from .catalog import CatalogCursor
from .statements import Splitter

__all__ = [
    "__version__", "apilevel", "threadsafety", "paramstyle", "connect", "Connection", "Cursor",
    "Warning", "Error", "InterfaceError", "DatabaseError", "DataError", "OperationalError",
    "IntegrityError", "InternalError", "ProgrammingError", "NotSupportedError",
    "Date", "Time", "Timestamp", "DateFromTicks", "TimeFromTicks", "TimestampFromTicks", "Binary",
    "STRING", "BINARY", "NUMBER", "DATETIME", "ROWID", "Row", "dict_row", "register_adapter", "Out",
    "ingest",
]

apilevel = "2.0"
threadsafety = 2
paramstyle = "qmark"


# --- errors -------------------------------------------------------------------------------------


class Warning(Exception):
    """Never raised: what a driver remarks on a connection is a UserWarning."""


class Error(Exception):
    """What all errors of this module are, with `sqlstate` and `native_code` from the driver."""

    sqlstate: Optional[str] = None
    native_code: Optional[int] = None


class InterfaceError(Error):
    """The driver or the runtime, not the database, is in trouble; or a closed cursor was used."""


class DatabaseError(Error):
    """The database refused, for a reason that no other class stands for."""


class DataError(DatabaseError):
    """A value does not fit."""


class OperationalError(DatabaseError):
    """The connection, a lock, time, space: what may go well another time."""


class IntegrityError(DatabaseError):
    """A constraint does not hold."""


class InternalError(DatabaseError):
    """The database, or the transaction, is not in order."""


class ProgrammingError(DatabaseError):
    """The statement, its parameters, or the order of calls is wrong."""


class NotSupportedError(DatabaseError):
    """The database or its driver cannot do this."""


# By the longest beginning of the SQLSTATE.
_BY_STATE: Dict[str, Type[Error]] = {
    **dict.fromkeys(("22",), DataError),
    **dict.fromkeys(("23",), IntegrityError),
    **dict.fromkeys(
        (
            "08",
            "25006",
            "28",
            "40",
            "53",
            "54",
            "55",
            "57",
            "58",
            "HY001",
            "HY008",
            "HY013",
            "HYT",
            "HY018",
        ),
        OperationalError,
    ),
    **dict.fromkeys(
        ("07", "21", "26", "3D", "3F", "42", "44", "HY009", "HY010", "HY011", "HY090"),
        ProgrammingError,
    ),
    **dict.fromkeys(("0A", "HYC", "IM001"), NotSupportedError),
    **dict.fromkeys(("25", "2D", "3B", "F0", "P0", "XX"), InternalError),
    **dict.fromkeys(("24", "IM"), InterfaceError),
}

# MariaDB's own codes for what it has no SQLSTATE for: an error during COMMIT, which a node that is
# cut off from the others gives, too; a lock that was waited for too long; a statement that went
# with its transaction while it was prepared.
_BY_CODE: Dict[Tuple[str, int], Type[Error]] = {
    ("HY000", 1180): OperationalError,
    ("HY000", 1205): OperationalError,
    ("HY000", 1243): OperationalError,
}


def _failure(
    records: List[Tuple[str, int, str]],
    by_code: Dict[Tuple[str, int], Type[Error]] = _BY_CODE,
    by_state: Dict[str, Type[Error]] = _BY_STATE,
    other: Type[Error] = DatabaseError,
) -> Error:
    """The exception for what a driver says; called by the core, at the interpreter's end too."""
    state, native, _ = records[0]
    kind = (by_code.get((state, native)) or by_state.get(state) or by_state.get(state[:3])
            or by_state.get(state[:2]))
    error = (kind or other)("\n".join(words for _, _, words in records))
    error.sqlstate, error.native_code = state, native
    return error


# --- values -------------------------------------------------------------------------------------

Date = datetime.date
Time = datetime.time
Timestamp = datetime.datetime
Binary = bytes


def DateFromTicks(ticks: float) -> datetime.date:
    """The local date of a time in seconds since 1970."""
    return Date(*time.localtime(ticks)[:3])


def TimeFromTicks(ticks: float) -> datetime.time:
    """The local time of day of a time in seconds since 1970."""
    return Time(*time.localtime(ticks)[3:6])


def TimestampFromTicks(ticks: float) -> datetime.datetime:
    """The local date and time of a time in seconds since 1970."""
    return Timestamp(*time.localtime(ticks)[:6])


class _Types(FrozenSet[type]):
    """Equals each of the types it holds, which are those in descriptions."""

    def __eq__(self, other: object) -> bool:
        return other in self if isinstance(other, type) else frozenset.__eq__(self, other)

    def __ne__(self, other: object) -> bool:
        return not self == other

    __hash__ = frozenset.__hash__


STRING = _Types({str, UUID})
BINARY = _Types({bytes})
NUMBER = _Types({bool, int, float, Decimal})
DATETIME = _Types({datetime.date, datetime.time, datetime.datetime})
ROWID = _Types()

_Adapter = Callable[[Any], Any]


def _whole_microseconds(value: Any) -> datetime.datetime:
    if not isinstance(value.year, int):
        raise DataError("%r is no time" % (value,))
    if getattr(value, "nanosecond", 0):
        raise DataError("%r has nanoseconds, which datetime has not" % (value,))
    return datetime.datetime.combine(value.date(), value.timetz())


_adapters: Dict[type, _Adapter] = {
    int: int,
    float: float,
    str: str.__str__,
    bytes: bytes,
    bytearray: bytes,
    memoryview: bytes,
    datetime.datetime: _whole_microseconds,
    datetime.date: lambda value: value,
    datetime.time: lambda value: value,
    Decimal: lambda value: value,
    UUID: str,
    enum.Enum: operator.attrgetter("value"),
}


def register_adapter(type: type, function: _Adapter, /) -> None:
    """Have `function` make of each value of a type, or of a derived one, what can be sent."""
    _adapters[type] = function


def _adapt(value: Any, position: int) -> Any:
    """Makes a value one that the core sends; called by the core for all but the plainest."""
    for _ in range(_MOST_ADAPTERS):
        base = next((base for base in type(value).__mro__ if base in _adapters), None)
        if base is None:
            return _number_of_numpy(value, position)
        try:
            value = _adapters[base](value)
        except DataError as error:
            raise DataError("Parameter %d: %s" % (position, error)) from None
        if base in _PLAIN or type(value) in _SENT:
            return value
    raise ProgrammingError(
        "Parameter %d: the adapter for type %s always gives one that has to be adapted"
        % (position, type(value).__qualname__)
    )


def _number_of_numpy(value: Any, position: int) -> Any:
    if (
        type(value).__module__ == "numpy"
        and hasattr(value, "item")
        and not getattr(value, "ndim", 1)
    ):
        made = value.item()
        if isinstance(made, (bool, int, float, str, bytes)) and made == value:
            return made
    raise ProgrammingError(
        "Parameter %d: a value of type %s cannot be sent; register_adapter() makes it one that can"
        % (position, type(value).__qualname__)
    )


_PLAIN = {
    int,
    float,
    str,
    bytes,
    bytearray,
    memoryview,
    datetime.datetime,
    datetime.date,
    datetime.time,
    Decimal,
    UUID,
}
_SENT = (type(None), bool, int, float, str, bytes)
_MOST_ADAPTERS = 100  # one behind the other


# --- named markers ------------------------------------------------------------------------------

_STRING, _QUOTED, _BACKTICKS = r"'(?:[^']|'')*'", r'"(?:[^"]|"")*"', r"`(?:[^`]|``)*`"
_DASHES, _COMMENT = r"--[^\n]*", r"/\*.*?(?:\*/|\Z)"
# What may hide a colon, by the product's name; plain SQL for others.
_HIDING = {
    "SQLite": [_STRING, _QUOTED, _BACKTICKS, r"\[[^]]*\]", _DASHES, _COMMENT],
    "PostgreSQL": [
        r"(?<![\w$])[eE]'(?:[^'\\]|\\.|'')*'",
        _STRING,
        _QUOTED,
        _DASHES,
        r"/\*(?:(?!/\*|\*/).|/\*.*?\*/)*\*/",
        r"(?<![\w$])(?P<quote>\$(?:[^\W\d]\w*)?\$).*?(?P=quote)",
    ],
    "MariaDB": [
        r"'(?:[^'\\]|\\.|'')*'",
        r'"(?:[^"\\]|\\.|"")*"',
        _BACKTICKS,
        r"--(?=\s|\Z)[^\n]*",
        r"\#[^\n]*",
        _COMMENT,
    ],
}
_HIDING["MySQL"] = _HIDING["MariaDB"]


@functools.lru_cache(maxsize=None)
def _reader(dbms: str) -> "re.Pattern[str]":
    hiding = _HIDING.get(dbms, [_STRING, _QUOTED, _DASHES, _COMMENT])
    return re.compile("|".join([*hiding, r"(?<![\w:]):(?P<name>[^\W\d]\w*)"]), re.DOTALL)


@functools.lru_cache(maxsize=128)
def _plain_markers(sql: str, dbms: str) -> Tuple[str, Tuple[str, ...]]:
    names: List[str] = []

    def replaced(match: "re.Match[str]") -> str:
        if match["name"] is None:
            return match[0]
        names.append(match["name"])
        return "?"

    return _reader(dbms).sub(replaced, sql), tuple(names)


def _positional(sql: str, given: Any, dbms: str) -> Tuple[str, Sequence[Any]]:
    """Statement and values for plain markers; called by the core for what is no tuple or list."""
    if isinstance(given, (dict, collections.abc.Mapping)):
        text, names = _plain_markers(sql, dbms)
        try:
            return text, tuple(map(given.__getitem__, names))
        except KeyError as error:
            if not error.args or error.args[0] not in names:
                raise  # by what the mapping does itself
            raise ProgrammingError(
                "The statement has a marker for which there is no value: %s" % error
            ) from None
    if isinstance(given, (str, bytes, bytearray, memoryview)) or not hasattr(given, "__getitem__"):
        raise ProgrammingError(
            "The parameters are a %s: they must be a sequence or a mapping"
            % type(given).__qualname__
        )
    return sql, tuple(given)


# What begins or ends a transaction, at the beginning of a statement; called by the core.
_ends_transaction = re.compile(
    r"(?:[\s;]|--[^\n]*\n|\#[^\n]*\n|/\*.*?\*/)*"
    r"(?:BEGIN|START|COMMIT|END|ABORT|ROLLBACK(?!(?:\s+(?:WORK|TRANSACTION))?\s+TO\b))\b",
    re.DOTALL | re.IGNORECASE,
).match


# --- rows ---------------------------------------------------------------------------------------


class Row(Tuple[Any, ...]):
    """A row whose values can be had by name, too; a row_factory that makes rows such."""

    __slots__ = ()
    _fields: Tuple[str, ...] = ()

    def __new__(cls, cursor: Any) -> Any:
        """The type of the rows of a cursor's result."""
        return _row_type(_names(cursor))

    def __getitem__(self, key: Any) -> Any:
        if isinstance(key, str):
            try:
                return tuple.__getitem__(self, self._fields.index(key))
            except ValueError:
                raise KeyError(key) from None
        return tuple.__getitem__(self, key)

    def __getattr__(self, name: str) -> Any:
        try:
            return tuple.__getitem__(self, self._fields.index(name))
        except ValueError:
            raise AttributeError("the row has no column %r" % name) from None

    def keys(self) -> Tuple[str, ...]:
        """The names of the columns."""
        return self._fields

    def _asdict(self) -> Dict[str, Any]:
        return dict(zip(self._fields, self))

    def __repr__(self) -> str:
        return "Row(%s)" % ", ".join("%s=%r" % pair for pair in zip(self._fields, self))

    def __reduce__(self) -> Any:
        return _row_again, (self._fields, tuple(self))


@functools.lru_cache(maxsize=128)
def _row_type(names: Tuple[str, ...]) -> type:
    return type(
        "Row",
        (Row,),
        {"__slots__": (), "__new__": tuple.__new__, "_fields": names, "__module__": __name__},
    )


def _row_again(names: Tuple[str, ...], values: Tuple[Any, ...]) -> Any:
    return _row_type(names)(values)


def _names(cursor: Any) -> Tuple[str, ...]:
    return tuple(column[0] for column in cursor.description or ())


def dict_row(cursor: Any) -> Callable[[Tuple[Any, ...]], Dict[str, Any]]:
    """A row_factory: rows are dictionaries."""
    names = _names(cursor)
    return lambda values: dict(zip(names, values))


# --- connections and cursors --------------------------------------------------------------------


def _log(operation: str, values: int, rows: int, seconds: float, failed: bool) -> None:
    """Tells what was executed, and no value of it; called by the core if somebody listens."""
    import logging

    logging.getLogger("vorda").debug(
        "%s [%d values, %s, %.3f ms]",
        operation,
        values,
        "failed" if failed else "query" if rows < 0 else "%d rows" % rows,
        seconds * 1e3,
    )


_PROCEDURE = re.compile(
    r"""(?:[\w$]+|"[^"]+"|`[^`]+`|\[[^]]+\])(?:\.(?:[\w$]+|"[^"]+"|`[^`]+`|\[[^]]+\]))*"""
)


class Out:
    """An output parameter of callproc(); of one that takes a value in, too, with that value."""

    __slots__ = ("value",)

    def __init__(self, value: Any = None, /) -> None:
        self.value = value


class Cursor(CatalogCursor):
    """Runs statements and gives their rows. Made by Connection.cursor()."""

    __slots__ = ()

    def callproc(self, name: str, parameters: Sequence[Any] = (), /) -> List[Any]:
        """Call a stored procedure, whose rows can then be fetched.

        Returns the parameters; those given as Out() are replaced with what they are afterwards.
        """
        if not _PROCEDURE.fullmatch(name):
            raise ProgrammingError("%r is no name of a procedure" % name)
        result = [given.value if isinstance(given, Out) else given for given in parameters]
        outputs = [i for i, given in enumerate(parameters) if isinstance(given, Out)]
        if outputs and self.connection._dbms != "PostgreSQL":
            raise NotSupportedError(
                "There are no output parameters here, or none but as a row to fetch"
            )
        call = "CALL %s(%s)" if outputs else "EXECUTE %s %s"
        self.execute(call % (name, ", ".join("?" * len(result))), result)
        if outputs:
            for i, value in zip(outputs, self._output_row(len(outputs))):
                result[i] = value
        return result

    def _output_row(self, width: int) -> Tuple[Any, ...]:
        """The row in which PostgreSQL tells output parameters."""
        factory, self.row_factory = self.row_factory, None
        try:
            rows = self.fetchall() if self.description else []
        finally:
            self.row_factory = factory
        if len(rows) != 1 or len(rows[0]) != width:
            raise ProgrammingError("The procedure has not %d output parameter(s)" % width)
        return tuple(rows[0])

    def executescript(self, script: str, /) -> "Cursor":
        """Run the statements of a script one by one, as SQLite would read them."""
        if not isinstance(script, str):
            raise TypeError("executescript() takes a script as str")
        splitter = Splitter()
        for line in io.StringIO(script):
            for statement in splitter.feed(line):
                self.execute(statement)
        for statement in splitter.finish():
            self.execute(statement)
        return self

    def __enter__(self) -> "Cursor":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()


class Connection(_statement.Connection):
    """A connection to a database. Made by connect().

    As a context manager it commits, or rolls back after an exception; it stays open.
    """

    Warning = Warning
    Error = Error
    InterfaceError = InterfaceError
    DatabaseError = DatabaseError
    DataError = DataError
    OperationalError = OperationalError
    IntegrityError = IntegrityError
    InternalError = InternalError
    ProgrammingError = ProgrammingError
    NotSupportedError = NotSupportedError

    def cursor(self) -> Cursor:
        """A new cursor, which has a statement of its own."""
        return Cursor(self)

    def execute(self, operation: str, parameters: Any = None, /) -> Cursor:
        """Run a statement with a new cursor, and return that."""
        return Cursor(self).execute(operation, parameters)

    def executemany(self, operation: str, seq_of_parameters: Any, /) -> Cursor:
        """Run a statement for many rows, or Arrow data, with a new cursor, and return that."""
        return Cursor(self).executemany(operation, seq_of_parameters)

    def executescript(self, script: str, /) -> Cursor:
        """Run a script with a new cursor, and return that."""
        return Cursor(self).executescript(script)

    def __enter__(self) -> "Connection":
        return self

    def __exit__(self, kind: Optional[type], *_: object) -> None:
        if kind is None:
            self.commit()
        else:
            self.rollback()


def _quoted(value: object) -> str:
    text = str(value)
    if re.search(r"[;{}=\s]", text) or not text:
        return "{%s}" % text.replace("}", "}}")
    return text


def connect(
    connection_string: Union[str, "os.PathLike[str]", None] = None,
    /,
    *,
    autocommit: bool = False,
    timeout: Optional[float] = None,
    **keys: object,
) -> Connection:
    """Connect to a database.

    The connection string is the provider's, or the path of a SQLite file, or ":memory:". Keys
    are added to it, but those of None: connect(Database="shop.db"). Without autocommit, changes are
    made to last by commit(). What takes longer than `timeout` seconds, connecting or a statement,
    is ended.
    """
    parts = []
    if connection_string:
        text = os.fspath(connection_string)
        is_path = text is not connection_string or "=" not in text
        parts.append("Database=" + _quoted(text) if is_path else text.rstrip("; "))
    parts.extend("%s=%s" % (k, _quoted(value)) for k, value in keys.items() if value is not None)
    if not parts:
        raise ProgrammingError("connect() needs a connection string, a path or keys")
    return Connection(";".join(parts), autocommit, timeout or 0)


def ingest(connection: Connection, table: str, data: Any, /) -> int:
    """Store all rows of Arrow data in a table, or none; returns how many.

    The data are any object with __arrow_c_stream__ or __arrow_c_array__: frames of pandas and
    polars, tables of pyarrow, results of DuckDB, fetch_arrow(). The columns go by their names; a
    table that is not there is made. As with executemany, commit() makes it last.
    """
    from . import frames

    return frames.ingest(connection, table, data)


_statement._set_face(
    {
        "_failure": _failure,
        "_adapt": _adapt,
        "_positional": _positional,
        "_ends_transaction": _ends_transaction,
        "_log": _log,
    }
)
