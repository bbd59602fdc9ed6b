"""Times results on their way into columns, next to the drivers that do the same, and prints ratios.

    ./dev bench frames [--quick] [--rounds N]

Every reading has a process of its own, and those that are compared take turns: a ratio is made of
two neighbours. Shown are the medians of the ratios of wall time and of processor time, and of the
memory that the process has more at its peak, which has the table in it. On the server our own
driver is also told as a ratio to the ODBC driver below it, which makes no table.
"""

import argparse
import contextlib
import importlib
import os
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time

import odbcloop

HERE = os.path.dirname(os.path.abspath(__file__))
COLUMNS = "id %s, n %s, x DOUBLE PRECISION, a TEXT, b TEXT, d DATE"
QUERY = "SELECT id, n, x, a, b, d FROM t"
SQLITE_DRIVER = "/usr/lib/x86_64-linux-gnu/odbc/libsqlite3odbc.so"


# --- ways to read: each prepares, and returns what makes a table of a query's rows ----------------

def dbapi_arrow(source):
    import pyarrow
    from vorda import dbapi
    connection = dbapi.connect(source)
    return lambda query: pyarrow.table(connection.execute(query).fetch_arrow())


def adbc(connection):
    def read(query):
        with connection.cursor() as cursor:
            cursor.execute(query)
            return cursor.fetch_arrow_table()
    return read


def adbc_sqlite(source):
    from adbc_driver_sqlite import dbapi
    return adbc(dbapi.connect(source))


def adbc_postgresql(source):
    from adbc_driver_postgresql import dbapi
    words = dict(word.split("=") for word in source.split(";") if "=" in word)
    return adbc(dbapi.connect("postgresql://%(UID)s@127.0.0.1:%(Port)s/%(Database)s" % words))


def arrow_odbc(source):
    import arrow_odbc
    import pyarrow
    string = "Driver=%s;Database=%s" % (SQLITE_DRIVER, source)
    return lambda query: pyarrow.Table.from_batches(
        arrow_odbc.read_arrow_batches_from_odbc(query=query, connection_string=string,
                                                max_text_size=64))


def odbc_driver(source):
    driver = odbcloop.Driver(source)
    return lambda query: range(driver.read(query))


def pandas_dbapi(source):
    import pandas
    from vorda import dbapi
    connection = dbapi.connect(source)
    return lambda query: pandas.read_sql(query, connection)


def pandas_sqlite3(source):
    import pandas
    connection = sqlite3.connect(source)
    return lambda query: pandas.read_sql(query, connection)


# --- what is compared: ours first, and what each other needs --------------------------------------

FILE = [
    (dbapi_arrow, [(adbc_sqlite, "adbc_driver_sqlite"), (arrow_odbc, "arrow_odbc")]),
    (pandas_dbapi, [(pandas_sqlite3, "pandas")]),
]
SERVER = [(dbapi_arrow, [(adbc_postgresql, "adbc_driver_postgresql"), (odbc_driver, "odbcloop")])]


def run(way, source):
    """In a process of its own: prints seconds, processor seconds, and megabytes."""
    import warnings
    warnings.simplefilter("ignore")
    read = globals()[way](source)
    read(QUERY + " LIMIT 10")  # imports what it needs later
    with open("/proc/self/status") as file:
        before = next(int(line.split()[1]) for line in file if line.startswith("VmHWM"))
    wall, processor = time.perf_counter(), time.process_time()
    table = read(QUERY)
    wall, processor = time.perf_counter() - wall, time.process_time() - processor
    with open("/proc/self/status") as file:
        peak = next(int(line.split()[1]) for line in file if line.startswith("VmHWM"))
    assert len(table) > 0
    print(wall, processor, (peak - before) / 1024)


def measured(way, source):
    done = subprocess.run([sys.executable, __file__, "--run", way.__name__, source], check=True,
                          stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, encoding="utf-8")
    return [float(number) for number in done.stdout.split()]


def is_there(module):
    try:
        importlib.import_module(module)
        return True
    except ImportError as error:
        print("%s is not compared: %s" % (module, error))
        return False


def compare(where, groups, source, rounds):
    for ours, others in groups:
        for theirs in [way for way, module in others if is_there(module)]:
            pairs = []
            for number in range(rounds):
                ways = [ours, theirs][::-1 if number % 2 else 1]
                both = {way: measured(way, source) for way in ways}
                pairs.append((both[ours], both[theirs]))
            wall, processor, memory = (
                statistics.median(a[i] / max(b[i], 1e-9) for a, b in pairs) for i in range(3))
            seconds, megabytes = (statistics.median(a[i] for a, _ in pairs) for i in (0, 2))
            print("%-10s %-12s to %-15s time %5.2f (processor %5.2f) memory %5.2f  %6.2f s %5.0f MB"
                  % (where, ours.__name__, theirs.__name__, wall, processor, memory, seconds,
                     megabytes), flush=True)


ROW = {
    "sqlite": "WITH RECURSIVE r(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM r WHERE n < %d)"
              " INSERT INTO t SELECT n, (n * 7919) %% 1000003, n * 0.25, 'row ' || n,"
              " 'name of ' || (n %% 1000), date('2000-01-01', (n %% 9000) || ' days') FROM r",
    "postgresql": "INSERT INTO t SELECT n, (n * 7919) %% 1000003, n * 0.25, 'row ' || n,"
                  " 'name of ' || (n %% 1000), DATE '2000-01-01' + (n %% 9000)::int"
                  " FROM generate_series(1::bigint, %d) AS r (n)",
}


def on_file(rows, rounds):
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "frames.db")
        with contextlib.closing(sqlite3.connect(path)) as connection, connection:
            connection.execute("CREATE TABLE t (%s)" % (COLUMNS % ("INTEGER", "INTEGER")))
            connection.execute(ROW["sqlite"] % rows)
        compare("SQLite", FILE, path, rounds)


def on_server(rows, rounds):
    from server_cases import running_source
    from vorda import dbapi
    with running_source() as source:
        with contextlib.closing(dbapi.connect(source.string, autocommit=True)) as connection:
            connection.execute("CREATE TABLE t (%s)" % (COLUMNS % ("BIGINT", "BIGINT")))
            connection.execute(ROW["postgresql"] % rows)
        compare("PostgreSQL", SERVER, source.string, rounds)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="a tenth of the rows")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--run", nargs=2, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.run:
        run(*options.run)
        return
    rows = 1000000 // (10 if options.quick else 1)
    on_file(rows, options.rounds)
    on_server(rows, options.rounds)


if __name__ == "__main__":
    main()
