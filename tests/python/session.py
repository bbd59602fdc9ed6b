"""A short session with the module that goes everywhere once, for a run under valgrind (./dev
sanitize)."""

import datetime
import os
import tempfile

from vorda import zelqa

VALUES = {
    "INTEGER": -(2**63), "REAL": 0.5, "TEXT": "é\U0001F600" * 200,
    "DATE": datetime.date(2024, 2, 29),
    "TIME": datetime.time(23, 59, 58), "TIMESTAMP": datetime.datetime(1, 2, 3, 4, 5, 6, 789000),
    "BOOLEAN": True,
}


def expect(kind, call, *arguments):
    try:
        call(*arguments)
    except kind as error:
        return str(error)
    raise AssertionError("no %s" % kind.__name__)


def session(path):
    connection = zelqa.connect("Database={%s}" % path)
    cursor = connection.cursor()

    columns = ", ".join("c%d %s" % pair for pair in enumerate(VALUES))
    cursor.execute("CREATE TABLE v (%s, price DECIMAL(12,4), raw BLOB)" % columns)
    marks = ", ".join("?" * len(VALUES))
    cursor.execute("INSERT INTO v VALUES (%s, '12.5', NULL)" % marks, tuple(VALUES.values()))
    cursor.executemany("INSERT INTO v VALUES (%s, NULL, x'00ff')" % marks,
                       [tuple(VALUES.values())] * 40)
    assert cursor.rowcount == 40
    names = ", ".join("c%d" % i for i in range(len(VALUES)))
    rows = cursor.execute("SELECT %s, price FROM v" % names).fetchall()
    assert [tuple(row)[:-1] for row in rows] == [tuple(VALUES.values())] * 41
    assert rows[0]["c2"] == VALUES["TEXT"] and str(rows[0]["price"]) == "12.5"
    assert rows[1]["price"] is None
    assert len(cursor.description) == len(VALUES) + 1 and repr(rows[0]) and hash(rows[0][2])

    row = cursor.execute("SELECT :a AS a, ':b' AS b, :c AS c", {"a": 1, "c": "x"}).fetchone()
    assert tuple(row) == (1, ":b", "x")
    cursor.execute(
        "CREATE PROCEDURE p (a INTEGER) AS INSERT INTO v (c0) VALUES ($a); SELECT $a + 1 AS n")
    cursor.callproc("p", (41,))
    assert [tuple(row) for row in cursor] == [(42,)]

    for statement in ("SELEC 1", "SELECT * FROM nowhere", "SELECT 'open",
                      "INSERT INTO v VALUES (1)"):
        assert expect(zelqa.DatabaseError, cursor.execute, statement)
    expect(zelqa.DatabaseError, cursor.executemany, "INSERT INTO nowhere VALUES (?)", [(1,), (2,)])
    expect(zelqa.Error, cursor.callproc, "missing", (1,))
    expect(zelqa.Error, lambda: cursor.execute("SELECT raw FROM v").fetchone())
    expect(Exception, cursor.execute, "SELECT ?", (object(),))
    expect(zelqa.Error, zelqa.connect, "Database={%s};Mode=rw" % (path + ".missing"))

    abandoned = connection.cursor()
    abandoned.execute("SELECT c0 FROM v").fetchmany(3)
    connection.close()
    expect(zelqa.Error, abandoned.fetchone)


with tempfile.TemporaryDirectory() as folder:
    session(os.path.join(folder, "data.db"))
