"""What ends a statement, or runs in the middle of one."""

import contextlib
import os
import signal
import threading
import time

import pytest

from vorda import dbapi

SLOW = (
    "WITH RECURSIVE n (i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1000000000)"
    " SELECT count(*) FROM n"
)


@pytest.fixture
def handler():
    """Sets a signal's handler, for the time of a test."""
    old = {number: signal.getsignal(number) for number in (signal.SIGALRM, signal.SIGINT)}
    yield signal.signal
    signal.setitimer(signal.ITIMER_REAL, 0)
    for number, function in old.items():
        signal.signal(number, function)


def test_signals_are_handled_in_the_middle_of_a_statement(connection, handler):
    times = []
    handler(signal.SIGINT, signal.default_int_handler)

    def alarm(*_):
        times.append(time.monotonic())
        with pytest.raises(dbapi.ProgrammingError, match="busy"):
            connection.execute("SELECT 1")
        if len(times) == 3:
            os.kill(os.getpid(), signal.SIGINT)

    handler(signal.SIGALRM, alarm)
    signal.setitimer(signal.ITIMER_REAL, 0.2, 0.2)
    with pytest.raises(KeyboardInterrupt):
        connection.execute(SLOW)
    assert len(times) == 3
    signal.setitimer(signal.ITIMER_REAL, 0)
    assert connection.execute("SELECT 1").fetchone() == (1,)


def test_cancel_and_timeout_end_a_statement(connection):
    threading.Timer(0.2, connection.cancel).start()
    with pytest.raises(dbapi.OperationalError) as caught:
        connection.execute(SLOW)
    assert caught.value.sqlstate == "HY008"
    connection.cancel()
    connection.timeout = 0.5
    assert connection.timeout == 1
    with pytest.raises(dbapi.OperationalError) as caught:
        connection.execute(SLOW)
    assert caught.value.sqlstate == "HYT00"


def test_a_transaction_that_an_end_has_undone_keeps_nothing_else(connection):
    connection.execute("CREATE TABLE t (a INTEGER PRIMARY KEY)")
    connection.commit()

    def stop():
        threading.Timer(0.3, connection.cancel).start()
        with pytest.raises(dbapi.OperationalError, match="interrupted"):
            connection.execute("INSERT INTO t " + SLOW)

    stop()  # nothing was there to be lost
    for number, end in enumerate((connection.rollback, connection.commit)):
        connection.execute("INSERT INTO t VALUES (1)")
        stop()
        assert connection.in_transaction
        with pytest.raises(dbapi.InternalError, match="nothing is left of it"):
            connection.execute("INSERT INTO t VALUES (2)")
        if end == connection.commit:
            with pytest.raises(dbapi.OperationalError, match="nothing is left of it"):
                end()
        else:
            end()
        connection.execute("INSERT INTO t VALUES (?)", (number + 3,))
        connection.commit()
    for rows in ("(5), (5)", "(5), (5) RETURNING a"):
        connection.execute("DELETE FROM t")
        with pytest.raises(dbapi.IntegrityError):  # which says so itself
            connection.execute("INSERT OR ROLLBACK INTO t VALUES " + rows)
        assert not connection.in_transaction
    connection.execute("INSERT INTO t VALUES (6)")
    with pytest.raises(dbapi.DataError, match="overflow"):  # in a fetch, which undoes nothing
        connection.execute(SLOW.replace("count(*)", "iif(i < 9000, i, abs(-1 << 63))")).fetchall()
    connection.commit()
    assert connection.execute("SELECT a FROM t").fetchall() == [(3,), (4,), (6,)]


def test_what_is_done_is_not_told_as_cancelled(connection):
    connection.autocommit = True
    connection.execute("CREATE TABLE t (a INTEGER PRIMARY KEY)")
    over, insert = threading.Event(), "INSERT INTO t VALUES (?)"

    def cancel():
        while not over.wait(0.0001):
            connection.cancel()

    thread = threading.Thread(target=cancel)
    thread.start()
    done = []
    try:
        for i in range(800):
            with contextlib.suppress(dbapi.OperationalError):
                connection.execute(insert, (i,))
                done.append((i,))
    finally:
        over.set()
        thread.join()
    assert connection.execute("SELECT a FROM t").fetchall() == done


def test_a_query_alone_keeps_nobody_from_writing(connection, tmp_path):
    connection.execute("CREATE TABLE t (a)")
    connection.commit()
    assert connection.execute("SELECT a FROM t").fetchall() == [] and not connection.in_transaction
    other = dbapi.connect("Database={%s};Timeout=0" % (tmp_path / "data.db"))
    with other:
        other.execute("INSERT INTO t VALUES (1)")
    begin = time.monotonic()
    other.execute("BEGIN EXCLUSIVE")
    waiting = dbapi.connect(tmp_path / "data.db")
    threading.Timer(0.2, waiting.cancel).start()
    with pytest.raises(dbapi.OperationalError, match="interrupted"):
        waiting.execute("SELECT a FROM t")
    waiting.timeout = 1
    with pytest.raises(dbapi.OperationalError, match="timeout has passed"):
        waiting.execute("SELECT a FROM t")
    assert time.monotonic() - begin < 4
    waiting.close()
    other.close()
    assert connection.execute("SELECT a FROM t").fetchone() == (1,)


def test_another_interpreter_is_refused():
    testing = pytest.importorskip("_testcapi")
    assert testing.run_in_subinterp(
        "try:\n    import vorda.dbapi\n"
        "except ImportError as error:\n    assert 'interpreter' in str(error), error\n"
        "else:\n    raise SystemExit('imported')\n") == 0
