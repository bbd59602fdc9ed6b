"""One process of the soak: a random mix of everything that a program can do on one database file,
with one of the interfaces.

Ends with status 0 at SIGTERM; anything that ought not to happen ends it with a traceback.
"""

import contextlib
import faulthandler
import itertools
import json
import mmap
import os
import random
import re
import signal
import sys
import time
import warnings

from ledger import CHANGE, ERASE, PARTS, PUT, Ledger, rows_of
from vorda import dbapi, zelqa

READ = "SELECT * FROM entry WHERE batch = ? ORDER BY n"
CALLS, PROCEDURES = {}, []
for name, sql in {"put": PUT, "change": CHANGE, "erase": ERASE, "read": READ}.items():
    numbers = itertools.count(1)
    body = re.sub(r"\?", lambda mark: "$p%d" % next(numbers), sql)
    values = sql.count("?")
    PROCEDURES.append("%s (%s) AS %s"
                      % (name, ", ".join("p%d" % (n + 1) for n in range(values)), body))
    CALLS[sql] = "EXEC %s %s" % (name, ", ".join("?" * values))

HANG = 90  # seconds; no lock is waited for as long as that
BUSY = re.compile("database (table |schema )?is locked|BUSY")
ERRORS = (
    ("SELEC 1", (), "syntax error"),
    ("SELECT * FROM nowhere", (), "no such table"),
    ("SELECT ? + ?", (1,), "bound|parameter"),
    ("SELECT ?", (object(),), "type"),
    ("INSERT INTO entry (batch, n) VALUES (1, 1)", (), "NOT NULL"),
    ("SELECT abs(?)", (-(2**63),), "overflow"),
    ("SELECT * FROM odd", (), "day"),
    ("EXEC nobody 1", (), "procedure"),
)
FAILED_CONNECTS = (("/missing/a.db", "missing"), ("/absent.db};Mode={rw", "absent"),
                   ("/text.db", "not a database"), ("/wal.db};Timeout={soon", "soon"))


class Fault(Exception):
    """Something that must never happen."""


def connect(driver, path, timeout=5):
    """Each statement is a transaction of its own, unless one was begun."""
    options = {"autocommit": True} if driver is dbapi else {}
    return driver.connect("Database={%s};Timeout=%s" % (path, timeout), **options)


@contextlib.contextmanager
def unless_busy():
    """Lets pass what a lock of another process keeps from happening."""
    try:
        yield
    except (zelqa.DatabaseError, dbapi.DatabaseError) as error:
        if not BUSY.search(str(error)):
            raise


def patiently(action, *arguments):
    while True:
        with unless_busy():
            return action(*arguments)


def spoiled(rng, sql, sets):
    """The same work with one row that fails."""
    place = rng.randrange(len(sets))
    bad, column = {PUT: (0, 2), CHANGE: (0, 0), ERASE: (-(2**63), 2)}[sql]
    row = (*sets[place][:column], bad, *sets[place][column + 1:])
    return [*sets[:place], row, *sets[place + 1:]]


class Worker:
    def __init__(self, driver, folder, name, seed, slot, generation, stays):
        self.driver, self.seed, self.slot, self.stays = driver, seed, slot, stays
        self.folder, self.path = folder, "%s/%s.db" % (folder, name)
        self.rng, self.done = random.Random("%d %d %d" % (seed, slot, generation)), 0
        self.ledger = Ledger("%s/ledger-%d" % (folder, slot))
        self.ledger.last = max(self.ledger.last, slot * 10**9)
        self.connection, self.left = self.connect(), []
        if self.ledger.doubt:
            self.settle_doubt()

    def connect(self, timeout=5):
        return connect(self.driver, self.path, timeout)

    def settle_doubt(self):
        """Looks up what became of the step during which the predecessor was killed."""
        batch, *versions = self.ledger.doubt
        rows = patiently(self.rows_stored, batch)
        for version in versions:
            if rows == rows_of(self.seed, batch, version):
                return self.ledger.note("found", batch, version)
        raise Fault("batch %d is neither as before nor as after the step %s: %d rows"
                    % (batch, versions, len(rows)))

    def rows_stored(self, batch):
        """The rows of a batch, by any way of fetching."""
        cursor = self.connection.cursor()
        if self.rng.random() < 0.5:
            cursor.callproc("read", (batch,))
        else:
            cursor.execute(READ.replace("?", ":b"), {"b": batch})
        rows = self.rng.choice((cursor.fetchall, lambda: cursor, lambda: cursor.fetchmany(10000),
                                lambda: iter(cursor.fetchone, None)))()
        return [tuple(row) for row in rows]

    # --- operations -------------------------------------------------------------------------------

    def write(self):
        """One step of one batch, by one of the ways to take it."""
        self.left.clear()  # half-read rows there would keep us waiting for ourselves
        rng = self.rng
        batch, old, new, sql, sets = self.ledger.next_step(self.seed, rng)
        # These keep what they have done at a failure, or end the transaction around them.
        doomed = sql.replace("INTO", rng.choice(("OR FAIL INTO", "OR ROLLBACK INTO")))
        stored, way, *arguments = rng.choice((
            (True, self.run, sql, sets),
            (True, self.run, CALLS[sql], sets),
            (True, self.in_transaction, sql, sets, "COMMIT"),
            (False, self.in_transaction, sql, sets, "ROLLBACK"),
            (False, self.in_transaction, sql, sets, None),
            *((False, self.refuse, "", self.run, each, spoiled(rng, sql, sets))
              for each in (sql, doomed, CALLS[sql])),
        ))
        self.ledger.note("about", batch, old, new)
        done = False
        with unless_busy():
            way(*arguments)
            done = stored
        self.ledger.note("is", batch, new if done else old)

    def run(self, sql, sets):
        cursor = self.connection.cursor().executemany(sql, sets)
        if cursor.rowcount != len(sets) and not sql.startswith("EXEC"):
            raise Fault("wrong row count")

    def in_transaction(self, sql, sets, end):
        """The work in parts, failing ones among them; without an end on a connection that is closed
        or forgotten."""
        rng, connection = self.rng, self.connection if end else self.connect(1)
        cursor = connection.cursor()
        cursor.execute(rng.choice(("BEGIN", "BEGIN IMMEDIATE", "BEGIN EXCLUSIVE")))
        try:
            while sets:
                cut = rng.randrange(len(sets)) + 1
                part, sets = sets[:cut], sets[cut:]
                if rng.random() < 0.3:
                    self.refuse("", cursor.executemany, sql, spoiled(rng, sql, part))
                if len(part) < 50 and rng.random() < 0.5:
                    for row in part:
                        cursor.callproc(CALLS[sql].split()[1], row)
                else:
                    cursor.executemany(rng.choice((sql, CALLS[sql])), part)
            if end:
                patiently(self.end(connection, end))
            elif rng.random() < 0.5:
                connection.close()
        except self.driver.DatabaseError:
            self.end(connection, "ROLLBACK")()
            raise

    def end(self, connection, how):
        if self.driver is dbapi and self.rng.random() < 0.5:
            return getattr(connection, how.lower())
        return lambda: connection.cursor().execute(how)

    def refuse(self, pattern, action, *arguments):
        """The action has to fail, with a text that fits; a lock of another process is passed on."""
        try:
            action(*arguments)
        except self.driver.Error as error:
            if BUSY.search(str(error)) or not re.search(pattern, str(error)):
                raise
            return
        raise Fault("accepted: %s %.300r" % (action, arguments))

    def read_own(self):
        if self.ledger.versions:
            batch, version = self.rng.choice(list(self.ledger.versions.items()))
            if self.rows_stored(batch) != rows_of(self.seed, batch, version):
                raise Fault("batch %d is not as it was stored" % batch)

    def audit(self):
        """What others do at the same time is seen whole or not at all, and not at all inside a
        transaction."""
        cursor = self.connection.cursor()
        cursor.execute("BEGIN")
        try:
            sums = []
            for _ in range(2):
                parts = cursor.execute(PARTS).fetchall()
                cursor.execute("SELECT count(*), total(number) FROM entry")
                sums.append(tuple(cursor.fetchone()))
                if parts or sums[0] != sums[-1]:
                    raise Fault("parts: %s, sums: %s" % ([tuple(row) for row in parts], sums))
        finally:
            cursor.execute("ROLLBACK")

    def abandon(self):
        """Half-read rows, of which some are on connections that are never closed."""
        connection = self.connect() if self.rng.random() < 0.3 else self.connection
        cursor = connection.cursor().execute("SELECT * FROM entry WHERE n >= ? LIMIT 3000",
                                             (self.rng.randrange(3),))
        cursor.fetchmany(self.rng.choice((1, 10, 1000)))
        self.left = self.left[-1:] + [cursor]

    def fail(self):
        for sql, parameters, pattern in self.rng.choices(ERRORS, k=10):
            cursor = self.connection.cursor()
            self.refuse(pattern, lambda: cursor.execute(sql, parameters).fetchall())
        for path, pattern in self.rng.choices(FAILED_CONNECTS, k=5):
            self.refuse(pattern, connect, self.driver, self.folder + path)

    def change_schema(self):
        for sql in ("DROP TABLE IF EXISTS scratch_%d", "CREATE TABLE scratch_%d (a)"):
            self.connection.cursor().execute(sql % self.slot)
        self.connection.cursor().execute("CREATE OR REPLACE PROCEDURE "
                                         + self.rng.choice(PROCEDURES))

    def reconnect(self):
        if self.stays:
            return
        if self.rng.random() < 0.5:
            self.connection.close()
        self.connection = self.connect(self.rng.choice((0.05, 0.5, 5)))

    MIX = {write: 10, read_own: 6, audit: 1, abandon: 4, fail: 8, change_schema: 0.3, reconnect: 2}

    def step(self):
        self.done += 1
        action = self.rng.choices(list(self.MIX), list(self.MIX.values()))[0]
        with unless_busy():
            action(self)

    def sample(self, file):
        """Operations so far, resident KiB, blocks that Python has allocated, open files."""
        self.left.clear()
        with open("/proc/self/statm") as statm:
            resident = int(statm.read().split()[1]) * mmap.PAGESIZE // 1024
        values = self.done, resident, sys.getallocatedblocks(), len(os.listdir("/proc/self/fd"))
        os.write(file, (json.dumps(values) + "\n").encode())


def main(driver, folder, name, seed, slot, generation, stays, interval):
    stopping = []
    signal.signal(signal.SIGTERM, lambda *_: stopping.append(True))
    warnings.simplefilter("ignore")  # of values that do not fit, and keys that mean nothing
    worker = patiently(Worker, {"zelqa": zelqa, "dbapi": dbapi}[driver], folder, name, int(seed),
                       int(slot), int(generation), stays == "True")
    file = os.open("%s/samples-%s" % (folder, slot), os.O_WRONLY | os.O_CREAT | os.O_APPEND, 0o600)
    due = 0.0
    while not stopping:
        # One that hangs says where, and ends.
        faulthandler.dump_traceback_later(HANG, exit=True)
        worker.step()
        if time.monotonic() > due:
            worker.sample(file)
            due = time.monotonic() + float(interval)


if __name__ == "__main__":
    main(*sys.argv[1:])
