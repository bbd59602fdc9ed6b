"""Times the module against its peers on the same SQLite file, or the same server, and prints tables
of ratios.

    bench.py [--dbapi] [--server] [--quick] [--only TEXT] [--rounds N] [--json FILE]
             [--plot FILE.png]

--server starts a PostgreSQL of its own and measures on that: the module and pyodbc through the ODBC
driver, psycopg through PostgreSQL's own library. --dbapi measures vorda.dbapi instead of
vorda.zelqa, on a file and on that server, and shows which ratios it is to reach; a ! marks one that
it does not.

Within a case the drivers take turns, and a ratio is made of two neighbours of one round, so what
slows the machine down slows both. Shown are the medians of the ratios and their range. Before a
case is timed, all drivers have to return the same data.
"""

import argparse
import contextlib
import json
import os
import platform
import statistics
import subprocess
import sys
import tempfile
import threading
import time

import peers as peer_module
from case import Case, connecting, fetchall, in_one_batch, plain

HERE = os.path.dirname(os.path.abspath(__file__))
TYPES = {
    "integers": ("INTEGER", "(n * 7919) %% 1000003 + %d"),
    "doubles": ("DOUBLE", "n * 0.25 + %d"),
    "short text": ("TEXT", "'row ' || (n + %d)"),
    "200-byte text": ("TEXT",
                      "substr('Zwölf Boxkämpfer jagen Viktor quer über den großen Sylter Deich. ' "
                      "||"
                              " hex(zeroblob(100)), 1, 190) || (10000000 + n + %d)"),
    "decimals": ("DECIMAL(12,2)", "(n %% 1000) + 0.25 + %d"),
    "dates": ("DATE", "date('2000-01-01', ((n + %d) %% 9000) || ' days')"),
    "half NULLs": ("INTEGER", "CASE WHEN (n + %d) %% 2 THEN n + 1000 END"),
}
LONG = {"3000-byte text": ("TEXT", "hex(zeroblob(1496)) || (10000000 + n + %d)")}
TYPED = ("decimals", "dates", "mixed")
MIX = ["integers", "doubles", "short text", "dates", "decimals", "half NULLs", "200-byte text"]


def table_of(path, name, columns, rows):
    """Makes the table a case reads, with the standard library; returns the table's name."""
    types = {**TYPES, **LONG}
    kinds = [MIX[i % len(MIX)] if name == "mixed" else name for i in range(columns)]
    table = "%s_%d_%d" % (name.replace(" ", "_").replace("-", "_"), columns, rows)
    connection = peer_module.sqlite3.connect(path)
    with contextlib.closing(connection), connection:
        declared = ", ".join("c%d %s" % (i, types[kind][0]) for i, kind in enumerate(kinds))
        values = ", ".join(types[kind][1] % i for i, kind in enumerate(kinds))
        connection.execute('CREATE TABLE IF NOT EXISTS "%s" (%s)' % (table, declared))
        if not connection.execute('SELECT 1 FROM "%s" LIMIT 1' % table).fetchone():
            connection.execute(
                'WITH RECURSIVE r(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM r WHERE n < %d)'
                               ' INSERT INTO "%s" SELECT %s FROM r' % (rows, table, values))
    return table


# --- reading --------------------------------------------------------------------------------------

def iterate(cursor):
    for row in cursor:
        pass


def fetchone(cursor):
    fetch = cursor.fetchone
    while fetch() is not None:
        pass


def reading_cases(path, quick):
    for name in [*TYPES, "mixed"]:
        for columns in (1, 4, 7, 30):
            rows = min(300000, 1200000 // columns) // (10 if quick else 1)
            for how in (fetchall, iterate, fetchone):
                if how is not fetchall and (columns not in (4, 30)
                                            or name not in ("integers", "mixed")):
                    continue  # the way of fetching costs the same whatever the cells hold
                yield reading_case(path, name, columns, rows, how)
    for name in LONG:
        yield reading_case(path, name, 1, 20000 // (10 if quick else 1), fetchall)


def reading_case(path, name, columns, rows, how):
    @contextlib.contextmanager
    def prepare(peer):
        table = table_of(path, name, columns, rows)
        with contextlib.closing(peer.connect(path, typed=name in TYPED)) as connection:
            yield connection.cursor(), 'SELECT * FROM "%s"' % table

    def run(peer, state):
        cursor, sql = state
        cursor.execute(sql)
        return how(cursor)

    def result(peer, state):
        cursor, sql = state
        cursor.execute(sql)
        return [tuple(map(plain, row))
                for row in cursor.fetchall()[::97]], len(list(run(peer, state) or []))

    return Case("%s, %d columns of %s" % (how.__name__, columns, name), prepare, run, result)


# --- everything else ------------------------------------------------------------------------------

def point_queries(path, count):
    @contextlib.contextmanager
    def prepare(peer):
        table = table_of(path, "short text", 1, 20000)
        with contextlib.closing(peer.connect(path)) as connection:
            yield connection.cursor(), 'SELECT c0 FROM "%s" WHERE rowid = ?' % table

    def run(peer, state):
        cursor, sql = state
        return [cursor.execute(sql, (key,)).fetchone()[0] for key in range(1, count + 1)]

    return Case("%d point queries" % count, prepare, run, run)


@contextlib.contextmanager
def empty_table(peer, path):
    """A fresh table in a file of its own for each round: no driver pays for what another has
    written."""
    with tempfile.TemporaryDirectory(dir=os.path.dirname(path)) as folder:
        file = os.path.join(folder, "w.db")
        with contextlib.closing(peer_module.sqlite3.connect(file)) as connection:
            connection.execute("CREATE TABLE w (a INTEGER, b DOUBLE, c TEXT)")
        with contextlib.closing(peer.connect(file)) as connection:
            yield connection, connection.cursor(), file


def contents(path):
    """What a driver has written, read by one and the same."""
    with contextlib.closing(peer_module.sqlite3.connect(path)) as connection:
        return connection.execute(
            "SELECT count(*), sum(a), sum(b), max(c), count(DISTINCT c) FROM w").fetchall()


def writing_case(path, name, count, write):
    rows = [(n, n * 0.5, "text %d" % n) for n in range(count)]

    def run(peer, state):
        connection, cursor, _ = state
        write(peer, connection, cursor, rows)

    def result(peer, state):
        run(peer, state)
        return contents(state[2])

    return Case(name, lambda peer: empty_table(peer, path), run, result)


def one_by_one(peer, connection, cursor, rows):
    peer.begin(connection)
    for row in rows:
        cursor.execute("INSERT INTO w VALUES (?, ?, ?)", row)
    peer.commit(connection)


def long_statement(path, size):
    """A query of about `size` bytes with a marker now and then, prepared and executed anew each
    time."""
    texts = ["?" if n % 50 == 1 else "'a text of %d'" % n for n in range(size // 18)]
    sql = "SELECT 1 WHERE 'x' IN (%s)" % ", ".join(texts)
    values = [1] * sql.count("?")
    # So many that a driver which keeps statements lets go of them, too.
    repeat = min(2000, 3000000 // size)

    @contextlib.contextmanager
    def prepare(peer):
        with contextlib.closing(peer.connect(":memory:")) as connection:
            yield connection.cursor()

    def run(peer, cursor):
        for n in range(repeat):
            # a text never seen before: no cache helps
            cursor.execute("%s -- %d" % (sql, n), values)
        return cursor.fetchall()

    return Case("statement of %d bytes" % size, prepare, run,
                lambda peer, state: len(run(peer, state)))


def other_cases(path, quick):
    scale = 10 if quick else 1
    yield point_queries(path, 20000 // scale)
    for count in (100000, 1000000):
        yield writing_case(path, "executemany of %d rows" % (count // scale), count // scale,
                           in_one_batch)
    yield writing_case(path, "%d single inserts" % (20000 // scale), 20000 // scale, one_by_one)
    yield connecting(path, 500 // scale)
    for size in (100, 10000, 900000):
        yield long_statement(path, size)


def two_scans(path, rows, peer, rounds):
    """How many times as long two threads take as one, each with a scan of its own."""
    table = table_of(path, "integers", 4, rows)
    sql = 'SELECT max(c0 * c1 %% 1009) FROM "%s"' % table

    def scan():
        with contextlib.closing(peer.connect(path)) as connection:
            connection.cursor().execute(sql).fetchall()

    def seconds(count):
        threads = [threading.Thread(target=scan) for _ in range(count)]
        start = time.perf_counter()
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        return time.perf_counter() - start

    scan()
    return [seconds(2) / seconds(1) for _ in range(rounds)]


ALONE = "the ODBC driver alone"


# --- measuring ------------------------------------------------------------------------------------

def check_same(case, drivers):
    results = {}
    for peer in drivers:
        with case.prepare(peer) as state:
            results[peer.name] = case.result(peer, state)
    for peer in drivers[1:]:
        if results[peer.name] != results[drivers[0].name]:
            sys.exit("%s: %s and %s do not return the same data"
                     % (case.name, drivers[0].name, peer.name))


def measure(case, drivers, rounds):
    """Seconds of each round by driver name, and of the ODBC driver alone where a case has that."""
    seconds = {peer.name: [] for peer in drivers}
    if case.alone:
        seconds[ALONE] = []
    if case.result:
        check_same(case, drivers)
    for number in range(rounds):
        for peer in drivers[number % len(drivers):] + drivers[:number % len(drivers)]:
            with case.prepare(peer) as state:
                start = time.perf_counter()
                kept = case.run(peer, state)
                seconds[peer.name].append(time.perf_counter() - start)
                del kept
        if case.alone:
            start = time.perf_counter()
            case.alone()
            seconds[ALONE].append(time.perf_counter() - start)
    return seconds


def in_processes(code, drivers, rounds):
    """What `code` prints in a fresh process for each driver, as numbers; {peer} in it is the
    driver's name."""
    numbers = {peer.name: [] for peer in drivers}
    for _ in range(rounds):
        for peer in drivers:
            done = subprocess.run([sys.executable, "-c", code.replace("{peer}", peer.name)],
                                  cwd=HERE, check=True, stdout=subprocess.PIPE, encoding="utf-8")
            numbers[peer.name].append(float(done.stdout))
    return numbers


IMPORT = """
import time
start = time.perf_counter()
exec(("from vorda " if "{peer}" in ("zelqa", "dbapi") else "") + "import {peer}")
print(time.perf_counter() - start)
"""
MEMORY = """
import peers
def peak():
    # Not getrusage: there a process begins with the peak of its parent.
    with open("/proc/self/status") as file:
        return next(int(line.split()[1]) for line in file if line.startswith("VmHWM"))
peer = next(kind for kinds in peers.ON_FILE.values() for kind in kinds if kind.name == "{peer}")()
cursor = peer.connect(%r).cursor()
before = peak()
cursor.execute('SELECT * FROM "%s"')
%s
print((peak() - before) / 1024)
"""
READ = {"memory of": "rows = cursor.fetchall()",
        "memory of streaming": "for row in cursor: pass"}

# What dbapi is to reach: a ratio to a peer, or itself, in cases whose names have this in them.
AIMS = {
    "file": [("point queries", "sqlite3", 1.0), ("single inserts", "sqlite3", 1.0),
             ("statement of 100 bytes", "sqlite3", 1.0), ("executemany", "sqlite3", 0.9),
             ("fetchall", "sqlite3", 0.8), ("iterate", "sqlite3", 0.8),
             ("two threads", "dbapi", 1.15),
             ("streaming", "dbapi", 3.0)],  # MB, of which SQLite keeps 2 of the file
    "server": [("point queries", "psycopg", 1.0), ("executemany", "psycopg", 1.0),
               ("fetchall", "psycopg", 1.3), ("point queries", "pyodbc", 0.5),
               ("single inserts", "pyodbc", 0.5), ("executemany", "pyodbc", 0.5),
               ("fetchall", "pyodbc", 0.5)],
}


def ratios(ours, theirs):
    return sorted(a / b if b else float("nan") for a, b in zip(ours, theirs))


def aimed(name, drivers, peer, value, place):
    """What is written behind a median: what it is to be, and whether it is not."""
    for part, to, aim in AIMS[place] if drivers[0].name == "dbapi" else []:
        if part in name and to == peer.name:
            return " of %.2f%s" % (aim, " " if value <= aim else "!")
    return " " * 9


def show(name, numbers, drivers, unit, place):
    ours = numbers[drivers[0].name]
    median = statistics.median(ours)
    line = "%-44s %9.4f %-2s%s" % (name, median, unit,
                                   aimed(name, drivers, drivers[0], median, place))
    for peer in drivers[1:]:
        parts = ratios(ours, numbers[peer.name])
        median = statistics.median(parts)
        line += "   %5.2f%s (%.2f-%.2f)" % (
            median, aimed(name, drivers, peer, median, place), parts[0], parts[-1])
    if ALONE in numbers:
        line += "   %5.2f of %s" % (statistics.median(ratios(ours, numbers[ALONE])), ALONE)
    print(line, flush=True)


def plot(results, drivers, path):
    import matplotlib
    matplotlib.use("Agg")
    from matplotlib import pyplot
    figure, axes = pyplot.subplots(figsize=(9, 0.28 * len(results) + 1))
    names = list(results)[::-1]
    for shift, peer in enumerate(drivers[1:]):
        medians = [statistics.median(ratios(results[n][drivers[0].name], results[n][peer.name]))
                   for n in names]
        axes.barh([i + 0.4 * shift for i in range(len(names))], medians, height=0.38,
                  label="to " + peer.name)
    axes.axvline(1, color="black", linewidth=0.8)
    axes.set_yticks(range(len(names)))
    axes.set_yticklabels(names, fontsize=7)
    axes.set_xlabel("time of %s, as a ratio (less is faster)" % drivers[0].name)
    axes.legend()
    figure.tight_layout()
    figure.savefig(path, dpi=120)


def print_head(drivers, database):
    print("CPython %s, %s, %s" % (platform.python_version(), database, platform.machine()))
    print("%-44s %12s         " % ("case", drivers[0].name)
          + "".join("   to %-23s" % peer.name for peer in drivers[1:]))


def on_server(options, own):
    from server_cases import running_source, server_cases
    drivers = peer_module.available(peer_module.ON_SERVER[own])
    with running_source() as source:
        print_head(drivers, "PostgreSQL")
        for case in server_cases(source, drivers[0], options.quick):
            if options.only in case.name:
                yield case.name, measure(case, drivers, options.rounds), drivers, "s", "server"


def on_file(options, own):
    drivers = peer_module.available(peer_module.ON_FILE[own])
    print_head(drivers, "SQLite " + peer_module.sqlite3.sqlite_version)
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "bench.db")
        for case in [*other_cases(path, options.quick), *reading_cases(path, options.quick)]:
            if options.only in case.name:
                yield case.name, measure(case, drivers, options.rounds), drivers, "s", "file"
        if options.only in "import":
            yield "import", in_processes(IMPORT, drivers, options.rounds), drivers, "s", "file"
        rows = 1000000 // (10 if options.quick else 1)
        name = "two threads, a scan of %d rows each" % rows
        if options.only in name:
            yield name, {peer.name: two_scans(path, rows, peer, options.rounds)
                         for peer in drivers}, drivers, "x", "file"
        for kind, read in READ.items():
            name = "%s %d rows" % (kind, rows)
            if options.only in name:
                table = table_of(path, "integers", 4, rows)
                yield name, in_processes(MEMORY % (path, table, read), drivers,
                                         min(3, options.rounds)), drivers, "MB", "file"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--server", action="store_true", help="the cases on a PostgreSQL server")
    parser.add_argument("--dbapi", action="store_true", help="vorda.dbapi, on a file and a server")
    parser.add_argument("--quick", action="store_true", help="a tenth of the rows")
    parser.add_argument("--only", default="", metavar="TEXT",
                        help="only cases whose names have this in them")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--json", metavar="FILE")
    parser.add_argument("--plot", metavar="FILE")
    options = parser.parse_args()

    places = [on_server] if options.server else [on_file]
    if options.dbapi and not options.server:
        places.append(on_server)
    own = "dbapi" if options.dbapi else "zelqa"
    results = {}
    for measure_all in places:
        for name, numbers, drivers, unit, place in measure_all(options, own):
            results[name] = numbers
            show(name, numbers, drivers, unit, place)
    if options.json:
        with open(options.json, "w", encoding="utf-8") as file:
            json.dump(results, file, indent=1)
    if options.plot:
        plot(results, drivers, options.plot)


if __name__ == "__main__":
    main()
