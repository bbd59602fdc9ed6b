"""The road of a query on a real file, checked against the standard library's view of it."""

import datetime

import pytest

from vorda import zelqa


@pytest.fixture
def people(cursor, stdlib):
    cursor.execute(
        "CREATE TABLE person (id INTEGER PRIMARY KEY, name TEXT NOT NULL, born DATE, height REAL)")
    rows = [
        (1, "Ada", datetime.date(1815, 12, 10), 1.65),
        (2, "Žofie", datetime.date(1901, 1, 2), 1.7),
        (3, "李", datetime.date(1999, 12, 31), 1.8125),
    ]
    for row in rows:
        cursor.execute("INSERT INTO person VALUES (?, ?, ?, ?)", row)
        assert cursor.rowcount == 1
    return rows


def test_inserted_rows_are_in_the_file_and_come_back(cursor, stdlib, people):
    stored = stdlib.execute("SELECT * FROM person ORDER BY id").fetchall()
    assert stored == [(i, name, born.isoformat(), height) for i, name, born, height in people]
    cursor.execute("SELECT * FROM person ORDER BY id")
    assert [tuple(row) for row in cursor.fetchall()] == people


def test_description_tells_names_types_and_nullability(cursor, people):
    cursor.execute("SELECT id, name, born, height, height * 2 AS twice FROM person")
    described = [(column[0], column[1], column[6]) for column in cursor.description]
    assert described == [
        ("id", int, False),
        ("name", str, False),
        ("born", datetime.date, True),
        ("height", float, True),
        ("twice", float, True),
    ]
    assert all(column[2] is None and column[3] == column[4] for column in cursor.description)


@pytest.mark.parametrize(
    "sql, parameters",
    [
        ("SELECT name FROM person WHERE id = ? AND name = ?", (2, "Žofie")),
        ("SELECT name FROM person WHERE id = @i AND name = :n", {"i": 2, "n": "Žofie"}),
        ("SELECT name FROM person WHERE '?' <> '\U0001F600?' AND id = ? AND name = ? -- ?",
         (2, "Žofie")),
        ("/* ? */ SELECT name FROM person WHERE name=?AND'@x'<>name AND id=:i", ("Žofie", 2)),
        ("SELECT [name], \"name\" FROM person WHERE `id` = ? AND name = ?;", (2, "Žofie")),
    ],
)
def test_markers_of_every_spelling_reach_their_values(cursor, people, sql, parameters):
    rows = cursor.execute(sql, parameters).fetchall()
    assert [row["name"] for row in rows] == ["Žofie"]


@pytest.mark.filterwarnings("ignore:The statement has 2 ")
def test_errors_leave_the_connection_usable(cursor, people):
    for sql, parameters, message in [
        ("SELEC 1", (), "syntax error"),
        ("SELECT * FROM nowhere", (), "no such table"),
        ("SELECT nonesuch FROM person", (), "no such column"),
        ("INSERT INTO person VALUES (1)", (), "4 columns but 1 values"),
        ("INSERT INTO person VALUES (?, ?, ?, ?)", people[0], "UNIQUE"),
        ("INSERT INTO person (name, height) VALUES (?, ?)", ("x",), "no value is bound"),
    ]:
        with pytest.raises(zelqa.DatabaseError, match=message):
            cursor.execute(sql, parameters)
    assert cursor.execute("SELECT count(*) FROM person").fetchone()[0] == 3


def test_transactions_by_statement(connection, cursor, stdlib, people):
    cursor.execute("BEGIN")
    cursor.execute("DELETE FROM person")
    assert stdlib.execute("SELECT count(*) FROM person").fetchone() == (3,)
    cursor.execute("ROLLBACK")
    cursor.execute("BEGIN")
    cursor.execute("DELETE FROM person WHERE id = 1")
    cursor.execute("COMMIT")
    connection.commit()
    assert stdlib.execute("SELECT count(*) FROM person").fetchone() == (2,)
    cursor.execute("BEGIN")
    cursor.execute("DELETE FROM person")
    connection.close()
    assert stdlib.execute("SELECT count(*) FROM person").fetchone() == (2,)
