"""The databases that the one suite runs on: a class each with all that is not as for the others,
and why."""

import collections
import contextlib
import ctypes.util
import datetime
import decimal
import math
import sqlite3
import tempfile

import servers

Kind = collections.namedtuple("Kind", "declared described values")

DIGITS = "1234567890123456789012345678.0123456789"
GUID = "00112233-4455-6677-8899-aabbccddeeff"

# By kind: the declared type, the type in the description, and values that come back as they went
# in.
KINDS = {
    "integer": Kind("INTEGER", int, [0, 1, -1, 2**31 - 1, -(2**31)]),
    "bigint": Kind("BIGINT", int, [0, 2**31, -(2**31) - 1, 2**63 - 1, -(2**63)]),
    "double": Kind("DOUBLE PRECISION", float,
                   [0.0, -0.5, 0.1 + 0.2, 1.7976931348623157e308, 5e-324, 2.0**53 + 2]),
    "decimal": Kind("DECIMAL(38,10)", decimal.Decimal,
                    ["0", "12.5", "-0.0000000001", DIGITS, "-" + DIGITS]),
    "boolean": Kind("BOOLEAN", bool, [True, False]),
    "date": Kind("DATE", datetime.date,
                 [datetime.date(1, 1, 1), datetime.date(2024, 2, 29), datetime.date(9999, 12, 31)]),
    "time": Kind("TIME", datetime.time, [datetime.time(0, 0), datetime.time(23, 59, 59)]),
    "timestamp": Kind("TIMESTAMP", datetime.datetime,
                      [datetime.datetime(1, 1, 1),
                       datetime.datetime(2024, 2, 29, 23, 59, 59, 123456),
                       datetime.datetime(2024, 1, 1, 0, 0, 0, 1),
                       datetime.datetime(9999, 12, 31, 23, 59, 59, 999999)]),
    "text": Kind("TEXT", str, ["", " ", "a", "é€\U0001F600\U0010FFFF", "x" * 2047, "'\"\\?@a:b--/*",
                               "a\r\n\tb "]),
    "guid": Kind("UUID", str, [GUID]),
}


class Engine:
    """The embedded SQLite engine, and what is the same for all."""

    name = "sqlite"
    driver_file = None  # the ODBC driver
    start = None  # of servers.py
    kinds = {
        # SQLite keeps a decimal as a double: 15 digits.
        "decimal": {"values": ["0", "12.5", "-0.0001", "99999999999.9999"]},
        "double": {"values": [*KINDS["double"].values, math.inf, -math.inf]},
    }
    binary = "BLOB"
    quoted = '"%s"'
    backslash = "\\"  # in a string
    decimal_size = (12, 4)
    # Cells of other types: how they are written in SQL, and what is read.
    others = [("TIME", "'01:02:03.000004'", datetime.time(1, 2, 3, 4)),
              ("VARCHAR(3)", "'longer'", "longer")]
    # Cells that neither the ODBC types nor Python can hold: an error, never another value.
    beyond = [("DATE", "'2024-02-30'"), ("INTEGER", "'abc'"), ("BIGINT", "9223372036854775808"),
              ("TIMESTAMP", "'10000-01-01'"), ("TEXT", "x'ff'")]
    # A statement, the state and the words of its failure.
    failures = [("SELECT * FROM nowhere", "42S02", "nowhere"), ("SELEC 1", "42000", "SELEC"),
                ("INSERT INTO t VALUES (1, 'again')", "23505", "UNIQUE")]
    # A procedure that stores its arguments and one that yields them, both with the parameters a and
    # b.
    procedures = ["CREATE PROCEDURE put (a INTEGER, b TEXT) AS INSERT INTO t VALUES ($a, $b)",
                  "CREATE PROCEDURE tell (a INTEGER, b TEXT) AS SELECT $a AS a, $b AS b"]
    refused = []  # what a driver would hang or crash on, or misread
    accepted = []  # what is like that, and no such thing
    drop = "DROP PROCEDURE IF EXISTS "
    marked_comments = True

    def __init__(self, folder):
        self.folder, self.server = folder, self.start and self.start()
        self.path = "%s/%s.db" % (folder, self.name)
        self.string = "Database={%s}" % self.path
        if not self.server:
            with contextlib.closing(sqlite3.connect(self.path)) as file:
                file.execute("PRAGMA journal_mode = WAL")  # readers do not keep writers out

    @classmethod
    def missing(cls):
        """What this engine needs and does not find, or None."""
        if cls.driver_file and not ctypes.util.find_library("odbc"):
            return "there is no ODBC driver manager"
        if cls.driver_file and not servers.driver(cls.driver_file):
            return "there is no ODBC driver " + cls.driver_file
        if cls.start and not servers.program(cls.program):
            return "there is no server program " + cls.program
        return None

    @classmethod
    def kind(cls, name):
        return KINDS[name]._replace(**cls.kinds.get(name, {}))


class Sourced(Engine):
    """An engine behind the driver manager."""

    def source(self):
        """The entry in odbc.ini."""

    @property
    def strings(self):
        """Every way to name this source."""
        words = ";".join("%s=%s" % item for item in self.named.items() if item[0] != "Driver")
        return ["Driver={%s};%s" % (self.name, words), "DSN=" + self.name,
                "FILEDSN=%s/%s.dsn" % (self.folder, self.name)]


class PostgreSQL(Sourced):
    name, driver_file, program = "postgresql", "psqlodbcw.so", "postgres"
    start = staticmethod(servers.postgresql)
    kinds = {}
    binary = "BYTEA"
    others = [("TIME", "'01:02:03.000004'", datetime.time(1, 2, 3, 4)), ("CHAR(3)", "'z'", "z  "),
              ("REAL", "0.1", 0.1),
              ("NUMERIC", "'1%s.5'" % ("0" * 80), decimal.Decimal("1%s.5" % ("0" * 80))),
              ("TIMESTAMPTZ", "'2024-02-29 01:02:03.000004+00'",
               datetime.datetime(2024, 2, 29, 1, 2, 3, 4)),
              ("OID", "4294967295", 2**32 - 1), ("TIMETZ", "'01:02:03+02'", "01:02:03+02"),
              ("MONEY", "'92233720368547758.07'", "$92,233,720,368,547,758.07"),
              ("INTEGER[]", "'{1,2}'", "{1,2}"), ("INTERVAL", "'1 day'", "1 day")]
    # Not a DATE before Christ, nor a TIMESTAMP 'infinity': the driver makes other dates of them.
    beyond = [("TIMESTAMP", "'10000-01-01'"), ("TIMESTAMP", "'0044-03-15 BC'"),
              ("DATE", "'10000-01-01'"),
              ("DATE", "'infinity'"), ("DATE", "'-infinity'"), ("TIMESTAMP", "'-infinity'"),
              ("NUMERIC", "'NaN'")]
    failures = [("SELECT * FROM nowhere", "42P01", "nowhere"), ("SELEC 1", "42601", "SELEC"),
                ("INSERT INTO t VALUES (1, 'again')", "23505", "duplicate key"),
                ("INSERT INTO t VALUES (NULL, NULL)", "23502", "null value"),
                ("SELECT 1 / 0", "22012", "division by zero")]
    procedures = ["CREATE PROCEDURE put(a integer, b text) LANGUAGE plpgsql"
                  " AS 'BEGIN INSERT INTO t VALUES (a, b); END'",
                  "CREATE FUNCTION tell(a integer, b text) RETURNS TABLE (x integer, y text) "
                  "LANGUAGE sql"
                  " AS 'SELECT a, b'"]
    refused = ["copy t to stdout", "COPY t FROM STDIN", "SET x.y = 1; COPY (SELECT 1) TO STDOUT",
               "SET SESSION client_encoding = 'LATIN1'", "set names latin1"]
    accepted = ["SET client_encoding TO 'UTF8'", "SET NAMES 'utf-8'"]
    drop = "DROP ROUTINE IF EXISTS "

    def source(self):
        return {"Servername": "127.0.0.1", "Port": self.server.port, "Database": "postgres",
                "Username": "vorda",
                "UID": "vorda"}  # in odbc.ini and in connection strings it has different names

    # The driver fetches the whole result at once unless it is told not to.
    streaming = "UseDeclareFetch=1;Fetch=100"
    pause = "CAST(pg_sleep(0.02) AS TEXT)"
    numbers = "generate_series(1, 200000) AS numbers (n)"


class MariaDB(Sourced):
    name, driver_file, program = "mariadb", "libmaodbc.so", "mariadbd"
    start = staticmethod(servers.mariadb)
    kinds = {
        # BOOLEAN is another word for TINYINT.
        "boolean": {"described": int},
        "timestamp": {"declared": "DATETIME(6)"},
        # TEXT ends at 64 KB.
        "text": {"declared": "LONGTEXT"},
    }
    binary = "LONGBLOB"
    others = [("TIME(6)", "'01:02:03.000004'", datetime.time(1, 2, 3, 4)),
              ("ENUM('a', 'ö')", "'ö'", "ö"),
              ("BIT(1)", "b'1'", True), ("BIT(1)", "b'0'", False), ("TINYINT UNSIGNED", "255", 255),
              ("SMALLINT UNSIGNED", "65535", 65535), ("INT UNSIGNED", "4294967295", 2**32 - 1),
              ("BIGINT UNSIGNED", "18446744073709551615", decimal.Decimal(2**64 - 1)),
              ("VARCHAR(9)", "CONCAT('a', CHAR(0), 'b')", "a\0b"), ("JSON", "'[\"é\"]'", '["é"]')]
    quoted = "`%s`"
    backslash = "\\\\"
    beyond = [("DATE", "'0000-00-00'"), ("DATETIME", "'2024-02-00 01:02:03'"),
              ("TIME", "'-01:00:00'"),
              ("TIME", "'100:00:00'")]
    failures = [("SELECT * FROM nowhere", "42S02", "nowhere"), ("SELEC 1", "42000", "SELEC"),
                ("INSERT INTO t VALUES (1, 'again')", "23000", "Duplicate entry"),
                ("INSERT INTO t VALUES (NULL, NULL)", "23000", "cannot be null")]
    # A body with semicolons is one statement.
    refused = ["VALUES (1)", "/* c */ OPTIMIZE TABLE t", "XA RECOVER", "(VALUES (1))", "DO 1",
               "ALTER TABLE t CHECK PARTITION ALL", "SELECT 1; CALL nothing()"]
    procedures = ["CREATE OR REPLACE PROCEDURE put(a INTEGER, b TEXT)"
                  " BEGIN DECLARE n INTEGER DEFAULT a; INSERT INTO t VALUES (n, b); END",
                  "CREATE PROCEDURE tell(a INTEGER, b TEXT) SELECT a, b"]

    def source(self):
        return {"Server": "127.0.0.1", "Port": self.server.port, "Database": "vorda",
                "User": "root"}

    streaming = None  # the driver knows only whole results
    pause = "sleep(0.02)"
    numbers = "(SELECT seq AS n FROM seq_1_to_200000) numbers"


class SQLiteODBC(Sourced):
    name, driver_file = "sqliteodbc", "libsqlite3odbc.so"
    kinds = {
        # The driver says text.
        "decimal": {"described": str, "values": ["0", "12.5"]},
        # It delivers 15 digits.
        "double": {"values": [0.0, -0.5, 0.1, 1e300, 123456789012345.0]},
    }
    decimal_size = (12, 0)  # it describes no scale
    failures = [("SELECT * FROM nowhere", "HY000", "nowhere"), ("SELEC 1", "HY000", "SELEC"),
                ("INSERT INTO t VALUES (1, 'again')", "HY000", "UNIQUE")]
    marked_comments = False  # it counts the markers in comments
    procedures = []

    def source(self):
        return {"Database": self.path}


ENGINES = {engine.name: engine for engine in (Engine, PostgreSQL, MariaDB, SQLiteODBC)}
SERVERS = [PostgreSQL.name, MariaDB.name]


@contextlib.contextmanager
def running():
    """All engines that can be had, by name, with the driver manager set up for them."""
    with contextlib.ExitStack() as stack:
        folder = stack.enter_context(tempfile.TemporaryDirectory(prefix="vorda-sources-"))
        engines = {}
        for name, engine in ENGINES.items():
            if engine.missing() is None:
                engines[name] = engine(folder)
                if engine.start:
                    stack.callback(engines[name].server.stop)
        sourced = [engine for engine in engines.values() if isinstance(engine, Sourced)]
        named = servers.configure(folder,
                                  {engine.name: {"Driver": servers.driver(engine.driver_file),
                                                 **engine.source()}
                                           for engine in sourced})
        for engine in sourced:
            engine.named = named[engine.name]
            engine.string = engine.strings[0]
        yield engines
