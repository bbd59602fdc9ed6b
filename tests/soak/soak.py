#!/usr/bin/env python3
"""The soak: `soak.py [minutes] [--seed N]`, on the embedded runtime and the standard library alone.

Eight processes (worker.py), four with each interface, work on two files, one with a rollback
journal and one with a write-ahead log. Four of them are killed at random with SIGKILL, and others
take their places and their ledgers (ledger.py). In the end each batch of which a ledger says that
it was stored has to be there whole and with its content, no other may be, and a step during which a
writer was killed must have happened whole or not at all. The other four live to the end, two of
them on one and the same connection, and must not have grown.
"""

import argparse
import collections
import json
import os
import random
import shutil
import signal
import sqlite3
import statistics
import subprocess
import sys
import tempfile
import time

from ledger import TABLE, Ledger, differences
from worker import PROCEDURES, connect, zelqa

FILES = ("rollback", "wal")
# an even slot works on the first file; the last two stay connected
MORTAL, SLOTS = range(4), range(8)
STAYING = SLOTS[-2:]
DRIVERS = ("zelqa", "zelqa", "dbapi", "dbapi", "zelqa", "dbapi", "dbapi", "zelqa")
TEXT = "This is no database. " * 100

# operations; by then a process has done everything often, and the caches of SQLite are full
WARM = 1000
# What a process may have gained between the medians of two quarters of its samples. A statement
# without rows keeps its handle, of less than 200 bytes, until the connection ends.
TOLERANCE = {"KiB": 2048, "blocks": 3000, "files": 3}
KIB_PER_OPERATION_OF_STAYING = 1.8


def prepare(folder):
    for name in FILES:
        cursor = connect(zelqa, "%s/%s.db" % (folder, name)).cursor()
        for sql in ("PRAGMA journal_mode = " + ("WAL" if name == "wal" else "DELETE"), TABLE,
                    "CREATE TABLE odd (day DATE)", "INSERT INTO odd VALUES ('soon')",
                    *("CREATE PROCEDURE " + procedure for procedure in PROCEDURES)):
            cursor.execute(sql)
    with open(folder + "/text.db", "w") as file:
        file.write(TEXT)


class Soak:
    def __init__(self, folder, seed, seconds):
        self.folder, self.seed, self.seconds = folder, seed, seconds
        self.rng = random.Random(seed)
        self.processes, self.started, self.kills, self.faults = {}, 0, 0, []

    def start(self, slot):
        self.started += 1
        arguments = (DRIVERS[slot], self.folder, FILES[slot % 2], self.seed, slot, self.started,
                     slot in STAYING, self.seconds / 100)
        script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "worker.py")
        with open("%s/errors-%d" % (self.folder, slot), "a") as errors:
            self.processes[slot] = subprocess.Popen([sys.executable, script, *map(str, arguments)],
                                                    stderr=errors)

    def expect(self, right, fault):
        if not right:
            self.faults.append(fault)

    def is_well(self):
        """Nobody has ended on its own."""
        for slot, process in self.processes.items():
            self.expect(not process.poll(),
                        "process %d ended with status %s" % (slot, process.returncode))
        return not self.faults

    def run(self):
        end = time.monotonic() + self.seconds
        for slot in SLOTS:
            self.start(slot)
        try:
            while self.is_well() and time.monotonic() < end:
                time.sleep(self.rng.expovariate(3))
                slot = self.rng.choice(MORTAL)
                if self.is_well():
                    self.kill(slot)
                    self.start(slot)
            for slot in MORTAL:
                self.kill(slot)
            for process in self.processes.values():
                process.terminate()
            while self.is_well() and None in [each.returncode for each in self.processes.values()]:
                time.sleep(0.1)
        finally:
            for slot in list(self.processes):
                self.kill(slot)

    def kill(self, slot):
        process = self.processes.pop(slot)
        process.kill()
        self.kills += process.wait() == -signal.SIGKILL

    # --- afterwards -------------------------------------------------------------------------------

    def check_files(self):
        ledgers = {slot: Ledger("%s/ledger-%d" % (self.folder, slot)) for slot in SLOTS}
        self.steps = sum((ledger.steps for ledger in ledgers.values()), collections.Counter())
        for index, name in enumerate(FILES):
            allowed = {}
            for slot in SLOTS[index::2]:
                allowed.update(ledgers[slot].allowed(self.seed))
            path = "%s/%s.db" % (self.folder, name)
            # The killed have left their journals, which ours finds; SQLite's own word for the rest.
            connect(zelqa, path).execute("SELECT count(*) FROM entry").fetchall()
            other = sqlite3.connect(path)
            rows = other.execute("SELECT * FROM entry ORDER BY batch, n")
            self.faults += ["%s: %s" % (name, fault) for fault in differences(allowed, rows)]
            self.expect(other.execute("PRAGMA integrity_check").fetchall() == [("ok",)],
                        "%s is damaged" % name)
            other.close()
        with open(self.folder + "/text.db") as file:
            self.expect(file.read() == TEXT, "a file that is no database was changed")
        for name in ("missing", "absent.db"):
            self.expect(not os.path.exists(os.path.join(self.folder, name)),
                        "a failed connect made " + name)

    def check_growth(self):
        """Compares medians: of the first and the last quarter of the samples after the warm-up."""
        for slot in SLOTS[len(MORTAL):]:
            with open("%s/samples-%d" % (self.folder, slot)) as file:
                samples = [json.loads(line) for line in file]
            samples = [sample for sample in samples[len(samples) // 4:] if sample[0] >= WARM]
            quarter = len(samples) // 4
            if not quarter:
                print("process %d: too few operations to judge, below %d" % (slot, WARM))
                continue
            first, last = (list(map(statistics.median, zip(*part)))
                           for part in (samples[:quarter], samples[-quarter:]))
            for what, old, new in zip(TOLERANCE, first[1:], last[1:]):
                limit = TOLERANCE[what]
                if what == "KiB" and slot in STAYING:
                    limit += KIB_PER_OPERATION_OF_STAYING * (last[0] - first[0])
                growth = "process %d: from %d to %d %s" % (slot, old, new, what)
                print(growth)
                self.expect(new - old <= limit, growth)

    def report(self):
        print("processes %d, kills %d; notes %s" % (self.started, self.kills, dict(self.steps)))
        for slot in SLOTS:
            with open("%s/errors-%d" % (self.folder, slot)) as file:
                text = file.read()
            self.expect(not text, "process %d:\n%s" % (slot, text[-3000:]))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("minutes", type=float, nargs="?", default=5)
    parser.add_argument("--seed", type=int, default=random.randrange(10**6))
    options = parser.parse_args()
    folder = tempfile.mkdtemp(prefix="soak-")
    print("soak: %g minutes, --seed %d, in %s" % (options.minutes, options.seed, folder),
          flush=True)
    prepare(folder)
    soak = Soak(folder, options.seed, options.minutes * 60)
    for step in (soak.run, soak.check_files, soak.check_growth, soak.report):
        step()
    if soak.faults:
        sys.exit("\n".join(["", *soak.faults, "soak: FAILED, seed %d; everything is kept in %s"
                            % (options.seed, folder)]))
    shutil.rmtree(folder)
    print("soak: passed")


if __name__ == "__main__":
    main()
