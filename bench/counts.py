"""What the drivers themselves cost, in instructions, without any database: on the null runtime,
under callgrind.

    counts.py            measure, and print a table
    counts.py --check    also fail when a count has risen by more than a tenth against counts.json
    counts.py --write    keep the counts in counts.json

Those of vorda.dbapi include what the null runtime itself does for its blocks of rows.

Counts are the same in every run of one build, whatever else the machine does. Across compilers they
are not, so each kept count is scaled by what the hand-written loop of probe.cpp takes here and took
there. Nothing makes those of one interpreter or C library comparable with those of another: there
--check says so, and judges nothing.
"""

import argparse
import gc
import glob
import json
import os
import platform
import re
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
KEPT = os.path.join(HERE, "counts.json")
TYPES = ["int", "bigint", "bit", "double", "text", "text200", "decimal", "date", "time",
         "timestamp", "halfnull"]
ROWS, EXECUTES, BATCH = 400, 50, 400
TOLERANCE = 1.10


def measure():
    """Runs in the process that callgrind watches; each dump is one number."""
    import probe
    from vorda import dbapi, zelqa
    gc.disable()  # it would come into one count or another

    def counted(label, work, *args):
        work(*args)  # whatever is made once is made now
        probe.toggle()
        work(*args)
        probe.toggle()
        probe.dump(label)

    def fetched(label, cursor, sql):
        cursor.execute(sql).fetchall()
        cursor.execute(sql)
        probe.toggle()
        kept = cursor.fetchall()
        probe.toggle()
        probe.dump(label)
        del kept  # releasing the rows is not counted, here as in the loop

    cursor, full = zelqa.connect("").cursor(), dbapi.connect("Database=x").cursor()
    for name in TYPES:
        for columns in (1, 9):
            sql = "SELECT %d %s %d" % (columns, name, ROWS)
            probe.make(columns, name, ROWS)
            probe.dump("")
            probe.make(columns, name, ROWS)
            probe.dump("loop %s %d" % (name, columns))
            probe.fetch(columns, name, ROWS)
            probe.dump("fetch %s %d" % (name, columns))
            fetched("module %s %d" % (name, columns), cursor, sql)
            fetched("dbapi %s %d" % (name, columns), full, sql)

    def execute(*params):
        for _ in range(EXECUTES):
            cursor.execute(*params)

    def execute_full(sql, *params):
        for _ in range(EXECUTES):
            full.execute(sql, *params)

    def execute_new(start):
        for number in range(start, start + EXECUTES):
            full.execute("SELECT 1 int 1 WHERE a = %d" % number)

    def point():
        for _ in range(EXECUTES):
            full.execute("SELECT 1 text 1 WHERE a = ?", (5,)).fetchall()

    counted("statement without rows", execute, "UPDATE t SET a = 1")
    counted("query of one column", execute, "SELECT 1 int 0")
    counted("statement with one parameter", execute, "UPDATE t SET a = ?", (5,))
    counted("statement with named parameters", execute, "UPDATE t SET a = :a, b = :b",
            {"a": 5, "b": "x"})
    counted("statement of 10 KB", execute,
            "UPDATE t SET a = 1 WHERE " + " OR ".join("b = %d" % n for n in range(900)))
    counted("dbapi: statement without rows", execute_full, "UPDATE t SET a = 1")
    counted("dbapi: statement with three parameters", execute_full,
            "INSERT INTO t VALUES (?, ?, ?)", (5, 1.5, "text"))
    counted("dbapi: point query", point)
    for start in range(1000, 4000, 1000):  # until as many are kept as ever
        execute_new(start)
    probe.toggle()
    execute_new(4000)
    probe.toggle()
    probe.dump("dbapi: statement never seen")
    for value in (5, 1.5, "short text", zelqa.Date(2026, 11, 21)):
        rows = [(value,)] * BATCH
        counted("batch of %s" % type(value).__name__, cursor.executemany,
                "INSERT INTO t VALUES (?)", rows)
        if not isinstance(value, zelqa.Date):
            counted("dbapi: batch of %s" % type(value).__name__, full.executemany,
                    "INSERT INTO t VALUES (?)", rows)


def counts():
    """A dictionary of label to instructions, per row, cell or statement."""
    raw = {}
    with tempfile.TemporaryDirectory() as folder:
        command = ["valgrind", "--tool=callgrind", "--collect-atstart=no",
                   "--callgrind-out-file=%s/out" % folder, sys.executable,
                   os.path.abspath(__file__), "--measure"]
        done = subprocess.run(command, env=dict(os.environ, PYTHONHASHSEED="0"),
                              stderr=subprocess.PIPE, encoding="utf-8")
        if done.returncode != 0:
            sys.exit("the measured process failed:\n" + done.stderr)
        for path in glob.glob(folder + "/out*"):
            with open(path, encoding="utf-8") as file:
                text = file.read()
            label = re.search(r"^desc: Trigger: Client Request: (.+)$", text, re.MULTILINE)
            total = re.search(r"^(?:summary|totals): (\d+)", text, re.MULTILINE)
            if label and total:
                raw[label.group(1)] = int(total.group(1))

    result = {}
    for name in TYPES:
        for who in ("loop", "fetch", "module", "dbapi"):
            cell = (raw["%s %s 9" % (who, name)] - raw["%s %s 1" % (who, name)]) / (8 * ROWS)
            result["%s cell %s" % (who, name)] = cell
            result["%s row %s" % (who, name)] = raw["%s %s 1" % (who, name)] / ROWS - cell
        for what in ("cell", "row"):
            result["module %s %s" % (what, name)] -= result.pop("fetch %s %s" % (what, name))
    for label, count in raw.items():
        if "batch" in label:
            result[label] = count / BATCH
        elif label.startswith(("statement", "query", "dbapi:")):
            result[label] = count / EXECUTES
    return result


def print_table(now):
    print("instructions %28s %9s %9s %7s" % ("zelqa", "dbapi", "loop", "ratio"))
    for what in ("cell", "row"):
        for name in TYPES:
            ours, full, loop = [now["%s %s %s" % (who, what, name)]
                                for who in ("module", "dbapi", "loop")]
            print("%-30s %10.0f %9.0f %9.0f %7.2f"
                  % ("a %s of %s" % (what, name), ours, full, loop, ours / loop))
    for label in now:
        if not label.startswith(("module", "loop", "dbapi ")):
            print("%-40s %10.0f" % (label, now[label]))


def surroundings():
    return "CPython %s, %s" % (sys.version, " ".join(platform.libc_ver()))


def check(now, kept):
    """The labels whose counts have risen by more than the tolerance."""
    loops = [label for label in kept if label.startswith("loop cell")]
    scale = sum(now[label] for label in loops) / sum(kept[label] for label in loops)
    risen = []
    for label in sorted(kept):
        # A few instructions more are within what another compiler does to a small count.
        if not label.startswith("loop") and now[label] > kept[label] * scale * TOLERANCE + 5:
            risen.append("%s: %.0f, was %.0f" % (label, now[label], kept[label] * scale))
    return risen


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--check", action="store_true")
    parser.add_argument("--write", action="store_true")
    parser.add_argument("--measure", action="store_true", help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.measure:
        return measure()
    now = counts()
    print_table(now)
    if options.write:
        with open(KEPT, "w", encoding="utf-8") as file:
            kept = {label: round(count, 1) for label, count in sorted(now.items())}
            json.dump({"surroundings": surroundings(), "counts": kept}, file, indent=1)
            file.write("\n")
    if options.check:
        with open(KEPT, encoding="utf-8") as file:
            kept = json.load(file)
        if kept["surroundings"] != surroundings():
            return print("NOT JUDGED: these are counts of %s, the kept ones of %s" %
                         (surroundings(), kept["surroundings"]))
        risen = check(now, kept["counts"])
        if risen:
            sys.exit("counts have risen:\n  " + "\n  ".join(risen))
        print("no count has risen by more than %d %%" % round(100 * TOLERANCE - 100))


if __name__ == "__main__":
    main()
