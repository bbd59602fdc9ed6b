"""The road of a query on a real file, checked against the standard library's view of it."""

import datetime

import pytest

from vorda import zelqa


@pytest.fixture
def people(cursor, stdlib):
    cursor.execute("CREATE TABLE person (id INTEGER PRIMARY KEY, name TEXT NOT NULL, born DATE, height REAL)")
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


def test_rows_answer_by_index_name_and_membership(cursor, people):
    row = cursor.execute("SELECT * FROM person WHERE id = ?", 2).fetchone()
    assert row[1] == row[-3] == row["name"] == "Žofie"
    assert "Žofie" in row and len(row) == 4
    assert repr(row) == "(2, 'Žofie', datetime.date(1901, 1, 2), 1.7)"


def test_rowcount_grows_with_the_rows_fetched(cursor, people):
    cursor.execute("SELECT * FROM person")
    assert cursor.rowcount == 0
    cursor.fetchone()
    assert cursor.rowcount == 1
    assert len(cursor.fetchmany(1)) == 1 and len(cursor.fetchall()) == 1
    assert cursor.rowcount == 3 and cursor.fetchone() is None
    cursor.execute("UPDATE person SET height = 1")
    assert cursor.rowcount == 3
    cursor.execute("DELETE FROM person WHERE id = ?", 99)
    assert cursor.rowcount == 0


def test_iteration_streams_and_ends(cursor, stdlib, people):
    assert [row[0] for row in cursor.execute("SELECT id FROM person ORDER BY id DESC")] == [3, 2, 1]
    with pytest.raises(StopIteration):
        cursor.next()


@pytest.mark.parametrize(
    "sql, parameters",
    [
        ("SELECT name FROM person WHERE id = ? AND name = ?", (2, "Žofie")),
        ("SELECT name FROM person WHERE id = @i AND name = :n", {"i": 2, "n": "Žofie"}),
        ("SELECT name FROM person WHERE '?' <> '\U0001F600?' AND id = ? AND name = ? -- ?", (2, "Žofie")),
        ("/* ? */ SELECT name FROM person WHERE name=?AND'@x'<>name AND id=:i", ("Žofie", 2)),
        ("SELECT [name], \"name\" FROM person WHERE `id` = ? AND name = ?;", (2, "Žofie")),
    ],
)
def test_markers_of_every_spelling_reach_their_values(cursor, people, sql, parameters):
    rows = cursor.execute(sql, parameters).fetchall()
    assert [row["name"] for row in rows] == ["Žofie"]


def test_errors_are_database_errors_and_leave_the_connection_usable(cursor, people):
    for sql in ("SELEC 1", "SELECT * FROM nowhere", "SELECT nothing FROM person", "INSERT INTO person VALUES (1)"):
        with pytest.raises(zelqa.DatabaseError) as caught:
            cursor.execute(sql)
        assert str(caught.value)
    with pytest.raises(zelqa.DatabaseError, match="UNIQUE|unique"):
        cursor.execute("INSERT INTO person VALUES (?, ?, ?, ?)", people[0])
    assert cursor.execute("SELECT count(*) FROM person").fetchone()[0] == 3


def test_too_few_parameters_are_an_error_not_nulls(cursor, stdlib, people):
    with pytest.raises(zelqa.DatabaseError):
        cursor.execute("INSERT INTO person (name, height) VALUES (?, ?)", ("x",))
    assert stdlib.execute("SELECT count(*) FROM person").fetchone() == (3,)


def test_a_failed_fetch_names_the_column_and_does_not_repeat_rows(cursor, stdlib, people):
    stdlib.execute("UPDATE person SET born = 'soon' WHERE id = 2")
    cursor.execute("SELECT id, born FROM person ORDER BY id")
    assert cursor.fetchone()[0] == 1
    with pytest.raises(zelqa.DatabaseError, match="born"):
        cursor.fetchone()
    with pytest.raises(zelqa.DatabaseError, match="born"):
        cursor.execute("SELECT id, born FROM person ORDER BY id").fetchall()


def test_a_statement_with_no_result_keeps_the_description_but_ends_the_rows(cursor, people):
    description = cursor.execute("SELECT id FROM person").description
    cursor.execute("UPDATE person SET name = name")
    assert cursor.description is description
    with pytest.raises(zelqa.ProgrammingError, match="No results.  Previous SQL was not a DQL."):
        cursor.fetchall()


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
