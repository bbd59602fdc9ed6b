"""What the command line exports it imports again, on every engine, and a failing import leaves
nothing."""

import subprocess
import sys

import pytest

# By column: the declared type, and values as SQL. Two names that need quotes; one is a word of SQL
# everywhere.
COLUMNS = {
    "id": ("INTEGER", "1", "2", "3"), "order": ("BIGINT", "-9223372036854775808", "NULL", "7"),
    "2020": ("DOUBLE PRECISION", "0.1", "NULL", "1e300"),
    "a.b": ("DECIMAL(12,4)", "12.5", "NULL", "-0.0001"),
    "is it": ("BOOLEAN", "true", "NULL", "false"),
    "day": ("DATE", "'2024-02-29'", "NULL", "'0001-01-01'"),
    "at": ("TIMESTAMP", "'2024-02-29 23:59:59'", "NULL", "'2024-01-01 00:00:00'"),
    "words": ("VARCHAR(200)", "''", "NULL", "'a,\"b\" ?'"),
}


@pytest.fixture
def table(engine, cursor):
    """The name of a table, as SQL has it."""
    kinds = {"TIMESTAMP": engine.kind("timestamp").declared}
    columns = {column: values for column, values in COLUMNS.items()
               if engine.name != "sqliteodbc" or "." not in column}  # whose driver says "b"
    name = engine.quoted % "group"
    cursor.execute("DROP TABLE IF EXISTS " + name)
    cursor.execute("CREATE TABLE %s (%s, UNIQUE (id))" % (name, ", ".join(
        engine.quoted % column + " " + kinds.get(values[0], values[0])
        for column, values in columns.items())))
    for row in list(zip(*columns.values()))[1:]:
        cursor.execute("INSERT INTO %s VALUES (%s)" % (name, ", ".join(row)))
    yield name
    cursor.execute("DROP TABLE " + name)


def vorda(engine, *arguments, stdin="", status=0):
    done = subprocess.run([sys.executable, "-m", "vorda", engine.string, *arguments], input=stdin,
                          encoding="utf-8", stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          timeout=60)
    assert done.returncode == status, done.stderr
    return done.stdout + done.stderr


def rows_of(cursor, table):
    return [tuple(row) for row in cursor.execute("SELECT * FROM %s ORDER BY id" % table)]


def test_what_is_exported_is_imported(engine, cursor, table, tmp_path):
    rows, file = rows_of(cursor, table), tmp_path / "all.csv"
    file.write_text(vorda(engine, "--csv", "SELECT * FROM %s ORDER BY id" % table),
                    encoding="utf-8")
    cursor.execute("DELETE FROM " + table)
    assert "(3 rows imported" in vorda(engine, ".import %s group" % file)
    assert rows_of(cursor, table) == rows


@pytest.mark.parametrize("begin, line", [("", "1,again"), ("BEGIN;", "1,again"), ("", "9,x,y"),
                                         ("", "x,no number")])
def test_a_failing_import_leaves_nothing(engine, cursor, table, tmp_path, begin, line):
    file = tmp_path / "some.csv"
    file.write_text("id,words\n" + "".join("%d,x\n" % i for i in range(4, 2500)) + line + "\n")
    assert "some.csv: " in vorda(engine, stdin="%s\n.import %s group\n" % (begin, file), status=1)
    assert len(rows_of(cursor, table)) == 3


def test_a_table_without_transactions_is_left_alone(engine, cursor, tmp_path):
    if engine.name != "mariadb":
        pytest.skip("all tables have them")
    cursor.execute("CREATE TABLE t (id INTEGER) ENGINE=MyISAM")
    (tmp_path / "a.csv").write_text("id\n1\n")
    assert "MyISAM" in vorda(engine, ".import %s t" % (tmp_path / "a.csv"), status=1)
    assert cursor.execute("SELECT * FROM t").fetchall() == []
