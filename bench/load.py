"""Times many rows on their way into a table of a server, next to the server's own way of loading,
and prints ratios.

    ./dev bench load [ROWS] [--rounds N] [--only NAME]

On PostgreSQL the other is COPY through psycopg, on MariaDB LOAD DATA LOCAL by its client program.
Every load has a process of its own, and those that are compared take turns. Shown are the medians
of the ratios of wall time and of our own processor time, how long a row takes, and by how much the
process grows at its peak, with a tenth of the rows and with all: what streams has two like numbers.
"""

import argparse
import contextlib
import statistics
import subprocess
import sys
import time

import server_cases
from server_cases import servers

COLUMNS = ("a", "b", "c")
TABLE = "CREATE TABLE loaded (a INTEGER, b DOUBLE PRECISION, c VARCHAR(100))"
# What no memory grows for: SQLite makes them as they are asked for.
ARROW = ("WITH RECURSIVE r (n) AS (SELECT 0 UNION ALL SELECT n + 1 FROM r LIMIT %d)"
         " SELECT n AS a, n * 0.5 AS b, 'text ' || n AS c FROM r")


def rows(count):
    return ((n, n * 0.5, "text %d" % n) for n in range(count))


# --- ways to load: each prepares, and returns what does it ----------------------------------------

def executemany(string, count):
    from vorda import dbapi
    connection = dbapi.connect(string)

    def load():
        connection.executemany("INSERT INTO loaded VALUES (?, ?, ?)", rows(count))
        connection.commit()
    return load


def ingest(string, count):
    from vorda import dbapi
    connection = dbapi.connect(string)
    data = dbapi.connect(":memory:").execute(ARROW % count).fetch_arrow()

    def load():
        dbapi.ingest(connection, "loaded", data)
        connection.commit()
    return load


def words(string):
    return dict(word.split("=") for word in string.split(";"))


def copy(string, count):
    import psycopg
    connection = psycopg.connect(host="127.0.0.1", port=words(string)["Port"], dbname="postgres",
                                 user="vorda")

    def load():
        with connection.cursor().copy("COPY loaded FROM STDIN") as stream:
            for row in rows(count):
                stream.write_row(row)
        connection.commit()
    return load


def load_data(string, count):
    def load():
        command = [servers.program("mariadb"), "--no-defaults", "--host=127.0.0.1", "--user=root",
                   "--port=" + words(string)["Port"], "--local-infile", "vorda",
                   "--execute=LOAD DATA LOCAL INFILE '/dev/stdin' INTO TABLE loaded"]
        with subprocess.Popen(command, stdin=subprocess.PIPE, encoding="utf-8") as client:
            client.stdin.writelines("%d\t%r\t%s\n" % row for row in rows(count))
        assert client.returncode == 0
    return load


# --- servers --------------------------------------------------------------------------------------

@contextlib.contextmanager
def postgresql():
    with server_cases.running_source() as source:
        yield source.string


@contextlib.contextmanager
def mariadb():
    server = servers.mariadb()
    try:
        yield "Driver=%s;Server=127.0.0.1;Port=%d;Database=vorda;User=root" % (
            servers.driver("libmaodbc.so"), server.port)
    finally:
        server.stop()


# Each with its own way, with which ours are compared.
SERVERS = [("PostgreSQL", postgresql, copy), ("MariaDB", mariadb, load_data)]
OURS = (executemany, ingest)


# --- measuring ------------------------------------------------------------------------------------

def peak():
    with open("/proc/self/status") as file:
        return next(int(line.split()[1]) for line in file if line.startswith("VmHWM")) / 1024


def run(way, string, count):
    """In a process of its own: prints seconds, processor seconds, and megabytes."""
    load = globals()[way](string, int(count))
    before, wall, processor = peak(), time.perf_counter(), time.process_time()
    load()
    print(time.perf_counter() - wall, time.process_time() - processor, peak() - before)


def measured(way, string, count):
    from vorda import dbapi
    with contextlib.closing(dbapi.connect(string, autocommit=True)) as connection:
        connection.execute("DROP TABLE IF EXISTS loaded")
        connection.execute(TABLE)
        done = subprocess.run([sys.executable, __file__, "--run", way.__name__, string, str(count)],
                              check=True, stdout=subprocess.PIPE, encoding="utf-8")
        found = connection.execute("SELECT count(*), sum(a), max(c) FROM loaded").fetchone()
    assert [int(found[0]), int(found[1])] == [count, count * (count - 1) // 2], found
    return [float(number) for number in done.stdout.split()]


def compare(server, string, theirs, options):
    for ours in OURS:
        if options.only not in server + " " + ours.__name__:
            continue
        few = measured(ours, string, options.rows // 10)
        pairs = []
        for number in range(options.rounds):
            ways = [ours, theirs][::-1 if number % 2 else 1]
            both = {way: measured(way, string, options.rows) for way in ways}
            pairs.append((both[ours], both[theirs]))
        wall, processor = (statistics.median(a[i] / max(b[i], 1e-9) for a, b in pairs)
                           for i in range(2))
        seconds, megabytes = (statistics.median(a[i] for a, _ in pairs) for i in (0, 2))
        print("%-10s %-11s to %-9s time %6.2f (processor %5.2f)  %6.1f us a row  memory %5.1f MB "
              "with %d rows, %5.1f MB with %d"
              % (server, ours.__name__, theirs.__name__, wall, processor,
                 1e6 * seconds / options.rows, few[2], options.rows // 10, megabytes,
                 options.rows), flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("rows", nargs="?", type=int, default=100000, metavar="ROWS")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--only", default="", metavar="NAME")
    parser.add_argument("--run", nargs=3, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.run:
        run(*options.run)
        return
    for server, running, theirs in SERVERS:
        if not options.only or any(options.only in server + " " + way.__name__ for way in OURS):
            with running() as string:
                compare(server, string, theirs, options)


if __name__ == "__main__":
    main()
