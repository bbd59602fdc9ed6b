"""Times the shell's --csv against that of the sqlite3 shell, on one table of a file.

    shell.py [--rows N] [--rounds N] [--most RATIO]

The two take turns, and a ratio is made of the processor times of two neighbours: what else the
machine does slows both. Shown is the median. With --most a larger one fails.
"""

import argparse
import os
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile

import bench

COLUMNS = 9
QUERY = 'SELECT * FROM "%s"'


def seconds(arguments):
    """Processor time of a program that writes to nowhere."""
    before = resource.getrusage(resource.RUSAGE_CHILDREN)
    subprocess.run(arguments, check=True, stdout=subprocess.DEVNULL)
    after = resource.getrusage(resource.RUSAGE_CHILDREN)
    return after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--rows", type=int, default=200000)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--most", type=float, default=0)
    options = parser.parse_args()
    if not shutil.which("sqlite3"):
        sys.exit("shell.py: there is no sqlite3 (in Debian: the package sqlite3)")
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "bench.db")
        query = QUERY % bench.table_of(path, "mixed", COLUMNS, options.rows)
        ratios = []
        for _ in range(options.rounds):
            theirs = seconds(["sqlite3", "-csv", "-header", path, query])
            own = seconds([sys.executable, "-m", "vorda", "--csv", path, query])
            ratios.append(own / theirs)
            print("vorda %.2f s, sqlite3 %.2f s: %.2f" % (own, theirs, own / theirs))
    ratio = statistics.median(ratios)
    print("%d rows of %d columns as CSV take %.2f times as long as with sqlite3"
          % (options.rows, COLUMNS, ratio))
    return 1 if options.most and ratio > options.most else 0


if __name__ == "__main__":
    sys.exit(main())
