"""Tables from Arrow data; the face is dbapi.ingest()."""

import contextlib
from typing import Any, Dict, NamedTuple

from . import _statement, dbapi
from .dialects import dialect_of


class _Making(NamedTuple):
    """How a database makes a table."""

    is_there: str  # asks by its name, or as it is quoted, whether it is there
    types: Dict[str, str]
    quoted: bool = False
    commits: bool = False  # whatever is open


_TYPES = {
    "smallint": "SMALLINT",
    "integer": "INTEGER",
    "bigint": "BIGINT",
    "ubigint": "DECIMAL(20)",
    "double": "DOUBLE PRECISION",
    "boolean": "BOOLEAN",
    "decimal": "DECIMAL(%d,%d)",
    "date": "DATE",
    "time": "TIME",
    "timestamp": "TIMESTAMP",
    "text": "TEXT",
    "binary": "BLOB",
}
_MAKING = {
    "SQLite": _Making("SELECT count(*) FROM pragma_table_info(?)", {"ubigint": "INTEGER"}),
    "PostgreSQL": _Making("SELECT count(to_regclass(?))", {"binary": "BYTEA"}, quoted=True),
    "MariaDB": _Making(
        "SELECT count(*) FROM information_schema.tables"
        " WHERE table_schema = DATABASE() AND table_name = ?",
        {
            "time": "TIME(6)",
            "timestamp": "DATETIME(6)",
            "text": "LONGTEXT",
            "binary": "LONGBLOB",
        },
        commits=True,
    ),
}

# The types of PostgreSQL's columns that are sent as arrays, which its rows are made of: a value
# means the same in them as on its own.
_INTEGERS = ("smallint", "integer", "bigint", "numeric")
_IN_ARRAYS = {
    "smallint": _INTEGERS,
    "integer": _INTEGERS,
    "bigint": _INTEGERS,
    "ubigint": _INTEGERS,
    "double": ("double precision",),
    "boolean": ("boolean",),
    "decimal": ("numeric",),
    "date": ("date",),
    "time": ("time without time zone",),
    "timestamp": ("timestamp without time zone",),
    "text": ("text", "character varying"),
    "binary": ("bytea",),
}
_COLUMN_TYPES = (
    "SELECT attname::text, format_type(atttypid, NULL) FROM pg_attribute"
    " WHERE attrelid = to_regclass(?) AND attnum > 0 AND NOT attisdropped"
)


def _marker(kind: str, column_type: str) -> str:
    """A marker for an array, or nothing where a column takes none."""
    return "?::%s[]" % column_type if column_type in _IN_ARRAYS[kind] else ""


def ingest(connection: dbapi.Connection, table: str, data: Any) -> int:
    given = _statement.ArrowInput(data)
    is_open = connection.in_transaction
    dialect = dialect_of(connection)
    making = _MAKING.get(dialect.name)
    target = dialect.quoted(table)
    columns = given.columns
    is_made = False
    asked = (target if making and making.quoted else table,)
    if making and not connection.execute(making.is_there, asked).fetchall()[0][0]:
        if making.commits and is_open:
            raise dbapi.ProgrammingError(
                "There is no table %s, and making it commits what is open: commit() first" % target
            )
        types = {**_TYPES, **making.types}
        declared = (
            "%s %s" % (dialect.quoted(name), types[kind] % (size if kind == "decimal" else ()))
            for name, kind, size in columns
        )
        connection.execute("CREATE TABLE %s (%s)" % (target, ", ".join(declared)))
        is_made = True
    names = ", ".join(dialect.quoted(column[0]) for column in columns)
    begin = "INSERT INTO %s (%s) " % (target, names)
    try:
        if dialect.name == "PostgreSQL":
            types = dict(connection.execute(_COLUMN_TYPES, asked).fetchall())
            arrays = [_marker(kind, types.get(name, "")) for name, kind, _ in columns]
            if arrays and all(arrays):
                given.in_arrays = begin + "SELECT * FROM unnest(%s)" % ", ".join(arrays)
        markers = ", ".join("?" * len(columns))
        return connection.executemany(begin + "VALUES (%s)" % markers, given).rowcount
    except BaseException:
        if is_made:
            with contextlib.suppress(dbapi.Error):
                connection.execute("DROP TABLE " + target)
        raise
