"""What the command line exports it imports again, on every engine, and a failing import leaves
nothing."""

import subprocess
import sys
from datetime import date, datetime
from decimal import Decimal

import pytest

from vorda import dbapi

# By column: the declared type, and values. Names that need quotes; one is a word of SQL everywhere.
COLUMNS = {
    "id": ("INTEGER", 1, 2, 3), "order": ("BIGINT", -2**63, None, 7),
    "2020": ("DOUBLE PRECISION", 0.1, None, 1e300),
    "a.b": ("DECIMAL(12,4)", Decimal("12.5"), None, Decimal("-0.0001")),
    "is it?": ("BOOLEAN", True, None, False),
    "day": ("DATE", date(2024, 2, 29), None, date(1, 1, 1)),
    "at": ("TIMESTAMP", datetime(2024, 2, 29, 23, 59, 59), None, datetime(2024, 1, 1)),
    "words": ("VARCHAR(200)", "", None, "a,\"b\" ?\n"), "bytes": ("BLOB", b"", None, b"\0\xff"),
}


@pytest.fixture
def cursor(engine):
    connection = dbapi.connect(engine.string, autocommit=True)
    connection.execute("DROP TABLE IF EXISTS t")
    yield connection.cursor()
    connection.close()


@pytest.fixture
def table(engine, cursor):
    """The name of a table, as SQL has it."""
    kinds = {"TIMESTAMP": engine.kind("timestamp").declared, "BLOB": engine.binary}
    columns = {column: values for column, values in COLUMNS.items()
               if engine.name != "sqliteodbc" or "." not in column}  # whose driver says "b"
    name = engine.quoted % "group"
    cursor.execute("DROP TABLE IF EXISTS " + name)
    cursor.execute("CREATE TABLE %s (%s, UNIQUE (id))" % (name, ", ".join(
        engine.quoted % column + " " + kinds.get(values[0], values[0])
        for column, values in columns.items())))
    cursor.executemany("INSERT INTO %s VALUES (%s)" % (name, ", ".join("?" * len(columns))),
                       list(zip(*columns.values()))[1:])
    yield name
    cursor.execute("DROP TABLE " + name)


def vorda(engine, *arguments, stdin="", status=0):
    done = subprocess.run([sys.executable, "-m", "vorda", engine.string, *arguments], input=stdin,
                          encoding="utf-8", stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          timeout=60)
    assert done.returncode == status, done.stderr
    return done.stdout + done.stderr


def rows_of(cursor, table):
    return cursor.execute("SELECT * FROM %s ORDER BY id" % table).fetchall()


def test_what_is_exported_is_imported(engine, cursor, table, tmp_path):
    rows, file = rows_of(cursor, table), tmp_path / "all.csv"
    file.write_text(vorda(engine, "--csv", "SELECT * FROM %s ORDER BY id" % table),
                    encoding="utf-8")
    cursor.execute("DELETE FROM " + table)
    assert "(3 rows imported" in vorda(engine, ".import %s group" % file)
    assert rows_of(cursor, table) == rows


@pytest.mark.parametrize("begin, line, status", [
    ("", "1,again", 1), ("BEGIN;", "1,again", 1), ("", "9,x,y", 1), ("", "x,no number", 1),
    ("BEGIN; ROLLBACK; BEGIN;", "9000,not committed", 0)])
def test_a_failing_import_leaves_nothing(engine, cursor, table, tmp_path, begin, line, status):
    file = tmp_path / "some.csv"
    file.write_text("id,words\n" + "".join("%d,x\n" % i for i in range(4, 5000)) + line + "\n")
    said = vorda(engine, stdin="%s\n.import %s group\n" % (begin, file), status=status)
    assert ("some.csv: " if status else "(4,997 rows imported") in said
    assert ("not committed" in said) is bool(begin)
    assert len(rows_of(cursor, table)) == 3


def test_a_table_without_transactions_is_left_alone(engine, cursor, tmp_path):
    if engine.name != "mariadb":
        pytest.skip("all tables have them")
    cursor.execute("CREATE TABLE t (id INTEGER) ENGINE=MyISAM")
    (tmp_path / "a.csv").write_text("id\n1\n")
    assert "MyISAM" in vorda(engine, ".import %s t" % (tmp_path / "a.csv"), status=1)
    assert cursor.execute("SELECT * FROM t").fetchall() == []
