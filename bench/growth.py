"""Shows how cost grows with size, and fails where it does not grow in proportion.

    growth.py [--quick]

Each quantity is doubled several times. The exponent is that of the curve time = constant * size **
exponent which fits best: 1 is in proportion, less has a fixed part. Times are the least processor
time of several runs. For rows read one by one it is the memory that counts: it has to stay where it
is, however many rows go by.
"""

import argparse
import contextlib
import gc
import math
import os
import subprocess
import sys
import tempfile
import time

from vorda import zelqa

MOST = 1.15  # exponent; the measurement itself is good to about 0.05
MORE_MEMORY = 1 << 20  # bytes between the smallest and the largest result


def rows(cursor, size):
    cursor.execute("SELECT i, t FROM numbers LIMIT %d" % size)
    return cursor.fetchall


def streamed(cursor, size):
    cursor.execute("SELECT i, t FROM numbers LIMIT %d" % size)
    return lambda: sum(1 for _ in cursor)


def columns(cursor, size):
    cursor.execute("SELECT %s FROM numbers LIMIT 2000" % ", ".join(["i"] * size))
    return cursor.fetchall


def statement(cursor, size):
    # A text that nobody has seen before: nothing that was remembered of it helps.
    number = time.perf_counter_ns()
    text = "SELECT 1 WHERE %d IN (%s)" % (number, ", ".join(["123456"] * (size // 8)))
    return lambda: cursor.execute(text)


def marks(cursor, size):
    text = "SELECT 1 WHERE %d IN (%s)" % (time.perf_counter_ns(), ", ".join("?" * size))
    return lambda: cursor.execute(text, tuple(range(size)))


def named_markers(cursor, size):
    names = ["n%d" % i for i in range(size)]
    text = "SELECT 1 WHERE %d IN (%s)" % (time.perf_counter_ns(),
                                          ", ".join(":" + name for name in names))
    return lambda: cursor.execute(text, dict.fromkeys(names, 7))


def batch(cursor, size):
    cursor.execute("CREATE TABLE IF NOT EXISTS batch (i INTEGER, t TEXT)")
    cursor.execute("DELETE FROM batch")
    values = [(n, "text %d" % n) for n in range(size)]
    return lambda: cursor.executemany("INSERT INTO batch VALUES (?, ?)", values)


# The name, how to prepare it, the smallest size, and how often that is doubled.
CURVES = [
    ("rows, fetchall", rows, 10_000, 5),
    ("rows, iteration", streamed, 10_000, 5),
    ("columns", columns, 8, 4),
    ("statement, bytes", statement, 16_000, 5),
    ("markers", marks, 1_000, 5),
    ("named markers", named_markers, 500, 4),
    ("batch, rows", batch, 5_000, 5),
]


def seconds(prepare, cursor, size, repeats):
    least = math.inf
    for _ in range(repeats):
        run = prepare(cursor, size)
        gc.collect()
        gc.disable()
        start = time.process_time()
        kept = run()
        least = min(least, time.process_time() - start)
        gc.enable()
        del kept
    return least


def exponent(sizes, times):
    x = [math.log(size) for size in sizes]
    y = [math.log(value) for value in times]
    middle = sum(x) / len(x), sum(y) / len(y)
    return (sum((a - middle[0]) * (b - middle[1]) for a, b in zip(x, y)) /
            sum((a - middle[0]) ** 2 for a in x))


def make_numbers(path, count):
    with contextlib.closing(zelqa.connect("Database={%s}" % path)) as connection:
        cursor = connection.cursor()
        cursor.execute("CREATE TABLE numbers (i INTEGER, t TEXT)")
        cursor.execute(
            "WITH RECURSIVE r(n) AS (SELECT 1 UNION ALL SELECT n + 1 FROM r WHERE n < %d)"
                       " INSERT INTO numbers SELECT n, 'row ' || n FROM r" % count)


STREAM = """
import sys
from vorda import zelqa
cursor = zelqa.connect("Database={%s}" % sys.argv[1]).cursor()
cursor.execute("SELECT i, t FROM numbers LIMIT " + sys.argv[2])
while cursor.fetchone() is not None:
    pass
print(next(line.split()[1] for line in open("/proc/self/status") if line.startswith("VmHWM")))
"""


def peak(path, size):
    output = subprocess.run([sys.executable, "-c", STREAM, path, str(size)], stdout=subprocess.PIPE,
                            check=True)
    return int(output.stdout) * 1024


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true", help="fewer repetitions")
    repeats = 3 if parser.parse_args().quick else 7
    bad = []
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "numbers")
        make_numbers(path, 1_600_000)
        with contextlib.closing(zelqa.connect("Database={%s}" % path)) as connection:
            cursor = connection.cursor()
            print("%-18s %8s  %s"
                  % ("", "exponent", "size: microseconds, and nanoseconds for each"))
            for name, prepare, smallest, doublings in CURVES:
                sizes = [smallest << step for step in range(doublings + 1)]
                times = [seconds(prepare, cursor, size, repeats) for size in sizes]
                found = exponent(sizes, times)
                if found > MOST:
                    bad.append(name)
                print("%-18s %8.2f  %s" % (name, found, "  ".join(
                    "%d: %.0f, %.0f" % (size, spent * 1e6, spent / size * 1e9)
                    for size, spent in zip(sizes, times))))
        sizes = [100_000, 400_000, 1_600_000]
        peaks = [peak(path, size) for size in sizes]
        print("%-18s %8s  %s" % ("memory, fetchone", "", "  ".join(
            "%d: %.1f MiB" % (size, most / 2 ** 20) for size, most in zip(sizes, peaks))))
        if max(peaks) - min(peaks) > MORE_MEMORY:
            bad.append("memory")
    if bad:
        sys.exit("grows faster than it should: " + ", ".join(bad))


if __name__ == "__main__":
    main()
