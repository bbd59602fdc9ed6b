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
    markers = ", ".join("?" * len(columns))
    try:
        return connection.executemany(
            "INSERT INTO %s (%s) VALUES (%s)" % (target, names, markers), given
        ).rowcount
    except BaseException:
        if is_made:
            with contextlib.suppress(dbapi.Error):
                connection.execute("DROP TABLE " + target)
        raise
