"""Statements of unusual size, shape and fate; connection strings; locks."""

import threading

import pytest

from vorda import zelqa


@pytest.mark.parametrize("separator", ["-- c\n", "/* ? */", " + 0"],
                         ids=["lines", "blocks", "terms"])
def test_megabyte_statements(cursor, separator):
    # SQLite's own limits: a statement of 1,000,000 bytes, an expression 1,000 levels deep.
    terms = 900 if separator == " + 0" else 900000 // len(separator)
    sql = "SELECT 1 " + separator * terms + " + ?"
    assert cursor.execute(sql, (41,)).fetchone()[0] == 42


def test_a_thread_with_a_small_stack_executes(path):
    rows = []

    def run():
        connection = zelqa.connect("Database={%s}" % path)
        sql = "SELECT ? /* %s */" % ("é" * 100000)
        rows.append(tuple(connection.execute(sql, (5,)).fetchone()))
        connection.close()

    old = threading.stack_size(256 * 1024)
    try:
        thread = threading.Thread(target=run)
        thread.start()
        thread.join()
    finally:
        threading.stack_size(old)
    assert rows == [(5,)]


@pytest.mark.parametrize("string, reason", [
    ("", "Database is missing"), ("Database=", "Database is missing"),
    ("Mode=rw", "Database is missing"), ("shop.db", "it is Database=shop.db."),
    ("Database=x;Mode=rx", "'rx'"), ("Database=x;Mode=" + "x" * 5000, "xxx"),
    ("Database=x;Timeout=-1", "'-1'"), ("Database=x;Timeout=5s", "'5s'"),
    ("Databse=x;Mode=ro", "Not known: Databse."), ("=x;Database=x", "no key"),
    ("Database=x;PWD=secret;secret2", "part 3 is no Key=Value"),
    ("Driver=x;Password=a;{secret;c=d", "part 3 is no Key=Value"),
    ("UID=me;Pw=a;cd=e;secret=2", r"Not known: UID, Pw, (\(a part of a value\?\)(, )?){2}\."),
    ("Database=x;pwd=a;secret={c", "value of a key lacks its closing }"),
    ("Database={a} b", "follows the closing } of the value of 'Database'"),
    ("Database=/nowhere/at/all.db", "/nowhere/at/all.db"),
    ("Database=%s" % __file__, "not a database"),
])
def test_bad_connection_strings_say_what_is_wrong(string, reason):
    with pytest.raises(zelqa.DatabaseError, match=reason) as caught:
        zelqa.connect(string)
    assert "secret" not in str(caught.value) and len(str(caught.value)) < 200


def test_connection_string_keys_and_modes(path, tmp_path, monkeypatch, connection, cursor):
    cursor.execute("CREATE TABLE t (x INTEGER)")
    reader = zelqa.connect("data source={%s};MODE=ro;Timeout=1;Colour=blue" % path)
    with pytest.raises(zelqa.DatabaseError, match="readonly"):
        reader.execute("INSERT INTO t VALUES (1)")
    assert reader.execute("SELECT count(*) FROM t").fetchone()[0] == 0
    reader.close()
    with pytest.raises(zelqa.DatabaseError):
        zelqa.connect("Database={%s};Mode=rw" % (tmp_path / "absent.db"))
    # A file that is named like a URI is a file.
    monkeypatch.chdir(tmp_path)
    for odd in ("a;b={}.db", "file:u.db?mode=memory"):
        zelqa.connect("Database={%s}" % odd.replace("}", "}}")).execute("CREATE TABLE t (x)")
        assert (tmp_path / odd).exists()
