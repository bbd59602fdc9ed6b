"""What vorda.dbapi does on servers only."""

import datetime
import os
import signal
import subprocess
import sys
import threading
import time
from decimal import Decimal

import pytest

import engines
from vorda import dbapi

PROCEDURES = {
    "postgresql": "CREATE OR REPLACE PROCEDURE outs(a integer, INOUT b text, OUT c integer)"
                  " LANGUAGE plpgsql AS 'BEGIN b := b || a; c := a + 1; END'",
    "mariadb": "CREATE OR REPLACE PROCEDURE outs(a integer, INOUT b text, OUT c integer)"
               " BEGIN SET b = CONCAT(b, a); SET c = a + 1; END",
}


def test_output_parameters_are_replaced_or_a_row(engine):
    if engine.name not in engines.SERVERS:
        pytest.skip("no server")
    connection = dbapi.connect(engine.string, autocommit=True)
    connection.execute(PROCEDURES[engine.name])
    cursor = connection.cursor()
    cursor.row_factory = dbapi.dict_row
    given = [1, dbapi.Out("x"), dbapi.Out()]
    if engine.name == "postgresql":
        assert cursor.callproc("outs", given) == [1, "x1", 2] and given[1].value == "x"
        with pytest.raises(dbapi.ProgrammingError, match="1 output"):
            cursor.callproc("outs", (1, dbapi.Out("x"), None))
        assert cursor.row_factory is dbapi.dict_row
    else:
        with pytest.raises(dbapi.NotSupportedError, match="row"):
            cursor.callproc("outs", given)
        assert cursor.callproc("outs", (1, "x", None)) == [1, "x", None]
        assert cursor.fetchall() == [{"b": "x1", "c": 2}]
    connection.close()


def test_times_with_a_zone_go_where_one_is_kept(engine):
    summer, winter = (datetime.datetime(2024, 10, 27, 2, 30, 0, 5, tzinfo=datetime.timezone(
        datetime.timedelta(hours=hours))) for hours in (2, 1))
    connection = dbapi.connect(engine.string)
    cursor = connection.cursor()

    def refused(call, *arguments):
        with pytest.raises(dbapi.DataError, match="time zone") as caught:
            call(*arguments)
        assert caught.value.sqlstate == "22007"

    if engine.name != "postgresql":
        refused(cursor.execute, "SELECT ?", (summer,))
        return
    cursor.execute("SET TIME ZONE 'Europe/Berlin'")
    cursor.execute("CREATE TEMPORARY TABLE zones (a TIMESTAMPTZ, b TIMESTAMP, c TIMETZ)")
    connection.commit()
    for when in (summer, winter, None):
        cursor.execute("INSERT INTO zones (a) VALUES (?)", (when,))
        refused(cursor.execute, "SELECT ? < localtimestamp", (summer,))
        refused(cursor.execute, "SELECT 1; SELECT CAST(? AS TIMESTAMPTZ)", (summer,))
    cursor.executemany("INSERT INTO zones VALUES (?, ?, ?)", [
        (winter, summer.replace(tzinfo=None), None), (str(summer), None, winter.timetz()),
        (summer, None, None)])
    connection.commit()
    rows = cursor.execute("SELECT extract(epoch FROM a), b, CAST(c AS text) FROM zones").fetchall()
    seconds = [Decimal(when.timestamp()).quantize(Decimal("1e-6")) for when in (summer, winter)]
    assert [row[0] for row in rows] == [*seconds, None, seconds[1], *seconds[:1] * 2]
    assert rows[3][1] == summer.replace(tzinfo=None) and rows[4][2] == "02:30:00.000005+01"
    for mixed in ([(winter.replace(tzinfo=None),), (winter,)], [("2024-01-01",), (winter,)]):
        refused(cursor.executemany, "INSERT INTO zones (b) VALUES (?)", mixed)
        connection.rollback()
    refused(cursor.executemany, "INSERT INTO zones (c) VALUES (?)", [(winter.timetz(),), (winter,)])
    connection.close()


def test_results_of_one_text_come_one_after_the_other(engine):
    if engine.name not in engines.SERVERS:
        pytest.skip("no server")
    several = ";Option=67108864" if engine.name == "mariadb" else ""
    connection = dbapi.connect(engine.string + several)
    cursor = connection.cursor()
    for _ in range(3):  # the driver may prepare what comes again
        cursor.execute("SELECT 1 UNION SELECT 2 ORDER BY 1; CREATE TEMPORARY TABLE r (a INT);"
                       " INSERT INTO r VALUES (?); DROP TABLE r; SELECT 3 AS b", (7,))
        assert cursor.fetchone() == (1,)
        assert connection.execute("SELECT 5").fetchall() == [(5,)]
        assert cursor.nextset() and cursor.description[0][0] == "b" and cursor.fetchall() == [(3,)]
        assert cursor.nextset() is None
    cursor.execute("SELECT 1; SELECT 2")  # whose second result is never asked for
    assert connection.execute("SELECT 4").fetchall() == [(4,)]
    with pytest.raises(dbapi.ProgrammingError):
        cursor.execute("SELECT 1; SELECT * FROM nowhere")
    connection.close()


def test_a_procedure_of_mariadb_gives_all_its_results(databases):
    if "mariadb" not in databases:
        pytest.skip("there is no MariaDB")
    connection = dbapi.connect(databases["mariadb"].string)
    connection.execute("CREATE TEMPORARY TABLE r (a INT)")
    for procedure in ["many(n INT) BEGIN SELECT n UNION SELECT n + 1; INSERT INTO r VALUES (n);"
                      " SELECT 'x' AS b, NULL, 0.5; SELECT a FROM r; END",
                      "broken() BEGIN SELECT 1; SELECT * FROM nowhere; SELECT 2; END"]:
        connection.execute("CREATE OR REPLACE PROCEDURE " + procedure)
    cursor, sets = connection.cursor(), []
    for n, text in enumerate(["CALL many(?)"] * 3 + ["EXECUTE many ?", "CALL many(?);"], 1):
        cursor.execute(text, (n,))
        assert connection.execute("SELECT 'other'").fetchall() == [("other",)]
        sets += [cursor.fetchall()]
        while cursor.nextset():
            sets += [cursor.fetchall()]
        assert sets[-3:] == [[(n,), (n + 1,)], [("x", None, Decimal("0.5"))],
                             [(i,) for i in range(1, n + 1)]]
    assert len(sets) == 15
    cursor.execute("BEGIN NOT ATOMIC IF 1 THEN SELECT 1; END IF; SELECT 2; END")
    assert cursor.fetchall() == [(1,)] and cursor.nextset() and cursor.fetchall() == [(2,)]
    for failing, error in [("CALL broken()", dbapi.ProgrammingError),
                           ("BEGIN NOT ATOMIC SELECT 1; SELECT 1 / x; END", dbapi.DatabaseError),
                           ("IF 1 THEN SELECT 1; SELECT 2; END IF", dbapi.NotSupportedError)]:
        with pytest.raises(error):
            cursor.execute(failing)
        assert cursor.execute("SELECT 'next'").fetchall() == [("next",)]
    cursor.execute("CALL many(9)")  # and nothing is read
    connection.commit()
    cursor.execute("CALL many(9)")
    connection.close()


def test_what_comes_again_means_the_same(engine):
    """However often, and whatever happened to it."""
    connection = dbapi.connect(engine.string)
    connection.execute("CREATE TEMPORARY TABLE again (a BIGINT PRIMARY KEY)")
    connection.execute("INSERT INTO again VALUES (1)")
    for _ in range(4):
        for value in (3, "x", None):
            row = connection.execute("SELECT 150, ?", (value,)).fetchone()
            assert row[1] == value or engine.name == "sqliteodbc"
        assert connection.execute("SELECT ? IS NULL", (3,)).fetchone()[0] in (False, "0")
        for value in (1, Decimal(1)):
            with pytest.raises(dbapi.Error):
                connection.execute("INSERT INTO again VALUES (?)", (value,))
    with pytest.raises(dbapi.ProgrammingError):
        connection.execute("SELECT %s" % ", ".join("?" * 70000), [1] * 70000)
    if engine.name in engines.SERVERS:
        many = "SELECT count(*) FROM again WHERE a IN (%s)" % ", ".join("?" * 33000)
        with pytest.raises(dbapi.OperationalError, match="32767"):
            connection.execute(many, [1] * 33000)
        cursor = connection.execute("INSERT INTO again VALUES (2), (3) RETURNING a")
        assert cursor.rowcount == 2 and cursor.fetchall() == [(2,), (3,)]
    connection.close()


def test_batches_of_other_sizes_keep_their_values(engine):
    """Of the same bytes: the second may lie where the first was."""
    connection = dbapi.connect(engine.string)
    connection.execute("DROP TABLE IF EXISTS batches")
    connection.execute("CREATE TABLE batches (n INTEGER, word VARCHAR(99))")
    connection.commit()
    insert, rows = "INSERT INTO batches VALUES (?, ?)", []
    for length in [*range(1, 30)] * 4:
        rows += [(len(rows), "a" * 2 * length), (len(rows) + 1, "b" * length),
                 (len(rows) + 2, "c" * length)]
        connection.executemany(insert, rows[-3:-2])
        connection.executemany(insert, rows[-2:])
    found = connection.execute("SELECT n, word FROM batches ORDER BY n").fetchall()
    assert [(int(n), word) for n, word in found] == rows
    connection.close()


@pytest.mark.parametrize("savepoint", [False, True])
def test_what_fails_first_in_a_transaction_leaves_the_rest(engine, savepoint):
    connection = dbapi.connect(engine.string)
    connection.execute("DROP TABLE IF EXISTS batches")
    connection.execute("CREATE TABLE batches (n INTEGER PRIMARY KEY)")
    insert, kept = "INSERT INTO batches VALUES (?)", [1]
    connection.execute(insert, (1,))
    for number in (10, 20):
        connection.commit()
        if savepoint:
            connection.execute("SAVEPOINT a")
        with pytest.raises(dbapi.DatabaseError, match="(?i)duplicate|unique"):
            connection.executemany(insert, [(number,), (1,)])
        if savepoint:
            connection.execute("ROLLBACK TO SAVEPOINT a")
        connection.execute(insert, (number + 1,))
        kept.append(number + 1)
    connection.commit()
    found = connection.execute("SELECT n FROM batches ORDER BY n").fetchall()
    assert [int(n) for n, in found] == kept
    connection.close()


def test_what_is_cancelled_says_so_and_can_be_done_again(engine):
    """Wherever it strikes: in an execution, in a fetch, or between."""
    connection, over = dbapi.connect(engine.string, autocommit=True), threading.Event()

    def cancel():
        while not over.wait(0.001):
            connection.cancel()

    thread = threading.Thread(target=cancel)
    long = "(%s)" % " UNION ALL ".join(["SELECT 1 AS x"] * 100)
    thread.start()
    states = set()
    try:
        with pytest.raises(dbapi.OperationalError):
            connection.execute("SELECT count(*) FROM %s WHERE a.x + b.x + c.x + d.x + e.x > ?"
                               % ", ".join("%s AS %s" % (long, name) for name in "abcde"), (9,))
        for i in range(150):
            try:
                assert connection.execute("SELECT ?", (str(i),)).fetchall() == [(str(i),)]
            except dbapi.OperationalError as error:
                states.add(error.sqlstate)
    finally:
        over.set()
        thread.join()
    assert states <= {"HY008", "57014", "HY018"}
    connection.close()


@pytest.mark.parametrize("others", [False, True], ids=["ctrl-c", "ctrl-c and another signal"])
def test_signals_are_handled_while_a_server_works(engine, others):
    if engine.name not in engines.SERVERS:
        pytest.skip("no server")
    connection = dbapi.connect(engine.string, autocommit=True)
    slow = "SELECT %s(9)" % {"postgresql": "pg_sleep", "mariadb": "SLEEP"}[engine.name]
    times, old = [], signal.getsignal(signal.SIGALRM)
    if others:
        signal.signal(signal.SIGALRM, lambda *_: times.append(time.monotonic()))
        signal.setitimer(signal.ITIMER_REAL, 0.2)
    begin = time.monotonic()
    threading.Timer(0.5, os.kill, (os.getpid(), signal.SIGINT)).start()
    try:
        with pytest.raises(KeyboardInterrupt):
            connection.execute(slow)
    finally:
        signal.signal(signal.SIGALRM, old)
    assert time.monotonic() - begin < 4 and all(when - begin < 4 for when in times)
    assert len(times) == others and connection.execute("SELECT 1").fetchone() == (1,)
    connection.close()


HANGING = """
import os, signal, socket, sys, threading, time
from vorda import dbapi

class Late(Exception):
    pass

def alarm(*_):
    times.append(time.monotonic() - begin)
    if len(times) == 2:
        raise Late

silent = socket.create_server(("127.0.0.1", 0))
string = "%s;Port=%d" % (sys.argv[1], silent.getsockname()[1])
signal.signal(signal.SIGALRM, alarm)
signal.setitimer(signal.ITIMER_REAL, 0.3, 0.3)
times, begin = [], time.monotonic()
try:
    dbapi.connect(string)
except Late:
    signal.setitimer(signal.ITIMER_REAL, 0)
    assert time.monotonic() - begin < 4, times

def limited():
    try:
        dbapi.connect(string, timeout=1)
    except dbapi.OperationalError as error:
        # Newer drivers of PostgreSQL's keep the limit themselves: 08001.
        assert error.sqlstate in ("HYT00", "08001"), error
        assert 0.9 < time.monotonic() - begin < 9
        print("over", end="")

for thread in [threading.Thread(target=limited) for _ in range(2)]:
    thread.start()
limited()
assert dbapi.connect(":memory:").execute("SELECT 1").fetchone() == (1,)
threading.Thread(target=dbapi.connect, args=(string,), daemon=True).start()
"""


def test_a_server_that_never_answers_keeps_nobody(engine):
    if engine.name not in engines.SERVERS:
        pytest.skip("no server")
    string = engine.string.replace("Port=", "_=")
    done = subprocess.run([sys.executable, "-c", HANGING, string], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, timeout=20)
    assert (done.returncode, done.stdout) == (0, "overoverover")


def test_a_transaction_that_a_statement_opened_is_seen(engine):
    connection = dbapi.connect(engine.string, autocommit=True)
    for end in (connection.commit, connection.rollback):
        assert not connection.in_transaction
        connection.execute("BEGIN")
        assert connection.in_transaction
        end()
    connection.close()


def test_ingest_keeps_every_text_and_leaves_nothing_of_refused_data(engine):
    if engine.name == "sqliteodbc":
        pytest.skip("its driver knows no SQLSTATE of constraints")
    connection = dbapi.connect(engine.string)
    connection.execute("DROP TABLE IF EXISTS numbered")
    connection.execute("CREATE TABLE numbered (id INTEGER PRIMARY KEY, word VARCHAR(99))")
    connection.commit()
    rows = [(0, "kept"), (1, "NULL"), (2, '"\\{},\'ö'), (3, ""), (4, None), (5, "a\nb")]
    connection.execute("INSERT INTO numbered VALUES (?, ?)", rows[0])

    def ingest(rows):
        texts = ", ".join("(%d, %s)" % (number, "NULL" if word is None else
                                        "CAST(x'%s' AS TEXT)" % word.encode().hex())
                          for number, word in rows)
        data = dbapi.connect(":memory:").execute(
            "SELECT column1 AS id, column2 AS word FROM (VALUES %s)" % texts).fetch_arrow()
        return dbapi.ingest(connection, "numbered", data)

    assert ingest(rows[1:]) == 5
    with pytest.raises(dbapi.IntegrityError):
        ingest([(n, "a") for n in range(6, 1500)] + [(0, "b")])
    if engine.name == "postgresql":
        with pytest.raises(dbapi.DataError, match="NUL character.*parameter set 2 of 3"):
            ingest([(6, "a"), (7, "a\0b"), (8, "c")])
    connection.commit()
    found = connection.execute("SELECT id, word FROM numbered ORDER BY id").fetchall()
    assert found == rows
    connection.close()


def test_a_frame_goes_from_table_to_table(engine):
    if engine.name == "sqliteodbc":
        pytest.skip("its driver's numbers come as texts")
    connection = dbapi.connect(engine.string)
    kinds = [engine.kind(name) for name in ("bigint", "double", "decimal", "boolean", "date",
                                            "time", "timestamp", "text")]
    most = max(len(kind.values) for kind in kinds)
    rows = [tuple(Decimal(k.values[i % len(k.values)]) if k.declared.startswith("DEC")
                  else k.values[i % len(k.values)] for k in kinds) + (b"\0\xff", i)
            for i in range(most * 20)] + [(None,) * 9 + (-1,)]
    for table in ("frame", "other"):
        connection.execute("DROP TABLE IF EXISTS " + table)
    columns = [kind.declared for kind in kinds] + [engine.binary, "INTEGER"]
    connection.execute("CREATE TABLE frame (%s)" % ", ".join(
        "c%d %s" % pair for pair in enumerate(columns)))
    connection.executemany("INSERT INTO frame VALUES (%s)" % ", ".join("?" * 10), rows)
    connection.commit()
    cursor = connection.execute("SELECT * FROM frame ORDER BY c9")
    rows = cursor.fetchall()
    for batch_rows in (50, 65536):
        stream = cursor.execute("SELECT * FROM frame ORDER BY c9").fetch_arrow(batch_rows)
        if engine.name == "mariadb" and batch_rows == 50:
            with pytest.raises(dbapi.ProgrammingError, match=r"commit\(\) first"):
                dbapi.ingest(connection, "other", stream)
            stream = cursor.execute("SELECT * FROM frame ORDER BY c9").fetch_arrow(batch_rows)
            connection.commit()
        assert dbapi.ingest(connection, "other", stream) == len(rows)
        connection.commit()
    assert connection.execute("SELECT * FROM other ORDER BY c9").fetchall() == [
        row for row in rows for _ in range(2)]
    connection.close()


def test_what_is_rare_is_exact_in_the_middle_of_many_rows(engine):
    """Some drivers show a date that they do not understand as today."""
    if engine.name == "sqliteodbc":
        pytest.skip("its driver's numbers come as texts")
    connection = dbapi.connect(engine.string)
    today = datetime.datetime.combine(datetime.date.today(), datetime.time())
    rare = {20: (today.date(), today, "é" * 5000), 30: (None, None, None),
            40: (datetime.date.max, datetime.datetime.max, "\U0001F600" * 100)}
    rows = [(n, *rare.get(n % 50, (datetime.date(2020, 1, 1) + datetime.timedelta(n),
                                   datetime.datetime(1, 1, 1, 0, 0, 0, n), "word %d" % n)))
            for n in range(500)]
    kinds = [engine.kind(name).declared for name in ("integer", "date", "timestamp", "text")]
    for table in ("rare", "other"):
        connection.execute("DROP TABLE IF EXISTS " + table)
        connection.execute("CREATE TABLE %s (n %s, d %s, w %s, t %s)" % (table, *kinds))
    connection.executemany("INSERT INTO rare VALUES (?, ?, ?, ?)", rows)
    connection.commit()
    query = "SELECT * FROM %s ORDER BY n"
    assert connection.execute(query % "rare").fetchall() == rows
    dbapi.ingest(connection, "other", connection.execute(query % "rare").fetch_arrow())
    assert connection.execute(query % "other").fetchall() == rows
    if engine.name == "postgresql":
        connection.execute("UPDATE rare SET d = 'infinity' WHERE n = 270")
        cursor = connection.execute(query % "rare")
        assert cursor.fetchmany(270) == rows[:270]
        with pytest.raises(dbapi.DataError, match='"d", row 271'):
            cursor.fetchone()
        assert cursor.fetchall() == rows[271:]
    connection.close()
