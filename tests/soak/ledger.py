"""What a batch holds, and the book that a writer keeps about its batches.

A batch is a number; version 0 of it is nothing, and its rows in any other version follow from the
seed, so that everyone can tell what has to be in the database. A writer notes each step from one
version to another before it takes it, and how it went afterwards, in a file outside the database
that survives its death:

    about BATCH OLD NEW | is BATCH VERSION | found BATCH VERSION (by the successor of a writer that
    was killed)
"""

import collections
import datetime
import itertools
import os
import random

TABLE = (
    "CREATE TABLE entry (batch INTEGER NOT NULL, n INTEGER NOT NULL, version INTEGER NOT NULL "
    "CHECK (version > 0),"
    " size INTEGER NOT NULL, number BIGINT, text TEXT, fraction DOUBLE PRECISION,"
    " moment TIMESTAMP, PRIMARY KEY (batch, n))"
)
PUT = "INSERT INTO entry VALUES (?, ?, ?, ?, ?, ?, ?, ?)"
CHANGE = ("UPDATE entry SET version = ?, number = ?, text = ?, fraction = ?, moment = ?"
          " WHERE batch = ? AND n = ?")
# The third value can make the statement fail while it runs: there is no absolute value of -2^63.
ERASE = "DELETE FROM entry WHERE batch = ? AND n = ? AND abs(?) > 0"
# Parts of batches: in no committed state of the file may this find any.
PARTS = (
    "SELECT batch, count(*), max(size), min(version), max(version) FROM entry GROUP BY batch"
    " HAVING count(*) <> max(size) OR min(version) <> max(version)"
)


def rows_of(seed, batch, version):
    """The rows of a batch, as `SELECT * FROM entry ORDER BY n` has them."""
    if version == 0:
        return []
    size = round(2000 ** random.Random("%d %d" % (seed, batch)).random())
    rng = random.Random("%d %d %d" % (seed, batch, version))
    rows = []
    for n in range(size):
        text = "".join(rng.choices("a'é;?李\U0001F600\n", k=rng.randrange(1, 25)))
        moment = datetime.datetime(1900, 1, 1) + datetime.timedelta(0, rng.randrange(6 * 10**9),
                                                                    n % 3)
        rows.append((batch, n, version, size, rng.getrandbits(64) - 2**63, text,
                     rng.uniform(-1e9, 1e9), moment))
    return rows


class Ledger:
    """The book of one writer, which its successors go on with."""

    def __init__(self, path):
        self.versions, self.doubt, self.last, self.steps = {}, None, 0, collections.Counter()
        self.file = os.open(path, os.O_RDWR | os.O_CREAT | os.O_APPEND, 0o600)
        with open(path) as lines:
            for line in lines:
                word, *numbers = line.split()
                self._apply(word, *map(int, numbers))

    def _apply(self, word, batch, *versions):
        self.steps[word] += 1
        if word == "about":
            assert self.doubt is None
            self.doubt, self.last = (batch, *versions), max(self.last, batch)
            return
        assert self.doubt[0] == batch and versions[0] in self.doubt[1:]
        self.doubt = None
        self.versions.pop(batch, None)
        if versions[0]:
            self.versions[batch] = versions[0]

    def note(self, word, batch, *versions):
        # One unbuffered write: a killed writer leaves the whole line or none.
        os.write(self.file, (" ".join(map(str, (word, batch, *versions))) + "\n").encode())
        self._apply(word, batch, *versions)

    def next_step(self, seed, rng):
        """The one of which a killed predecessor left no end, or one to be taken: the batch, its
        versions before and after, the statement and its sets of parameters."""
        batch, old, new = self.doubt or self._choice(rng)
        rows = rows_of(seed, batch, old + 1)
        if not old:
            return batch, old, new, PUT, rows
        if new:
            return batch, old, new, CHANGE, [(*row[2:3], *row[4:], *row[:2]) for row in rows]
        return batch, old, new, ERASE, [(*row[:2], 1) for row in rows]

    def _choice(self, rng):
        if len(self.versions) < 8 or rng.random() < 0.3 and len(self.versions) < 12:
            return self.last + 1, 0, 1
        batch, old = rng.choice(list(self.versions.items()))
        return batch, old, old + 1 if rng.random() < 0.5 else 0

    def allowed(self, seed):
        """For each batch that may be there: the lists of rows that it may consist of."""
        allowed = {batch: [version] for batch, version in self.versions.items()}
        if self.doubt:
            allowed[self.doubt[0]] = self.doubt[1:]
        return {batch: [rows_of(seed, batch, v) for v in versions]
                for batch, versions in allowed.items()}


def differences(allowed, rows):
    """What is otherwise among all stored rows, in the order of their keys, than the ledgers say."""
    stored = {batch: list(group) for batch, group in itertools.groupby(rows, lambda row: row[0])}
    for batch in sorted(stored.keys() | allowed.keys()):
        found = [(*row[:-1], str(row[-1])) for row in stored.get(batch, [])]
        right = [[(*row[:-1], str(row[-1])) for row in rows] for rows in allowed.get(batch, [[]])]
        if found not in right:
            yield "batch %d has %d rows, where the ledger says %s" % (
                batch, len(found), [len(rows) for rows in right])
