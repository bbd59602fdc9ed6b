"""executemany on real files: what is stored, or that nothing is."""

import datetime

import pytest

from vorda import zelqa


@pytest.fixture
def table(cursor, stdlib):
    cursor.execute("CREATE TABLE t (a INTEGER PRIMARY KEY, b TEXT, c REAL, d)")
    return cursor


def stored(stdlib, columns="a, b"):
    return stdlib.execute("SELECT %s FROM t ORDER BY a" % columns).fetchall()


def generated(rows):
    yield from rows


@pytest.mark.parametrize("rows_of", [list, tuple, iter, generated])
def test_all_rows_are_stored_as_they_are(table, stdlib, rows_of):
    rows = [(i, "é" * (i % 50) + "\0x" * (i % 2), i / 7, -(2**62) + i) for i in range(1, 2001)]
    with pytest.warns(RuntimeWarning, match="NUL"):
        assert table.executemany("INSERT INTO t VALUES (?, ?, ?, ?)", rows_of(rows)) is table
    assert table.rowcount == 2000
    assert stored(stdlib, "*") == rows
    assert stored(stdlib,
                  "DISTINCT typeof(b), typeof(c), typeof(d)") == [("text", "real", "integer")]


@pytest.mark.parametrize(
    "values",
    [
        (datetime.date(2020, 1, 2), datetime.date(1, 12, 31)),
        (datetime.datetime(2020, 1, 2, 3, 4, 5), datetime.datetime(2020, 1, 2, 3, 4, 5, 600)),
        (datetime.time(3, 4, 5), datetime.time(0, 0)),
    ],
    ids=["dates", "datetimes", "times"],
)
def test_dates_are_stored_as_their_texts(table, stdlib, values):
    table.executemany("INSERT INTO t (a, d) VALUES (?, ?)", enumerate(values))
    assert stored(stdlib, "d") == [(str(value),) for value in values]


def test_a_failing_row_is_named_and_nothing_stored(table, stdlib):
    table.execute("INSERT INTO t (a, b) VALUES (7, 'old')")
    rows = [(i, "new") for i in range(10)]
    with pytest.raises(zelqa.DatabaseError, match=r"UNIQUE.*t\.a \(parameter set 8 of 10\)"):
        table.executemany("INSERT INTO t (a, b) VALUES (?, ?)", rows)
    assert stored(stdlib) == [(7, "old")]
    # The statement after it is a single one again, and the batch can be repeated.
    table.execute("INSERT INTO t (a, b) VALUES (?, ?)", (10, "one"))
    assert table.rowcount == 1
    table.executemany("INSERT OR REPLACE INTO t (a, b) VALUES (?, ?)", rows)
    assert stored(stdlib) == [*rows, (10, "one")]


def test_what_cannot_be_bound_executes_nothing(table, stdlib):
    for rows in [
        [(1, "x"), (2,)],
        [(1, "x"), (2, 3)],
        [(1, "x"), (2**63, "y")],
        [(1, "x"), (2, "\ud800")],
    ]:
        with pytest.raises(zelqa.ProgrammingError):
            table.executemany("INSERT INTO t (a, b) VALUES (?, ?)", rows)
    with pytest.raises(zelqa.DatabaseError, match="HYC00|several parameter sets"):
        table.executemany("SELECT ?", [(1,), (2,)])
    assert stored(stdlib) == []


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
