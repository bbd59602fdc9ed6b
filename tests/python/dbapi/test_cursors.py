"""Cursors, results, transactions and errors, on SQLite files."""

import inspect
import itertools
import logging
import pickle
import re
import subprocess
import sys
import threading
import warnings

import pytest

from vorda import dbapi


@pytest.fixture
def table(connection):
    connection.execute("CREATE TABLE t (a INTEGER PRIMARY KEY, b TEXT NOT NULL)")
    connection.executemany("INSERT INTO t VALUES (?, ?)", [(i, "x" * i) for i in range(1, 1001)])
    connection.commit()
    return connection


def count(connection):
    return connection.execute("SELECT count(*) FROM t").fetchone()[0]


# --- results -------------------------------------------------------------------------------------


@pytest.mark.parametrize("sql, rows", [
    ("WITH x (a) AS (VALUES (1), (2)) SELECT a FROM x", [(1,), (2,)]),
    ("VALUES (1, 'a')", [(1, "a")]), ("PRAGMA user_version", [(0,)]),
    ("INSERT INTO t VALUES (2001, 'n') RETURNING a, b", [(2001, "n")]),
    ("SELECT a FROM t WHERE a < 0", []), ("SELECT a, 1 FROM t WHERE b = 'xx'", [(2, 1)])])
def test_whatever_has_columns_gives_rows(table, sql, rows):
    cursor = table.execute(sql)
    assert len(cursor.description[0]) == 7 and cursor.fetchall() == rows and cursor.fetchall() == []
    assert cursor.rowcount == -1 and cursor.nextset() is None
    assert cursor.execute("CREATE TABLE n (a)") is cursor and cursor.description is None
    with pytest.raises(dbapi.ProgrammingError, match="gave no rows"):
        cursor.fetchone()


def test_the_last_row_inserted_is_told_by_its_id(table):
    for sql, expected in [("INSERT INTO t VALUES (NULL, 'x'), (NULL, 'y')", 1002),
                          ("INSERT INTO t VALUES (9000000000, 'z')", 9000000000),
                          ("REPLACE INTO t VALUES (-4, 'z') RETURNING a", -4),
                          ("INSERT OR IGNORE INTO t VALUES (-4, 'x')", None),
                          ("UPDATE t SET b = 'x'", None), ("SELECT 1", None)]:
        assert table.execute(sql).lastrowid == expected, sql


def test_rows_come_in_any_portions(table):
    expected = [(i, "x" * i) for i in range(1, 1001)]
    sql = "SELECT a, b FROM t ORDER BY a"
    cursor = table.cursor()
    assert cursor.execute(sql).fetchall() == expected == list(cursor.execute(sql))
    cursor.execute(sql)
    portions = [cursor.fetchone(), *cursor.fetchmany(), *cursor.fetchmany(7),
                *itertools.islice(cursor, 500)]
    assert portions + cursor.fetchmany(size=10000) == expected
    cursor.arraysize = 3
    assert len(cursor.execute(sql).fetchmany()) == 3 and cursor.fetchmany(0) == []


@pytest.mark.parametrize("lengths", [[3000] * 300 + [7] * 300, [20000, 48 * 1024, 1] * 20,
                                     [70000] * 20 + [0] * 300, [1500000, 40, 300000, 2] * 4])
def test_texts_of_any_length_follow_each_other(connection, lengths):
    connection.execute("CREATE TABLE t (a TEXT, n INTEGER)")
    rows = [("xä"[n % 7 == 0] * (n % 2) + "%c" % (65 + n % 26) * length, n)
            for n, length in enumerate(lengths)]
    connection.executemany("INSERT INTO t VALUES (?, ?)", rows)
    assert connection.execute("SELECT a, n FROM t ORDER BY n").fetchall() == rows


def test_statements_take_the_place_of_those_used_longest_ago(table):
    for i in range(400):
        row = (i,) * (i % 4 + 1)
        sql = "SELECT %s" % ", ".join(["?"] * (i % 3) + ["%d" % i] * (len(row) - i % 3))
        row = row if len(row) >= i % 3 else (i,) * (i % 3)
        assert table.execute(sql, row[:i % 3]).fetchall() == [row], sql
    cursors = [table.execute("INSERT INTO t VALUES (%d, '')" % (2000 + i)) for i in range(200)]
    assert cursors[-1].lastrowid == 2199
    del cursors
    cursor = table.cursor()
    with pytest.raises(dbapi.ProgrammingError, match="nowhere"):
        cursor.execute("SELECT nowhere")
    assert cursor.lastrowid is None and cursor.description is None


def test_results_of_several_cursors_do_not_meet(table):
    cursors = [table.execute("SELECT a FROM t WHERE a > ?", (i,)) for i in range(4, -1, -1)][::-1]
    assert list(zip(*cursors)) == [tuple((i + k,) for k in range(5)) for i in range(1, 997)]


def test_a_cell_is_read_as_what_it_is_or_told_by_its_place(connection):
    connection.execute("CREATE TABLE t (a INTEGER, d DATE)")
    for value in (1, "one", 1.5, b"\0", None):
        connection.execute("INSERT INTO t (a) VALUES (?)", (value,))
    assert [row[0] for row in connection.execute("SELECT a FROM t")] == [1, "one", 1.5, b"\0", None]
    connection.execute("UPDATE t SET d = iif(rowid IN (2, 4), 'never', '2024-01-02')")
    cursor = connection.execute("SELECT d FROM t")
    seen = []
    while len(seen) < 6:
        try:
            seen.append(cursor.fetchone())
        except dbapi.DataError as error:
            seen.append(str(error))
    assert [isinstance(row, tuple) for row in seen] == [True, False] * 3 and seen[5] is None
    assert 'Column 1 "d", row 2' in seen[1] and "row 4" in seen[3]
    text = connection.execute("SELECT 1, CAST(x'ff' AS TEXT)")
    with pytest.raises(dbapi.DataError, match="Column 2 .*, row 1: .*UTF-8"):
        text.fetchone()
    assert text.fetchone() is None


def test_descriptions_follow_the_table(table):
    cursor = table.execute("SELECT * FROM t")
    (a, a_kind, *_, a_null), (b, b_kind, *_, b_null) = cursor.description
    assert (a, b, a_null, b_null) == ("a", "b", False, False)
    assert a_kind == dbapi.NUMBER != dbapi.BINARY != a_kind and b_kind == dbapi.STRING
    cursor.close()
    table.execute("ALTER TABLE t RENAME COLUMN b TO c")
    assert [column[0] for column in table.execute("SELECT * FROM t").description] == ["a", "c"]
    assert table.execute('SELECT 1 AS "%s"' % ("é" * 5000)).description[0][0] == "é" * 5000


def test_row_factories(table):
    table.row_factory = dbapi.Row
    first = table.execute("SELECT a, b FROM t").fetchone()
    assert first == (1, "x") == pickle.loads(pickle.dumps(first)) and isinstance(first, dbapi.Row)
    assert (first.a, first["b"], first[0]) == (1, "x", 1)
    assert dict(first) == first._asdict() == {"a": 1, "b": "x"}
    with pytest.raises(KeyError):
        first["c"]
    cursor = table.cursor()
    cursor.row_factory = dbapi.dict_row
    assert cursor.execute("SELECT a FROM t WHERE a = 3").fetchall() == [{"a": 3}]
    assert cursor.execute("SELECT a AS z FROM t WHERE a = 3").fetchall() == [{"z": 3}]


# --- executemany ---------------------------------------------------------------------------------


@pytest.mark.parametrize("autocommit, begin", [(False, ""), (True, ""), (True, "BEGIN")])
def test_executemany_is_all_or_nothing(table, autocommit, begin):
    table.autocommit = autocommit
    table.executescript(begin)
    kept = [(None, "k"), (3000, "k")]
    cursor = table.executemany("INSERT INTO t VALUES (?, ?)", iter(kept))
    assert cursor.rowcount == 2

    def rows(error):
        yield from ((i, "y") for i in range(4000, 8000))
        yield error

    def ends(end):
        yield (4000, "y")
        table.executescript("SAVEPOINT s; ROLLBACK TRANSACTION TO s; RELEASE s")
        end()

    for end in (table.commit, lambda: table.execute("; -- x\n /* */ commit"),
                lambda: table.executemany("ROLLBACK", [()])):
        with pytest.raises(dbapi.ProgrammingError, match="not over"):
            table.executemany("INSERT INTO t VALUES (?, ?)", ends(end))
    for bad, error in (((4000, "twice"), dbapi.IntegrityError),
                       ((9000, object()), dbapi.ProgrammingError),
                       ((1, 2, 3), dbapi.ProgrammingError)):
        with pytest.raises(error):
            table.executemany("INSERT INTO t VALUES (?, ?)", rows(bad))
        assert count(table) == 1002 and table.autocommit is autocommit
    table.rollback()
    assert count(table) == (1002 if autocommit and not begin else 1000)

    def loses():
        yield from ((i, "y") for i in range(4000, 8000))
        with pytest.raises(dbapi.IntegrityError):
            table.execute("INSERT OR ROLLBACK INTO t VALUES (1, ''), (1, '')")
        yield (9000, "y")

    before = count(table)
    table.executescript(begin)
    with pytest.raises(dbapi.OperationalError, match="gone in the middle"):
        table.executemany("INSERT INTO t VALUES (?, ?)", loses())
    assert (count(table), table.in_transaction, table.autocommit) == (before, False, autocommit)


def test_executemany_takes_rows_of_any_kind(table):
    values = [1, None, "x", 2.5, b"b", 2**40, "y" * 100000, "yz" * 1048579, True] * 3
    table.execute("CREATE TABLE m (x)")
    cursor = table.executemany("INSERT INTO m VALUES (?)", ([value] for value in values))
    assert cursor.rowcount == 27
    assert [row[0] for row in table.execute("SELECT x FROM m")] == values
    cursor.executemany("DELETE FROM t WHERE a = :a", ({"a": i} for i in range(500)))
    assert cursor.rowcount == 499
    cursor.execute("SELECT a FROM t").executemany("UPDATE t SET b = ? WHERE a = ?", [])
    assert cursor.rowcount == 0 and cursor.description is None
    table.executemany("INSERT INTO m VALUES (?) RETURNING x", [(1,), (2,)])
    table.execute("CREATE PROCEDURE p (a) AS INSERT INTO m VALUES ($a); SELECT $a")
    table.executemany("EXEC p ?", [(1,), (2,)])
    assert table.execute("SELECT count(*) FROM m").fetchone() == (31,)


# --- transactions --------------------------------------------------------------------------------


def test_transactions(table, tmp_path):
    other = dbapi.connect(Database=str(tmp_path / "data.db"), autocommit=True)
    assert not table.in_transaction
    with table:
        table.execute("DELETE FROM t WHERE a = 1")
        assert table.in_transaction and count(other) == 1000
        with pytest.raises(dbapi.ProgrammingError, match="inside a transaction"):
            table.autocommit = True
    assert count(other) == 999 and not table.in_transaction
    with pytest.raises(ZeroDivisionError):
        with table:
            table.execute("DELETE FROM t")
            1 / 0
    assert count(other) == 999
    table.execute("DELETE FROM t")
    table.close()
    assert count(other) == 999 and table.closed
    other.close()


def test_what_was_not_read_is_gone_with_the_rollback(table):
    cursor = table.execute("SELECT a FROM t ORDER BY a")
    assert cursor.fetchmany(2) == [(1,), (2,)]
    table.commit()
    assert cursor.fetchone() == (3,)
    table.rollback()
    for fetch in (cursor.fetchone, cursor.fetchall):
        with pytest.raises(dbapi.InterfaceError, match="rollback"):
            fetch()
    assert cursor.description[0][0] == "a"
    table.autocommit = True
    assert cursor.execute("SELECT a FROM t ORDER BY a").fetchone() == (1,)
    table.rollback()
    assert cursor.execute("SELECT a FROM t ORDER BY a").fetchone() == (1,)


# --- errors --------------------------------------------------------------------------------------


@pytest.mark.parametrize("sql, kind, state", [
    ("SELEC 1", dbapi.ProgrammingError, "42000"), ("", dbapi.ProgrammingError, "42000"),
    ("SELECT 1; SELECT 2", dbapi.ProgrammingError, "42000"),
    ("SELECT * FROM nowhere", dbapi.ProgrammingError, "42S02"),
    ("INSERT INTO t VALUES (1, 'x')", dbapi.IntegrityError, "23"),
    ("SELECT abs(-9223372036854775808)", dbapi.DataError, "22003")])
def test_errors_are_of_the_class_that_the_state_asks_for(table, sql, kind, state):
    with pytest.raises(kind) as caught:
        table.execute(sql)
    assert type(caught.value) is kind is getattr(table, kind.__name__)
    assert caught.value.sqlstate.startswith(state) and caught.value.native_code is not None


def test_closed_things_say_so(connection):
    cursor = connection.execute("SELECT 1")
    closed = connection.cursor()
    closed.close()
    closed.close()
    for use in (closed.fetchone, lambda: closed.execute("SELECT 1"), lambda: closed.connection):
        with pytest.raises(dbapi.InterfaceError, match="cursor is closed"):
            use()
    with pytest.raises(dbapi.Error, match="open already"):
        connection.__init__("Database=:memory:", True, 0)
    connection.close()
    connection.close()
    for use in (connection.cursor, connection.commit, connection.rollback, cursor.fetchone,
                lambda: cursor.execute("SELECT 1")):
        with pytest.raises(dbapi.OperationalError, match="connection is closed"):
            use()


def test_connecting(tmp_path):
    for path, code in ((tmp_path / "nowhere" / "data.db", 14), (__file__, 26)):
        with pytest.raises(dbapi.Error, match=re.escape(str(path))) as caught:
            dbapi.connect(str(path))
        assert (caught.value.sqlstate, caught.value.native_code & 255) == ("08001", code)
    with pytest.raises(dbapi.ProgrammingError):
        dbapi.connect()
    with pytest.warns(UserWarning, match="Timout"):
        dbapi.connect("Database=:memory:", Timout=5).close()
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        dbapi.connect(tmp_path / "a;=b}.db").close()
        dbapi.connect(Database=str(tmp_path / "a;=b}.db"), Mode="rw", Timeout=None).close()
    assert (tmp_path / "a;=b}.db").exists()


def test_a_file_needs_no_second_thread(tmp_path):
    """With one, all that a process does is slower."""
    program = ("import os, sys\nfrom vorda import dbapi\n"
               "before = len(os.listdir('/proc/self/task'))\n"
               "with dbapi.connect(sys.argv[1], timeout=5) as connection:\n"
               "    connection.execute('SELECT 1').fetchall()\n"
               "assert len(os.listdir('/proc/self/task')) == before")
    subprocess.run([sys.executable, "-c", program, str(tmp_path / "t.db")], check=True)


# --- the rest ------------------------------------------------------------------------------------


def test_scripts_and_procedures(connection):
    connection.executescript("CREATE TABLE s (a); -- one\x0b; two\n"
                             "INSERT INTO s VALUES (';'); INSERT INTO s VALUES (2)")
    connection.execute("CREATE PROCEDURE p (a) AS INSERT INTO s VALUES ($a); SELECT $a + 1 AS n")
    cursor = connection.cursor()
    assert cursor.callproc("p", (41,)) == [41] and cursor.fetchall() == [(42,)]
    assert connection.execute("SELECT a FROM s").fetchall() == [(";",), (2,), (41,)]
    with pytest.raises(TypeError):
        cursor.executescript(None)
    with pytest.raises(dbapi.ProgrammingError):
        cursor.callproc("p; DROP TABLE s")
    with pytest.raises(dbapi.NotSupportedError, match="parameters here"):
        cursor.callproc("p", (dbapi.Out(41),))


def test_the_logger_hears_statements_and_no_values(connection, caplog):
    caplog.set_level(logging.DEBUG, "vorda")
    connection.execute("SELECT ?", ("secret",))
    connection.executemany("SELECT ? WHERE 0", [("secret",)])
    with pytest.raises(dbapi.Error):
        connection.execute("SELEC 1")
    texts = [record.getMessage() for record in caplog.records]
    assert texts[0].startswith("SELECT ? [1 values, query, ") and "failed" in texts[-1]
    assert "secret" not in str(texts)


def test_signatures_and_docstrings():
    for kind in (dbapi.Connection, dbapi.Cursor):
        assert inspect.signature(kind).parameters
        for name in dir(kind):
            member = getattr(kind, name)
            if not name.startswith("_") and not isinstance(member, type):
                assert member.__doc__, name
                if callable(member):
                    inspect.signature(member)
    connection = inspect.signature(dbapi.connect).parameters
    assert list(connection) == ["connection_string", "autocommit", "timeout", "keys"]


def test_threads_share_a_connection(table):
    table.autocommit = True
    failures = []

    def work(number):
        try:
            for i in range(50):
                table.execute("INSERT INTO t VALUES (?, '')", (10000 * number + 5000 + i,))
                found = table.execute("SELECT b FROM t WHERE a = ?", (i + 1,)).fetchone()
                assert found == ("x" * (i + 1),)
        except BaseException as error:
            failures.append(error)

    threads = [threading.Thread(target=work, args=(number,)) for number in range(4)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert not failures and count(table) == 1200


def test_other_threads_wait_for_the_end_of_a_batch(table):
    """What they do would be undone, or committed, with it."""
    table.autocommit = True
    began = threading.Event()
    other = threading.Thread(target=lambda: (
        began.wait(), table.execute("INSERT INTO t VALUES (-1, 'acknowledged')")))
    other.start()

    def rows():
        yield from ((i, "y") for i in range(4000, 8000))
        began.set()
        other.join(0.2)
        assert table.execute("SELECT count(*) FROM t WHERE a = -1").fetchone() == (0,)
        yield (1, "twice")

    with pytest.raises(dbapi.IntegrityError):
        table.executemany("INSERT INTO t VALUES (?, ?)", rows())
    other.join()
    table.rollback()
    assert count(table) == 1001
