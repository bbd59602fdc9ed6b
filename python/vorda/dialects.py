"""What the shell has to know of the database behind the provider."""

import re
from typing import Any, NamedTuple, Tuple

from . import zelqa

# The module takes these for markers, inside quoted names too.
MARKERS = re.compile("[?@:]")


class Dialect(NamedTuple):
    name: str
    quote: str
    marked: str  # a name with marker characters: "'" in these quotes, "U&" escaped; "" no way
    tables: str  # lists tables and views
    binary: str  # reads a binary column as text

    def quoted(self, name: str) -> str:
        """A name as it stands in statements. ValueError where there is no way to write it."""
        if not MARKERS.search(name):
            return self.quote + name.replace(self.quote, 2 * self.quote) + self.quote
        if not self.marked:
            raise ValueError(name)
        if self.marked == "'":
            return "'%s'" % name.replace("'", "''")
        escaped = MARKERS.sub(lambda match: "\\%04x" % ord(match.group()),
                              name.replace("\\", "\\\\"))
        return 'U&"%s"' % escaped.replace('"', '""')


_SCHEMA = ("SELECT %s AS name, CASE table_type WHEN 'VIEW' THEN 'view' ELSE 'table' END AS type"
           " FROM information_schema.tables WHERE table_schema %s ORDER BY name")

SQLITE = Dialect(
    "SQLite", '"', "'",
    "SELECT name, type FROM sqlite_master WHERE type IN ('table', 'view')"
    " AND name NOT LIKE 'sqlite\\_%' ESCAPE '\\' UNION ALL"
    " SELECT name, 'temporary ' || type FROM sqlite_temp_master"
    " WHERE type IN ('table', 'view') ORDER BY name", "hex(%s)")
POSTGRESQL = Dialect(
    "PostgreSQL", '"', "U&", _SCHEMA % (
        "CASE WHEN table_schema = current_schema() THEN table_name"
        " ELSE table_schema || '.' || table_name END",
        "NOT IN ('information_schema', 'pg_catalog')"), "encode(%s, 'hex')")
MARIADB = Dialect("MariaDB", "`", "", _SCHEMA % ("table_name", "= DATABASE()"), "HEX(%s)")
OTHER = Dialect("other", '"', "", "", "")


def _answer(connection: Any, sql: str) -> Tuple[bool, str]:
    try:
        return True, str(connection.execute(sql).fetchall()[0][0])
    except zelqa.Error:
        return False, ""


def dialect_of(connection: Any) -> Dialect:
    """Asks the database. On PostgreSQL a question must not fail: it would end a transaction."""
    known, version = _answer(connection, "SELECT version()")
    if not known and _answer(connection, "SELECT sqlite_version()")[0]:
        return SQLITE
    if version.startswith("PostgreSQL"):
        return POSTGRESQL
    return MARIADB if version[:1].isdigit() else OTHER
