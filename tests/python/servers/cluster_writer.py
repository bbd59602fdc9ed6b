"""One process of the ledger's test on a cluster: `cluster_writer.py DRIVER LEDGER SEED SLOT
STRING...`, with the servers in the order in which they are tried.

Batches with an odd number are written with a key of their own; the others can be told by their
rows. One that takes the place of a killed writer takes that one's last step again. Ends with status
0 behind a step when SIGTERM, which is blocked, has come.
"""

import collections
import contextlib
import importlib
import json
import os
import random
import re
import signal
import sys
import time

sys.path.append(os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../soak"))
from ledger import PUT, Ledger  # noqa: E402

UNDONE = ("40001", "40P01")
PATIENCE = 60  # seconds


class Writer:
    def __init__(self, driver, ledger, seed, slot, strings):
        self.is_dbapi = driver.__name__.endswith("dbapi")
        self.driver, self.strings, self.seed = driver, collections.deque(strings), seed
        self.ledger = Ledger(ledger)
        self.ledger.last = max(self.ledger.last, slot * 10**6)
        self.rng = random.Random("%d %d" % (seed, self.ledger.last))
        self.met = collections.Counter()
        self.connect()

    def connect(self):
        limit = time.monotonic() + PATIENCE
        while True:
            try:
                self.connection = self.driver.connect(self.strings[0])
                return
            except self.driver.DatabaseError as error:
                if time.monotonic() > limit:
                    raise
                self.met["connect " + self.state_of(error)] += 1
                self.strings.rotate(-1)
                time.sleep(0.05)

    def state_of(self, error):
        if self.is_dbapi:
            return error.sqlstate
        found = re.match(r"\[\w+\]\[\w+\]\[(\w{5})\]", str(error))
        return found.group(1) if found else "none"

    def write(self, batch, sql, sets, version, first):
        """All of a step, in one transaction."""
        cursor, keyed = self.connection.cursor(), batch % 2
        self.within = keyed
        if keyed:
            if not self.is_dbapi:
                cursor.execute("BEGIN")
            cursor.execute("INSERT INTO done VALUES (?, ?)", (batch, version))
            for row in self.rng.sample((1, 2), 2):
                cursor.execute("UPDATE tally SET steps = steps + 1 WHERE id = ?", (row,))
        cursor.executemany(sql, sets)
        if cursor.rowcount != len(sets) and (first or sql == PUT):
            raise AssertionError("%d rows, not %d" % (cursor.rowcount, len(sets)))
        if keyed:
            cursor.executemany("INSERT INTO posting (batch, version, n) VALUES (?, ?, ?)",
                               [(batch, version, n) for n in range(len(sets))])
        if self.is_dbapi:
            self.connection.commit()
        elif keyed:
            cursor.execute("COMMIT")

    def step(self):
        """Takes a step until it is known to be taken."""
        doubtful = bool(self.ledger.doubt)
        batch, old, new, sql, sets = self.ledger.next_step(self.seed, self.rng)
        if not doubtful:
            self.ledger.note("about", batch, old, new)
        first, limit = not doubtful, time.monotonic() + PATIENCE
        while True:
            try:
                self.write(batch, sql, sets, new, first)
                break
            except self.driver.DatabaseError as error:
                state = self.state_of(error)
                self.met[state] += 1
                is_stored = doubtful and state.startswith("23")
                if time.monotonic() > limit or not (is_stored or self.may_pass(error)):
                    raise
                self.recover(state)
                if is_stored:
                    break
                first, doubtful = False, doubtful or state not in UNDONE
        self.ledger.note("is", batch, new)

    def may_pass(self, error):
        if self.is_dbapi:
            return isinstance(error, self.driver.OperationalError)
        return not self.state_of(error).startswith(("22", "23", "42"))

    def recover(self, state):
        """Goes on behind a failure: with a connection that lives, or a new one."""
        with contextlib.suppress(self.driver.DatabaseError):  # the server may be gone since
            if state in UNDONE or state.startswith("23"):
                if self.is_dbapi:
                    self.connection.rollback()
                elif self.within:
                    self.connection.cursor().execute("ROLLBACK")
                return
            self.connection.close()
        self.strings.rotate(-1)
        self.connect()


def main(driver, ledger, seed, slot, *strings):
    writer = Writer(importlib.import_module("vorda." + driver), ledger, int(seed), int(slot),
                    strings)
    writer.step()
    while signal.SIGTERM not in signal.sigpending():
        writer.step()
    print(json.dumps(writer.met))


if __name__ == "__main__":
    main(*sys.argv[1:])
