"""Servers that are gone all of a sudden: errors of the driver's own classes, no hang, no half-done
batch."""

import faulthandler

import pytest

import engines
from vorda import dbapi, zelqa

pytestmark = pytest.mark.parametrize("engine", engines.SERVERS, indirect=True)


@pytest.fixture
def lost(driver):
    """What a call raises whose connection is gone."""
    return dbapi.OperationalError if driver is dbapi else zelqa.DatabaseError


@pytest.fixture
def server(engine):
    # A call that hangs keeps the interpreter lock: only another thread without it can tell where.
    faulthandler.dump_traceback_later(90, exit=True)
    yield engine.server
    engine.server.restart()
    faulthandler.cancel_dump_traceback_later()


def check_that_it_is_over(cursor, lost):
    for _ in range(2):
        with pytest.raises(lost, match="."):
            cursor.execute("SELECT 1")
        with pytest.raises(lost, match="."):
            cursor.executemany("INSERT INTO t VALUES (?, 'x')", [(98,), (99,)])
    cursor.connection.close()


def test_between_statements(server, cursor, connect, lost):
    cursor.execute("CREATE TABLE t (a INTEGER, b VARCHAR(200))")
    cursor.executemany("INSERT INTO t VALUES (?, ?)", [(1, "x"), (2, "y")])
    in_transaction = connect().cursor()
    in_transaction.execute("BEGIN")
    in_transaction.execute("INSERT INTO t VALUES (3, 'not committed')")
    if lost is dbapi.OperationalError:
        with_commit = connect()
        with_commit.autocommit = False
        with_commit.execute("INSERT INTO t VALUES (4, 'not committed')")
    server.kill()
    if lost is dbapi.OperationalError:
        with pytest.raises(lost, match="."):
            with_commit.commit()
    with pytest.raises(lost, match="."):
        connect()
    with pytest.raises(lost, match="08S01|57P01"):
        in_transaction.execute("INSERT INTO t VALUES (?, 'x')", (5,))
    with pytest.raises(lost, match="."):
        in_transaction.execute("COMMIT")
    check_that_it_is_over(in_transaction, lost)
    server.restart()
    # No connection comes back by itself, without what was set on it.
    check_that_it_is_over(cursor, lost)
    assert [tuple(row)
            for row in connect().execute("SELECT a, b FROM t ORDER BY a")] == [(1, "x"), (2, "y")]


@pytest.mark.parametrize("streamed", [False, True])
def test_in_the_middle_of_a_fetch(server, connect, engine, lost, streamed):
    if streamed and not engine.streaming:
        pytest.skip("the driver fetches whole results only")
    cursor = connect(";" + engine.streaming if streamed else "").cursor()
    cursor.execute("SELECT n, repeat('x', 100) FROM " + engine.numbers)
    rows = [tuple(row) for row in cursor.fetchmany(10)]
    server.kill()
    failed = False
    try:
        rows += map(tuple, cursor)
    except lost as error:
        failed = bool(str(error))
    # A driver may have had all rows already. Fewer without an error would be a loss.
    assert failed or (len(rows) == 200000 and not streamed)
    assert rows == [(i, "x" * 100) for i in range(1, len(rows) + 1)]
    check_that_it_is_over(cursor, lost)


@pytest.mark.parametrize("begin", [False, True])
@pytest.mark.parametrize("rows", [None, 100])
def test_in_the_middle_of_a_call(server, cursor, connect, engine, lost, begin, rows):
    cursor.execute("CREATE TABLE t (a INTEGER, b VARCHAR(200))")
    cursor.execute("INSERT INTO t VALUES (0, 'old')")
    if begin:
        cursor.execute("BEGIN")
    server.kill(after=0.4)
    with pytest.raises(lost, match="."):
        if rows:
            cursor.executemany("INSERT INTO t VALUES (?, %s)" % engine.pause,
                               [(i,) for i in range(rows)])
        else:
            cursor.execute("INSERT INTO t SELECT n, %s FROM %s" % (engine.pause, engine.numbers))
    check_that_it_is_over(cursor, lost)
    server.restart()
    assert [tuple(row) for row in connect().execute("SELECT a, b FROM t")] == [(0, "old")]
