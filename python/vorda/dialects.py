"""What the shell has to know of the database that it is connected to."""

from typing import NamedTuple

from . import dbapi


class Dialect(NamedTuple):
    name: str
    quote: str
    tables: str  # lists tables and views

    def quoted(self, name: str) -> str:
        """A name as it stands in statements."""
        return self.quote + name.replace(self.quote, 2 * self.quote) + self.quote


_SCHEMA = ("SELECT %s AS name, CASE table_type WHEN 'VIEW' THEN 'view' ELSE 'table' END AS type"
           " FROM information_schema.tables WHERE table_schema %s ORDER BY name")

SQLITE = Dialect(
    "SQLite", '"',
    "SELECT name, type FROM sqlite_master WHERE type IN ('table', 'view')"
    " AND name NOT LIKE 'sqlite\\_%' ESCAPE '\\' UNION ALL"
    " SELECT name, 'temporary ' || type FROM sqlite_temp_master"
    " WHERE type IN ('table', 'view') ORDER BY name")
POSTGRESQL = Dialect(
    "PostgreSQL", '"', _SCHEMA % (
        "CASE WHEN table_schema = current_schema() THEN table_name"
        " ELSE table_schema || '.' || table_name END",
        "NOT IN ('information_schema', 'pg_catalog')"))
MARIADB = Dialect("MariaDB", "`", _SCHEMA % ("table_name", "= DATABASE()"))
OTHER = Dialect("other", '"', "")


def dialect_of(connection: dbapi.Connection) -> Dialect:
    """Asks the database."""
    if connection._dbms == "SQLite":
        return SQLITE
    try:
        version = str(connection.execute("SELECT version()").fetchall()[0][0])
    except dbapi.Error:
        return OTHER
    if version.startswith("PostgreSQL"):
        return POSTGRESQL
    return MARIADB if version[:1].isdigit() else OTHER
