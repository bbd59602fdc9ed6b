"""executemany on files that others lock."""

import pytest

from vorda import zelqa


def stored(stdlib):
    return stdlib.execute("SELECT a FROM t ORDER BY a").fetchall()


@pytest.mark.parametrize("journal", ["DELETE", "WAL"])
def test_a_batch_kept_out_by_a_lock_leaves_no_transaction_behind(path, stdlib, journal):
    stdlib.execute("CREATE TABLE t (a INTEGER PRIMARY KEY)")
    stdlib.execute("PRAGMA journal_mode = " + journal)
    impatient = zelqa.connect("Database={%s};Timeout=0" % path).cursor()
    # A reader keeps a batch from its commit only where there is a rollback journal.
    for lock in ("BEGIN IMMEDIATE", "BEGIN") if journal == "DELETE" else ("BEGIN IMMEDIATE",):
        stdlib.execute(lock)
        stored(stdlib)
        with pytest.raises(zelqa.DatabaseError, match="locked"):
            impatient.executemany("INSERT INTO t (a) VALUES (?)", [(1,), (2,)])
        stdlib.execute("COMMIT")
        impatient.execute("INSERT OR REPLACE INTO t (a) VALUES (3)")
        assert stored(stdlib) == [(3,)]
