"""executemany on real files: what is stored, or that nothing is."""

import pytest

from vorda import zelqa


@pytest.fixture
def table(cursor, stdlib):
    cursor.execute("CREATE TABLE t (a INTEGER PRIMARY KEY, b TEXT, c REAL, d)")
    return cursor


def stored(stdlib, columns="a, b"):
    return stdlib.execute("SELECT %s FROM t ORDER BY a" % columns).fetchall()


def test_all_rows_are_stored_as_they_are(table, stdlib):
    rows = [(i, "é" * (i % 50) + "\0x" * (i % 2), i / 7, -(2**62) + i) for i in range(1, 2001)]
    with pytest.warns(RuntimeWarning, match="NUL"):
        assert table.executemany("INSERT INTO t VALUES (?, ?, ?, ?)", iter(rows)) is table
    assert table.rowcount == 2000
    assert stored(stdlib, "*") == rows
    assert stored(stdlib,
                  "DISTINCT typeof(b), typeof(c), typeof(d)") == [("text", "real", "integer")]


@pytest.mark.parametrize("journal", ["DELETE", "WAL"])
def test_a_batch_kept_out_by_a_lock_leaves_no_transaction_behind(path, stdlib, table, journal):
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
        assert stored(stdlib, "a") == [(3,)]
    # Inside a transaction only the batch is undone, savepoint included.
    impatient.execute("BEGIN")
    stdlib.execute("BEGIN IMMEDIATE")
    with pytest.raises(zelqa.DatabaseError, match="locked"):
        impatient.executemany("INSERT INTO t (a) VALUES (?)", [(1,), (2,)])
    with pytest.raises(zelqa.DatabaseError, match="no such savepoint"):
        impatient.execute("RELEASE vorda_all")
    stdlib.execute("COMMIT")
    impatient.execute("COMMIT")
