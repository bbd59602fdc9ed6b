"""What ThreadSanitizer looks at: threads share a connection, use and change all that is on it,
cancel what runs and close it in the middle."""

import gc
import os
import sys
import tempfile
import threading
import time

from vorda import dbapi

ROUNDS, SECONDS = 5, 0.8
SLOW = "SELECT count(*) FROM t, t AS u, t AS v"


def read(connection, number):
    cursor = connection.execute("SELECT a, b FROM t WHERE a % 3 = ?", (number % 3,))
    assert {row[0] % 3 for row in cursor.fetchmany(50)} <= {number % 3}
    cursor.description, cursor.lastrowid, cursor.rowcount


def write(connection, number):
    connection.executemany("INSERT INTO t VALUES (?, ?)", [(i, "x" * 90) for i in range(200)])
    (connection.rollback if number % 2 else connection.commit)()


def wait(connection, number):
    connection.execute(SLOW).fetchone()


def look(connection, number):
    connection.timeout = number % 2 and 5
    connection.in_transaction, connection.autocommit, connection.closed, connection.timeout
    if number % 20 == 0:
        gc.collect()


def cancel(connection, number):
    time.sleep(0.005)
    connection.cancel()


def repeat(action, connection, over, failures):
    number = 0
    while not over.is_set():
        number += 1
        try:
            action(connection, number)
        except dbapi.Error as error:
            # What runs is interrupted, or another thread is in the way.
            if error.sqlstate not in ("HY008", "08003", "HY010", "HYT00", "24000"):
                failures.append(error)


def main(path):
    with dbapi.connect(path) as connection:
        connection.execute("CREATE TABLE t (a, b)")
    for _ in range(ROUNDS):
        connection, over, failures = dbapi.connect(path), threading.Event(), []
        threads = [threading.Thread(target=repeat, args=(action, connection, over, failures))
                   for action in (read, read, write, wait, look, cancel)]
        for thread in threads:
            thread.start()
        time.sleep(SECONDS)
        connection.close()
        over.set()
        for thread in threads:
            thread.join()
        assert not failures, failures[:3]


if __name__ == "__main__":
    sys.setswitchinterval(1e-5)
    with tempfile.TemporaryDirectory() as folder:
        main(os.path.join(folder, "t.db"))
