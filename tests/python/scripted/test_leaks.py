"""Nothing is left behind, however often an operation runs and however it ends."""

import datetime
import sys
import warnings

import pytest

from vorda import zelqa

from conftest import DECIMAL, TIMESTAMP, WVARCHAR, Column, Timestamp, assert_no_growth

COLUMNS = [Column("t", WVARCHAR), Column("d", DECIMAL), Column("s", TIMESTAMP), Column("n")]
GOOD = ["text", "1.5", Timestamp(2024, 2, 29), 77777]
VALUES = ("a text of its own", 2 ** 40, 123.5, datetime.date(2024, 2, 29),
          datetime.datetime(2024, 2, 29, 1, 2, 3), datetime.time(1, 2, 3), None)
NAMED = {"a": VALUES[0], "b": VALUES[1]}
UPDATE = "UPDATE t SET a = @a, b = @b"


def use_rows(cursor):
    row = cursor.execute("SELECT *").fetchone()
    assert row["t"] in row and len(repr(row)) > 10 and list(row)
    row[0] = object()
    for wrong in ("zz", 99, None, slice(0)):
        with pytest.raises((zelqa.Error, IndexError)):
            row[wrong]


OPERATIONS = {
    "connect": lambda cursor: zelqa.connect("Server=there").close(),
    "connect badly": lambda cursor: zelqa.connect(b"bytes"),
    "direct": lambda cursor: cursor.execute("SELECT *"),
    "fetch": lambda cursor: cursor.execute("SELECT *").fetchall(),
    "iterate": lambda cursor: list(cursor.execute("SELECT *")),
    "next": lambda cursor: [cursor.execute("SELECT *").next() for _ in range(9)] + [cursor.next()],
    "row": use_rows,
    "separate values": lambda cursor: cursor.execute(UPDATE, *VALUES),
    "sequence": lambda cursor: cursor.execute(UPDATE, list(VALUES)),
    "names": lambda cursor: cursor.execute(UPDATE, NAMED),
    "missing name": lambda cursor: cursor.execute("UPDATE t SET a = @a, b = @zz", NAMED),
    "unsupported": lambda cursor: cursor.execute(UPDATE, 1, b"bytes"),
    "too large": lambda cursor: cursor.execute(UPDATE, 10 ** 30),
    "no text": lambda cursor: cursor.execute(UPDATE, "\ud800"),
    "no statement": lambda cursor: cursor.execute(b"bytes"),
    "batch": lambda cursor: cursor.executemany(UPDATE, [VALUES, VALUES]),
    "generated batch": lambda cursor: cursor.executemany(UPDATE, (VALUES for _ in range(9))),
    "ragged batch": lambda cursor: cursor.executemany(UPDATE, [VALUES, VALUES[1:]]),
    "batch that is too large": lambda cursor: cursor.executemany(UPDATE, [(1,), (2 ** 70,)]),
    "unsupported batch": lambda cursor: cursor.executemany(UPDATE, [(b"x",)]),
    "broken batch": lambda cursor: cursor.executemany(UPDATE, (1 / 0 for _ in VALUES)),
    "procedure": lambda cursor: cursor.callproc("P", VALUES[:1]),
    "procedure alone": lambda cursor: cursor.callproc("P"),
}


@pytest.mark.parametrize("operation", OPERATIONS.values(), ids=OPERATIONS.keys())
@pytest.mark.parametrize("cells, failing", [
    (GOOD, None), (GOOD, "SQLExecute"), (GOOD, "SQLExecDirectW"), (GOOD, "SQLDriverConnectW"),
    (GOOD, "SQLFetch"), ([b"\xff"] + GOOD[1:], None), (["x" * 3000] + GOOD[1:], None),
    (["text", "no number"] + GOOD[2:], None), (GOOD[:2] + [Timestamp(0, 0, 0), 1], None)],
    ids=["good", "execute", "direct", "connect", "fetch", "bad text", "cut text", "bad number",
         "bad date"])
def test_nothing_is_left(runtime, operation, cells, failing):
    """Each time on a connection of its own, since a direct statement lives as long as that."""
    def run():
        runtime.reset()
        for _ in range(2):
            runtime.result(*COLUMNS, rows=[cells, cells])
        connection = zelqa.connect("Server=there")
        if failing:
            runtime.fail_next(failing, "it broke")
        try:
            operation(connection.cursor())
        except (zelqa.Error, TypeError, ValueError, ArithmeticError, StopIteration):
            pass
        connection.close()
        assert runtime.live_handles() == 0

    before = [sys.getrefcount(value) for value in VALUES[:-1]]
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        assert_no_growth(run, 40)
    assert [sys.getrefcount(value) for value in VALUES[:-1]] == before
