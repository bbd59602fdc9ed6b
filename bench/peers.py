"""The drivers that are compared, each on the same SQLite file or the same server, behind one small
interface."""

import datetime
import decimal
import sqlite3


def _convert_date(text):
    return datetime.date.fromisoformat(text.decode())


sqlite3.register_converter("DECIMAL", lambda text: decimal.Decimal(text.decode()))
sqlite3.register_converter("DATE", _convert_date)


class Zelqa:
    name = "zelqa"
    marker = "?"

    def __init__(self):
        from vorda import zelqa
        self.module = zelqa

    def connect(self, path, typed=False):
        return self.module.connect("Database={%s}" % path)

    def begin(self, connection):
        connection.execute("BEGIN")

    def commit(self, connection):
        connection.execute("COMMIT")


class Sqlite3:
    """The standard library's module: bound to SQLite directly. Dates and decimals are what its
    converters make."""

    name = "sqlite3"
    marker = "?"

    def connect(self, path, typed=False):
        return sqlite3.connect(path, detect_types=sqlite3.PARSE_DECLTYPES if typed else 0)

    def begin(self, connection):
        pass  # it begins a transaction by itself

    def commit(self, connection):
        connection.commit()


class Dbapi:
    name = "dbapi"
    marker = "?"

    def __init__(self):
        from vorda import dbapi
        self.module = dbapi

    def connect(self, path, typed=False):
        return self.module.connect(path)

    begin = Sqlite3.begin
    commit = Sqlite3.commit


class Pyodbc:
    name = "pyodbc"
    marker = "?"

    def __init__(self):
        import pyodbc
        self.module = pyodbc
        # Without the driver the peer is not there.
        self.connect(":memory:").close()

    def connect(self, path, typed=False):
        # As the others do, a query then keeps no transaction open, which would save it all the
        # locking.
        return self.module.connect("Driver=SQLite3;Database=%s" % path, autocommit=True)

    def begin(self, connection):
        connection.autocommit = False

    commit = Sqlite3.commit


# --- on a server: what `connect` gets is a `Source` of server_cases.py ----------------------------

class ServerZelqa(Zelqa):
    def connect(self, source):
        return self.module.connect(source.string)


class ServerDbapi(Dbapi):
    def connect(self, source):
        return self.module.connect(source.string, autocommit=True)

    begin = Pyodbc.begin


class Psycopg:
    """Bound to PostgreSQL's own client library."""

    name = "psycopg"
    marker = "%s"

    def __init__(self):
        try:
            import psycopg as module
        except ImportError:
            import psycopg2 as module
        self.module, self.name = module, module.__name__

    def connect(self, source):
        connection = self.module.connect(host="127.0.0.1", **source.words)
        connection.autocommit = True
        return connection

    begin = Pyodbc.begin
    commit = Sqlite3.commit


class ServerPyodbc(Pyodbc):
    def __init__(self):
        import pyodbc
        self.module = pyodbc

    def connect(self, source):
        return self.module.connect(source.string, autocommit=True)


# By our own driver, which comes first.
ON_FILE = {"zelqa": (Zelqa, Sqlite3, Pyodbc), "dbapi": (Dbapi, Sqlite3, Pyodbc)}
ON_SERVER = {"zelqa": (ServerZelqa, Psycopg, ServerPyodbc),
             "dbapi": (ServerDbapi, Psycopg, ServerPyodbc)}


def available(kinds):
    """Our own driver first, then the peers that this machine has."""
    peers = []
    for kind in kinds:
        try:
            peers.append(kind())
        except Exception as error:
            print("%s is not compared: %s" % (kind.name, error))
    return peers
