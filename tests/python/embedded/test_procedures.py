"""Stored procedures through the module, checked against the standard library's view of the file."""

import datetime

import pytest

from vorda import zelqa


def test_values_arrive_as_they_were_sent(cursor, stdlib):
    cursor.execute("CREATE TABLE t (a INTEGER PRIMARY KEY, b TEXT, c REAL, d TIMESTAMP)")
    cursor.execute(
        "CREATE PROCEDURE MyProc (pa INTEGER, pb VARCHAR(20), pc, pd TIMESTAMP) AS"
        " INSERT INTO t VALUES ($pa, $pb, $pc, $pd);"
        " SELECT a, b, c, d FROM t WHERE a = $pa; /* the end; */"
    )
    values = (2**62, "it's ¿@pb; 李", 0.1, datetime.datetime(2020, 1, 2, 3, 4, 5))
    assert cursor.callproc("myproc", values) is values
    assert [column[0] for column in cursor.description] == ["a", "b", "c", "d"]
    assert [tuple(row) for row in cursor.fetchall()] == [values]
    assert stdlib.execute("SELECT * FROM t").fetchall() == [(*values[:3], "2020-01-02 03:04:05")]
    assert stdlib.execute("PRAGMA integrity_check").fetchone() == ("ok",)


def test_without_parameters(cursor, stdlib):
    cursor.execute("CREATE PROCEDURE fill AS CREATE TABLE t (a); INSERT INTO t VALUES (1), (2)")
    assert cursor.callproc("fill") is None
    cursor.execute('CREATE PROCEDURE "it\'s all" AS SELECT a FROM t')
    empty = []
    assert cursor.callproc('"it\'s all"', empty) is empty
    assert [row[0] for row in cursor.fetchall()] == [1, 2]
    with pytest.raises(zelqa.ProgrammingError, match="Could not fetch metadata"):
        cursor.callproc("fill", (1,))
