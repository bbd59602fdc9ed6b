"""How much three nodes of a cluster do that one does: writers and readers on one node of a Galera
cluster of MariaDB, against the same spread over all three, with each driver.

    ./dev bench --cluster [--seconds S] [--rounds N]

Writers commit batches of 200 rows, readers ask for a row by its key; each has a process and a
connection of its own. Shown are the medians of rows or queries a second on one node, and of the
ratio of three nodes to that; behind it what the driver does on one node next to ours. All nodes and
programs share this machine's processors: on few of them three nodes cannot do more than one.
"""

import argparse
import contextlib
import itertools
import os
import statistics
import subprocess
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "python", "servers"))
import clusters  # noqa: E402

BATCH, KEYS, WORKERS = 200, 10000, 3


def connect_dbapi(string):
    from vorda import dbapi
    return dbapi.connect(string), "?"


def connect_pyodbc(string):
    import pyodbc
    return pyodbc.connect(string), "?"


def connect_pymysql(string):
    import pymysql
    words = dict(word.split("=") for word in string.split(";"))
    return pymysql.connect(host=words["Server"], port=int(words["Port"]), user=words["User"],
                           database=words["Database"]), "%s"


DRIVERS = {"dbapi": connect_dbapi, "pyodbc": connect_pyodbc, "pymysql": connect_pymysql}


def write(connection, marker):
    """Writes a batch at each call; answers how many rows."""
    sql = "INSERT INTO written (number, word) VALUES (%s, %s)" % (marker, marker)
    numbers = itertools.count()

    def batch():
        cursor = connection.cursor()
        cursor.executemany(sql, [(n, "text %d" % n) for n in itertools.islice(numbers, BATCH)])
        connection.commit()
        return BATCH
    return batch


def read(connection, marker):
    sql = "SELECT word FROM keyed WHERE id = " + marker
    cursor, keys = connection.cursor(), itertools.cycle(range(1, KEYS + 1, 7))

    def query():
        cursor.execute(sql, (next(keys),))
        assert len(cursor.fetchall()) == 1
        return 1
    return query


KINDS = {"writers": write, "readers": read}


def run(driver, kind, string, seconds):
    """In a process of its own: does it for so long when told to, and prints how much that was."""
    connection, marker = DRIVERS[driver](string)
    once = KINDS[kind](connection, marker)
    once()
    print("ready", flush=True)
    sys.stdin.readline()
    done, start = 0, time.perf_counter()
    while time.perf_counter() < start + float(seconds):
        done += once()
    print(done / (time.perf_counter() - start))
    connection.close()


def measured(driver, kind, strings, seconds):
    """What all workers do in a second, on the servers of these strings."""
    workers = [subprocess.Popen(
        [sys.executable, __file__, "--run", driver, kind, strings[number % len(strings)],
         str(seconds)], stdin=subprocess.PIPE, stdout=subprocess.PIPE, encoding="utf-8")
        for number in range(WORKERS)]
    for worker in workers:
        assert worker.stdout.readline() == "ready\n", "a worker has failed"
    for worker in workers:
        worker.stdin.write("\n")
        worker.stdin.flush()
    return sum(float(worker.communicate()[0]) for worker in workers)


def make_tables(string):
    connection, _ = connect_dbapi(string)
    with contextlib.closing(connection):
        connection.execute("CREATE TABLE written (id BIGINT AUTO_INCREMENT PRIMARY KEY,"
                           " number INTEGER, word VARCHAR(40))")
        connection.execute("CREATE TABLE keyed (id INTEGER PRIMARY KEY, word VARCHAR(40))")
        connection.executemany("INSERT INTO keyed VALUES (?, ?)",
                               ((n, "text %d" % n) for n in range(1, KEYS + 1)))
        connection.commit()


def drivers_here():
    for name in DRIVERS:
        try:
            __import__(name if name != "dbapi" else "vorda.dbapi")
            yield name
        except ImportError as error:
            print("%s is not compared: %s" % (name, error))


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=float, default=3)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--run", nargs=4, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.run:
        run(*options.run)
        return
    if clusters.Galera.missing():
        sys.exit("this needs a cluster: " + clusters.Galera.missing())
    drivers = list(drivers_here())
    with clusters.Galera() as cluster:
        make_tables(cluster.strings[0])
        time.sleep(1)  # until all nodes have the tables
        for kind in KINDS:
            done = {driver: [[measured(driver, kind, strings, options.seconds)
                              for strings in (cluster.strings[:1], cluster.strings)]
                             for _ in range(options.rounds)] for driver in drivers}
            ours = statistics.median(one for one, _ in done["dbapi"])
            for driver, rounds in done.items():
                one = statistics.median(one for one, _ in rounds)
                ratio = statistics.median(three / one for one, three in rounds)
                print("%d %s  %-8s %9.0f a second on one node   three nodes %5.2f times that   "
                      "to dbapi %5.2f" % (WORKERS, kind, driver, one, ratio, one / ours),
                      flush=True)


if __name__ == "__main__":
    main()
