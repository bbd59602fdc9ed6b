#!/usr/bin/env python3
"""The soak: `soak.py [minutes] [--seed N]`, on the embedded runtime and the standard library alone.

Eight processes (worker.py) work on two files, one with a rollback journal and one with a write-ahead log. Four of
them are killed at random with SIGKILL, and others take their places and their ledgers (ledger.py). In the end each
batch of which a ledger says that it was stored has to be there whole and with its content, no other may be, and a
step during which a writer was killed must have happened whole or not at all. The other four live to the end, two of
them on one and the same connection, and must not have grown.
"""

import argparse
import collections
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

from ledger import TABLE, Ledger
from worker import KINDS, PROCEDURES, connect, counters

FILES = ("rollback", "wal")
MORTAL, SLOTS = range(4), range(8)  # an even slot works on the first file; the last two stay connected
STAYING = SLOTS[-2:]
HANG = 90  # seconds; no lock is waited for as long as that

WARM = 4000  # operations; by then a process has done everything often, and the caches of SQLite are full
# What a process may have gained between the medians of two quarters of its samples. A statement without rows keeps
# its handle, of less than 200 bytes, until the connection ends.
TOLERANCE = {"KiB": 2048, "blocks": 3000, "files": 3, "mappings": 24}
KIB_PER_OPERATION_OF_STAYING = 0.4


def prepare(folder):
    for name in FILES:
        cursor = connect("%s/%s.db" % (folder, name)).cursor()
        cursor.execute("PRAGMA journal_mode = " + ("WAL" if name == "wal" else "DELETE"))
        cursor.execute(TABLE)
        cursor.execute("CREATE TABLE odd (day DATE)")
        cursor.execute("INSERT INTO odd VALUES ('soon')")
        for procedure in PROCEDURES:
            cursor.execute("CREATE PROCEDURE " + procedure)
        if not os.path.exists("%s/%s.db" % (folder, name)):
            sys.exit("soak: this is not the embedded runtime")
    with open(folder + "/text.db", "w") as file:
        file.write("This is no database. " * 100)


class Soak:
    def __init__(self, folder, seed, seconds):
        self.folder, self.seed, self.seconds = folder, seed, seconds
        self.rng = random.Random(seed)
        self.counts = [counters("%s/counts-%d" % (folder, slot)) for slot in SLOTS]
        self.moved = {slot: (0, time.monotonic()) for slot in SLOTS}
        self.processes, self.started, self.kills, self.faults = {}, 0, 0, []

    def start(self, slot):
        self.started += 1
        arguments = (self.folder, FILES[slot % 2], self.seed, slot, self.started, slot in STAYING, self.seconds / 100)
        script = os.path.join(os.path.dirname(os.path.abspath(__file__)), "worker.py")
        with open("%s/errors-%d" % (self.folder, slot), "a") as errors:
            self.processes[slot] = subprocess.Popen([sys.executable, script, *map(str, arguments)], stderr=errors)

    def watch(self):
        """Whether all is well: nobody has ended on its own, or does nothing any more."""
        for slot, process in self.processes.items():
            done = sum(self.counts[slot])
            if self.moved[slot][0] != done:
                self.moved[slot] = done, time.monotonic()
            if process.poll():
                self.faults.append("process %d ended with status %d" % (slot, process.returncode))
            elif process.returncode is None and time.monotonic() - self.moved[slot][1] > HANG:
                process.send_signal(signal.SIGUSR1)  # where it hangs goes to its errors
                time.sleep(1)
                self.faults.append("process %d hangs" % slot)
        return not self.faults

    def run(self):
        begin = told = time.monotonic()
        for slot in SLOTS:
            self.start(slot)
        try:
            while self.watch() and time.monotonic() < begin + self.seconds:
                time.sleep(self.rng.expovariate(3))
                slot = self.rng.choice(MORTAL)
                if self.watch():
                    self.kill(slot)
                    self.start(slot)
                if time.monotonic() > told + min(30, self.seconds / 3):
                    told = time.monotonic()
                    operations = sum(map(sum, self.counts))
                    print("%4d s: %d operations, %d kills" % (told - begin, operations, self.kills), flush=True)
            for slot in MORTAL:
                self.kill(slot)
            for process in self.processes.values():
                process.terminate()
            while self.watch() and any(process.returncode is None for process in self.processes.values()):
                time.sleep(0.1)
        finally:
            for slot in list(self.processes):
                self.kill(slot)

    def kill(self, slot):
        process = self.processes.pop(slot)
        process.kill()
        self.kills += process.wait() == -signal.SIGKILL

    # --- afterwards ----------------------------------------------------------------------------------------

    def check_files(self):
        ledgers = {slot: Ledger("%s/ledger-%d" % (self.folder, slot)) for slot in SLOTS}
        for index, name in enumerate(FILES):
            allowed = {}
            for slot in SLOTS[index::2]:
                allowed.update(ledgers[slot].allowed(self.seed))
            path = "%s/%s.db" % (self.folder, name)
            order = "SELECT * FROM entry ORDER BY batch, n"
            # The killed have left their journals; ours is the one that finds them.
            self.compare(name + ", zelqa", allowed, map(tuple, connect(path).execute(order).fetchall()))
            other = sqlite3.connect(path)
            self.compare(name + ", sqlite3", {
                batch: [[(*row[:-1], str(row[-1])) for row in rows] for rows in versions]
                for batch, versions in allowed.items()
            }, other.execute(order))
            answer = other.execute("PRAGMA integrity_check").fetchone()[0]
            if answer != "ok":
                self.faults.append("%s: %s" % (name, answer))
            other.close()
        with open(self.folder + "/text.db") as file:
            if file.read() != "This is no database. " * 100:
                self.faults.append("a file that is no database was changed")
        for name in ("missing", "absent.db"):
            if os.path.exists(os.path.join(self.folder, name)):
                self.faults.append("a failed connect made " + name)
        self.steps = sum((collections.Counter(ledger.steps) for ledger in ledgers.values()), collections.Counter())

    def compare(self, what, allowed, rows):
        stored = collections.defaultdict(list)
        for row in rows:
            stored[row[0]].append(row)
        for batch in sorted(stored.keys() | allowed.keys()):
            if stored[batch] not in allowed.get(batch, [[]]):
                self.faults.append("%s: batch %d has %d rows, where the ledger says %s" % (
                    what, batch, len(stored[batch]), [len(rows) for rows in allowed.get(batch, [[]])]))

    def check_growth(self):
        """Compares medians: of the first and the last quarter of the samples after the warm-up."""
        print("\n%-22s %10s %s" % ("process", "operations", " ".join("%21s" % name for name in TOLERANCE)))
        for slot in SLOTS[len(MORTAL):]:
            with open("%s/samples-%d" % (self.folder, slot)) as file:
                samples = [tuple(map(int, line.split())) for line in file]
            name = "%s%s" % (FILES[slot % 2], ", one connection" if slot in STAYING else "")
            operations = sum(self.counts[slot])
            samples = [sample for sample in samples[len(samples) // 4:] if sample[0] >= WARM]
            quarter = len(samples) // 4
            if not quarter:
                print("%-22s %10d too few to judge: it has to do %d to be warm" % (name, operations, WARM))
                continue
            first, last = ([statistics.median(column) for column in zip(*part)]
                           for part in (samples[:quarter], samples[-quarter:]))
            cells = ["%9d to %9d" % pair for pair in zip(first[1:], last[1:])]
            print("%-22s %10d %s" % (name, operations, " ".join(cells)))
            for what, old, new in zip(TOLERANCE, first[1:], last[1:]):
                limit = TOLERANCE[what]
                if what == "KiB" and slot in STAYING:
                    limit += KIB_PER_OPERATION_OF_STAYING * (last[0] - first[0])
                if new - old > limit:
                    self.faults.append("process %d (%s) has grown from %d to %d %s" % (slot, name, old, new, what))

    def report(self):
        print("\nprocesses %d, kills %d; steps of batches: %s" % (
            self.started, self.kills, ", ".join("%s %d" % step for step in self.steps.items())))
        for index, kind in enumerate(KINDS):
            print("  %-24s %8d" % (kind, sum(counts[index] for counts in self.counts)))
        for slot in SLOTS:
            with open("%s/errors-%d" % (self.folder, slot)) as file:
                text = file.read()
            if text:
                self.faults.append("process %d:\n%s" % (slot, text[-3000:]))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("minutes", type=float, nargs="?", default=5)
    parser.add_argument("--seed", type=int, default=random.randrange(10**6))
    options = parser.parse_args()
    folder = tempfile.mkdtemp(prefix="soak-")
    print("soak: %g minutes, --seed %d, in %s" % (options.minutes, options.seed, folder), flush=True)
    prepare(folder)
    soak = Soak(folder, options.seed, options.minutes * 60)
    soak.run()
    soak.check_files()
    soak.check_growth()
    soak.report()
    if soak.faults:
        print("\n" + "\n".join(soak.faults))
        sys.exit("soak: FAILED, seed %d; everything is kept in %s" % (options.seed, folder))
    shutil.rmtree(folder)
    print("soak: passed")


if __name__ == "__main__":
    main()
