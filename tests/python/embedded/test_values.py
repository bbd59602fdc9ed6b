"""Values in and out: exact, or an error."""

import contextlib

import pytest

from vorda import dbapi, zelqa


LONG = "12345678901234567890.12"


@pytest.mark.parametrize("sql, kept, refused", [
    ("INSERT INTO d (n) VALUES (?)",
     ["4.892096", "123456789012345", "0.00000000000000000000123456789012345",
      "1.50000000000000000000", "9223372036854775807", "1e300", LONG + "x"],
     ["9223372036854775808", "9007199254740993.0", " +" + LONG, "0.12345678901234567890", "-1e400",
      "1e-400", "1e9999"]),
    ("INSERT INTO d (i) VALUES (?)", [], ["12345678901234567890"]),
    ("INSERT INTO d (r) VALUES (?)", [LONG], []), ("INSERT INTO d (b) VALUES (?)", [LONG], []),
    ("INSERT INTO d (s) VALUES (?)", [], [LONG]),  # for the trigger's sake
    ("INSERT INTO log SELECT ? UNION SELECT 1", [], [LONG]),
    ("INSERT INTO d (b, n) SELECT x, x FROM (SELECT ? AS x)", [LONG], []),
    ("UPDATE d SET b = ?", [LONG], []), ("UPDATE d SET n = ?", [], [LONG]),
    ("DELETE FROM d WHERE n = ?", [LONG], []), ("EXEC p a=?", [], [LONG])])
def test_columns_of_numbers_keep_all_digits_or_refuse_them(cursor, stdlib, sql, kept, refused):
    for setup in ("CREATE TABLE d (n DECIMAL(30,10), i INTEGER, r REAL, s TEXT, b)",
                  "CREATE TABLE log (n NUMERIC)", "INSERT INTO d (i) VALUES (77)",
                  "CREATE TRIGGER g AFTER INSERT ON d BEGIN INSERT INTO log VALUES (new.s); END",
                  "CREATE PROCEDURE p (a) AS INSERT INTO d (n) VALUES ($a)"):
        cursor.execute(setup)
    for text in refused * 2:
        with pytest.raises(zelqa.DatabaseError, match="Parameter 1: column "):
            cursor.execute(sql, (text,))
    assert stdlib.execute("SELECT * FROM d").fetchall() == [(None, 77, None, None, None)]
    for text in kept:
        cursor.execute(sql, (text,))


@pytest.mark.parametrize("declared, stored", [
    ("INTEGER", "'abc'"), ("INTEGER", "1.5"), ("BOOLEAN", "7"), ("DATE", "'2024-13-01'"),
    ("DATE", "'yesterday'"), ("TIME", "5"), ("TIMESTAMP", "'noon'"), ("TIMESTAMP", "x'00'"),
    ("REAL", "'x'"), ("TEXT", "x'00ff'"), ("DECIMAL(5,2)", "'1e'"),
    ("TIME", "'00:00:00.0000000001'")])
def test_a_cell_that_does_not_fit_its_column_is_an_error(cursor, stdlib, path, declared, stored):
    cursor.execute("CREATE TABLE t (misfit %s)" % declared)
    stdlib.execute("INSERT INTO t VALUES (%s)" % stored)
    cursor.execute("SELECT misfit FROM t")
    with pytest.raises(zelqa.DatabaseError, match="misfit"):
        cursor.fetchone()
    if declared not in ("INTEGER", "REAL", "TEXT"):  # where cells are taken as they are
        with contextlib.closing(dbapi.connect(path)) as other:
            with pytest.raises(dbapi.DataError, match="misfit"):
                other.execute("SELECT misfit FROM t").fetchone()
