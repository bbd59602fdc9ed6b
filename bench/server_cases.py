"""The cases on a PostgreSQL server, which is started for them and stopped again."""

import contextlib
import os
import sys
import tempfile

import odbcloop
from case import Case, connecting, fetchall, in_one_batch, plain

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tests", "python",
                                "servers"))
import servers  # noqa: E402

DRIVER, DRIVER_NAME = "psqlodbcw.so", "PostgreSQL Unicode"
TABLE = "numbers_and_texts"
COLUMNS = ("key", "big", "ratio", "words")


class Source:
    """Where the server is, as `words` for its own library and as an ODBC connection string."""

    def __init__(self, server, folder):
        self.words = {"port": server.port, "dbname": "postgres", "user": "vorda"}
        servers.configure(folder, {DRIVER_NAME: {"Driver": servers.driver(DRIVER)}})
        self.string = "Driver={%s};Server=127.0.0.1;Port=%d;Database=postgres;UID=vorda" % (
            DRIVER_NAME, server.port)


@contextlib.contextmanager
def running_source():
    for found, package in [(servers.program("postgres"), "postgresql"),
                           (servers.driver(DRIVER), "odbc-postgresql")]:
        if not found:
            sys.exit("this needs a PostgreSQL and its ODBC driver: install " + package)
    server = servers.postgresql()
    try:
        with tempfile.TemporaryDirectory() as folder:
            yield Source(server, folder)
    finally:
        server.stop()


def make_table(connection, rows):
    connection.execute(
        "CREATE TABLE %s (key INTEGER PRIMARY KEY, big BIGINT, ratio DOUBLE PRECISION, words TEXT)"
        % TABLE)
    connection.execute("INSERT INTO %s SELECT n, 5000000000 + n, n * 0.25, 'row ' || n"
                       " FROM generate_series(1, %d) AS numbers (n)" % (TABLE, rows))
    connection.execute("ANALYZE " + TABLE)


def reading(source, columns, rows):
    sql = "SELECT %s FROM %s" % (", ".join(COLUMNS[:columns]), TABLE)

    @contextlib.contextmanager
    def prepare(peer):
        with contextlib.closing(peer.connect(source)) as connection:
            yield connection.cursor()

    def run(peer, cursor):
        cursor.execute(sql)
        return fetchall(cursor)

    def result(peer, cursor):
        found = run(peer, cursor)
        return len(found), sorted(tuple(map(plain, row)) for row in found)[::97]

    driver = odbcloop.Driver(source.string)
    return Case("fetchall of %d rows, %d columns" % (rows, columns), prepare, run, result,
                lambda: driver.read(sql))


def points(source, count):
    @contextlib.contextmanager
    def prepare(peer):
        with contextlib.closing(peer.connect(source)) as connection:
            yield connection.cursor()

    def run(peer, cursor):
        sql = "SELECT words FROM %s WHERE key = %s" % (TABLE, peer.marker)
        found = []
        for key in range(1, count + 1):
            cursor.execute(sql, (key,))
            found.append(cursor.fetchone()[0])
        return found

    return Case("%d point queries" % count, prepare, run, run)


def one_by_one(peer, connection, cursor, rows):
    sql = "INSERT INTO w VALUES (%s)" % ", ".join([peer.marker] * 3)
    for row in rows:
        cursor.execute(sql, row)


def writing(source, name, count, write):
    rows = [(n, n * 0.5, "text %d" % n) for n in range(count)]

    @contextlib.contextmanager
    def prepare(peer):
        with contextlib.closing(peer.connect(source)) as connection:
            cursor = connection.cursor()
            cursor.execute("CREATE TEMPORARY TABLE w (a INTEGER, b DOUBLE PRECISION, c TEXT)")
            if hasattr(cursor, "fast_executemany"):
                cursor.fast_executemany = True
            yield connection, cursor

    def run(peer, state):
        write(peer, *state, rows)

    def result(peer, state):
        run(peer, state)
        state[1].execute("SELECT count(*), sum(a), sum(b), max(c), count(DISTINCT c) FROM w")
        return tuple(map(plain, state[1].fetchone()))

    return Case("%s of %d rows" % (name, count), prepare, run, result)


def server_cases(source, peer, quick):
    """The cases; `peer` makes the table for those that read."""
    scale = 10 if quick else 1
    rows = 300000 // scale
    with contextlib.closing(peer.connect(source)) as connection:
        make_table(connection, rows)
    for columns in (4, 1):
        yield reading(source, columns, rows)
    yield points(source, 5000 // scale)
    yield writing(source, "executemany", 20000 // scale, in_one_batch)
    yield writing(source, "single inserts", 5000 // scale, one_by_one)
    yield connecting(source, 50 // scale)
