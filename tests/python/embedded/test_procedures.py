"""Stored procedures through the module, checked against the standard library's view of the file."""

import datetime
import sqlite3

import pytest

from vorda import zelqa


@pytest.fixture
def table(cursor, stdlib):
    cursor.execute("CREATE TABLE t (a INTEGER PRIMARY KEY, b TEXT, c REAL, d TIMESTAMP)")
    return cursor


def stored(stdlib):
    return stdlib.execute("SELECT a, b FROM t ORDER BY a").fetchall()


def test_values_arrive_as_they_were_sent(table, stdlib):
    table.execute(
        "CREATE PROCEDURE MyProc (pa INTEGER, pb VARCHAR(20), pc, pd TIMESTAMP) AS"
        " INSERT INTO t VALUES ($pa, $pb, $pc, $pd);"
        " SELECT a, b, c, d FROM t WHERE a = $pa; /* the end; */"
    )
    values = (2**62, "it's ¿@pb; 李", 0.1, datetime.datetime(2020, 1, 2, 3, 4, 5))
    assert table.callproc("MyProc", values) is values
    assert [column[0] for column in table.description] == ["a", "b", "c", "d"]
    assert [tuple(row) for row in table.fetchall()] == [values]
    assert stdlib.execute("SELECT * FROM t").fetchall() == [(*values[:3], "2020-01-02 03:04:05")]


def test_every_way_to_call(table, stdlib):
    table.execute("CREATE PROCEDURE put (a, b) AS INSERT OR REPLACE INTO t (a, b) VALUES ($a, $b)")
    arguments = [1, "list"]
    assert table.callproc("PUT", arguments) is arguments
    table.execute("EXECUTE put a=?, b=?", (2, "named"))
    table.execute("EXEC put b=?, a=?", ("order", 3))
    table.execute("EXEC put ?, ?", (4, "positional"))
    table.execute("EXEC put @a=@x, @b=@y", {"y": "dictionary", "x": 5})
    table.execute("EXEC put -6, 'a=?, ''@b'' '")
    table.executemany("EXEC put a=?, b=?", [(7, "many"), (8, "more")])
    texts = ["a=?, '@b' ", "list", "named", "order", "positional", "dictionary", "many", "more"]
    assert [b for _, b in stored(stdlib)] == texts


def test_without_parameters(table, stdlib):
    table.execute("CREATE PROCEDURE fill AS INSERT INTO t (a) VALUES (1), (2)")
    table.execute('CREATE PROCEDURE "it\'s all" AS SELECT a FROM t')
    assert table.callproc("fill") is None
    empty = []
    assert table.callproc('"it\'s all"', empty) is empty
    assert [row[0] for row in table.fetchall()] == [1, 2]
    with pytest.raises(zelqa.ProgrammingError, match="Could not fetch metadata"):
        table.callproc("fill", (1,))


@pytest.mark.filterwarnings("ignore:The statement has 2 ")
def test_mistakes_name_what_is_wrong(table, stdlib):
    table.execute(
        "CREATE PROCEDURE two (a, b) AS INSERT INTO t (a) VALUES ($a); INSERT INTO t (a) VALUES "
        "($b)")
    table.execute("BEGIN")
    for call, message in [
        (("nobody",), "no procedure 'nobody'"),
        (("two",), "no value for its parameter 'a'"),
        (("two", (1,)), "no value is bound to marker 2"),
        (("two", (1, 2, 3)), "bound to marker 3"),
        (("two", (1, 1)), r"UNIQUE constraint failed: t.a \(procedure 'two', statement 2\)"),
    ]:
        with pytest.raises(zelqa.DatabaseError, match=message):
            table.callproc(*call)
    table.execute("COMMIT")  # which no failed call has ended
    assert stored(stdlib) == []


def test_procedures_stay_with_the_file(path, connection, table, stdlib):
    table.execute("CREATE PROCEDURE p (a) AS SELECT $a")
    with pytest.raises(zelqa.DatabaseError, match="cannot be changed"):
        table.execute("DELETE FROM vorda_procedures")
    connection.close()
    # What only other programs know does not disturb them, nor they it.
    with sqlite3.connect(path) as other:
        assert other.execute("PRAGMA integrity_check").fetchone() == ("ok",)
    again = zelqa.connect("Database={%s};Mode=ro" % path)
    cursor = again.cursor()
    cursor.callproc("p", ("kept",))
    assert cursor.fetchone()[0] == "kept"
    again.close()
