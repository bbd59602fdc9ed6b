"""What is called in the middle of a call, and what it may do to the cursor and the connection."""

import collections.abc
import gc
import sys

import pytest

from vorda import dbapi

ACTIONS = {
    "close the cursor": lambda cursor, connection: cursor.close(),
    "close the connection": lambda cursor, connection: connection.close(),
    "commit": lambda cursor, connection: connection.commit(),
    "roll back": lambda cursor, connection: connection.rollback(),
    "execute": lambda cursor, connection: cursor.execute("SELECT 1"),
    "execute many": lambda cursor, connection: cursor.executemany("DELETE FROM t", [()]),
    "fetch": lambda cursor, connection: cursor.fetchall(),
    "begin again": lambda cursor, connection: cursor.__init__(connection),
    "use another": lambda cursor, connection: connection.execute("SELECT a FROM t").fetchall(),
    "write with another": lambda cursor, connection:
        connection.executemany("INSERT INTO t VALUES (?, '')", [(i,) for i in range(5000, 8000)]),
    "collect": lambda cursor, connection: gc.collect(),
}


class Hooked:
    """Does something whenever it is asked for anything."""

    def __init__(self, action, *values):
        self.action, self.values = action, values

    def __len__(self):
        return len(self.values)

    def __getitem__(self, key):
        self.action()
        return self.values[key if isinstance(key, int) else 0]

    def __iter__(self):
        for value in self.values:
            self.action()
            yield value


class HookedMapping(Hooked, collections.abc.Mapping):
    """The same, by name."""


def factory(cursor, action, calls):
    def make(_):
        calls and action()
        return lambda row: calls or action() or row

    cursor.row_factory = make
    return cursor.execute("SELECT a, b FROM t").fetchall()


INSERT = "INSERT INTO t VALUES (?, ?)"
HOOKS = {
    "an adapter": lambda cursor, action: cursor.execute(INSERT, (9001, Hooked(action))),
    "an adapter of many": lambda cursor, action:
        cursor.executemany(INSERT, [(9001 + i, Hooked(action)) for i in range(3)]),
    "a sequence": lambda cursor, action: cursor.execute(INSERT, Hooked(action, 9001, "x")),
    "a mapping": lambda cursor, action:
        cursor.execute("INSERT INTO t VALUES (:a, 'x')", HookedMapping(action, 9001)),
    "an iterator": lambda cursor, action:
        cursor.executemany(INSERT, Hooked(action, *((i, "") for i in range(9001, 12100)))),
    "a factory": lambda cursor, action: factory(cursor, action, True),
    "a factory's function": lambda cursor, action: factory(cursor, action, False),
}


@pytest.mark.parametrize("autocommit", [False, True], ids=["", "autocommit"])
@pytest.mark.parametrize("action", ACTIONS)
@pytest.mark.parametrize("hook", HOOKS)
def test_no_call_within_another_breaks_anything(tmp_path, monkeypatch, hook, action, autocommit):
    monkeypatch.setattr(dbapi, "_adapters", {**dbapi._adapters, Hooked: lambda it: it[0]})
    path = tmp_path / "data.db"
    connection = dbapi.connect(path, autocommit=autocommit)
    connection.execute("CREATE TABLE t (a INTEGER PRIMARY KEY, b TEXT)")
    connection.executemany(INSERT, [(i, "x" * 300) for i in range(500)])
    connection.commit()
    cursor = connection.cursor()
    done = []

    def act():
        if not done:
            done.append(True)
            ACTIONS[action](cursor, connection)

    try:
        HOOKS[hook](cursor, act)
    except (dbapi.Error, IndexError):
        pass
    assert done
    if not connection.closed:
        connection.rollback()
        assert connection.execute("SELECT 1").fetchone() == (1,)
    connection.close()
    check = dbapi.connect(path)
    assert check.execute("PRAGMA integrity_check").fetchall() == [("ok",)]
    more = check.execute("SELECT count(*) FROM t").fetchone()[0]
    assert more in (0, 500, 501, 503, 3500, 3501, 3503, 3599, 6599), more
    check.close()


def test_calls_keep_and_lose_no_reference(connection):
    """Whatever they come to."""
    connection.execute("CREATE TABLE t (a, b)")
    connection.commit()

    def session():
        cursor = connection.cursor()
        cursor.executemany("INSERT INTO t VALUES (?, ?)", [(i, "x" * 400) for i in range(50)])
        cursor.row_factory = dbapi.Row
        cursor.execute("SELECT a, b FROM t WHERE a > :a", {"a": 1}).fetchmany(20)
        for bad in ("SELEC 1", "SELECT ?, ?"):
            with pytest.raises(dbapi.Error):
                cursor.execute(bad, (object(),))
        connection.rollback()
        with pytest.raises(dbapi.Error):
            cursor.fetchone()
        cursor.description, cursor.lastrowid, cursor.rowcount, cursor.arraysize

    # Stores fill up; what is lost is lost in each round.
    counts = []
    while len(counts) < 3 or counts[-1] - counts[-2] >= 20:
        assert len(counts) < 50, counts
        for _ in range(20):
            session()
        gc.collect()
        counts.append(getattr(sys, "gettotalrefcount", sys.getallocatedblocks)())
