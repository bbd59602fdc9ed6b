"""What programs have to know of the database that they are connected to."""

from typing import NamedTuple

from . import dbapi, statements


class Dialect(NamedTuple):
    name: str
    quote: str
    syntax: statements.Syntax
    text: str  # the type of a column for any text
    undoes_tables: bool  # a rollback undoes CREATE TABLE

    def quoted(self, *names: str) -> str:
        """A name as it stands in statements, with what it is in."""
        return ".".join(self.quote + name.replace(self.quote, 2 * self.quote) + self.quote
                        for name in names)


SQLITE = Dialect("SQLite", '"', statements.SQLITE, "TEXT", True)
POSTGRESQL = Dialect("PostgreSQL", '"', statements.POSTGRESQL, "TEXT", True)
MARIADB = Dialect("MariaDB", "`", statements.MARIADB, "LONGTEXT", False)
OTHER = Dialect("other", '"', statements.SQLITE, "VARCHAR(4000)", False)

_BY_PRODUCT = {"SQLite": SQLITE, "PostgreSQL": POSTGRESQL, "MariaDB": MARIADB, "MySQL": MARIADB}


def dialect_of(connection: dbapi.Connection) -> Dialect:
    return _BY_PRODUCT.get(connection._dbms, OTHER)
