"""What a case is, and the pieces that cases on files and on a server share."""

import contextlib
import datetime


class Case:
    """One measurement: `run(peer, state)` is timed; `prepare(peer)` is a context that gives the
    state. `alone` does the same with nothing but the ODBC driver."""

    def __init__(self, name, prepare, run, result=None, alone=None):
        self.name, self.prepare, self.run, self.result = name, prepare, run, result
        self.alone = alone


def plain(value):
    """A value in a form in which all drivers agree: some give decimals and dates as text or
    floats."""
    if isinstance(value, datetime.date):
        return value.isoformat()
    try:
        return round(float(value), 6)
    except (TypeError, ValueError):
        return value


def fetchall(cursor):
    return cursor.fetchall()


def in_one_batch(peer, connection, cursor, rows):
    sql = "INSERT INTO w VALUES (%s)" % ", ".join([peer.marker] * 3)
    if peer.name == "zelqa":  # a batch is a transaction by itself
        cursor.executemany(sql, rows)
        return
    peer.begin(connection)
    cursor.executemany(sql, rows)
    peer.commit(connection)


def connecting(place, count):
    def run(peer, state):
        for _ in range(count):
            peer.connect(place).close()

    return Case("%d times connect and close" % count, lambda peer: contextlib.nullcontext(), run)
