"""A pool: a few connections, lent to whoever asks.

Run as:  python connection_pool.py [DATABASE_FILE]
"""

import os
import queue
import sys
import tempfile
from concurrent.futures import ThreadPoolExecutor
from contextlib import contextmanager
from typing import Iterator

from vorda import dbapi


class Pool:
    """Lends each connection to one at a time; what is left uncommitted is rolled back."""

    def __init__(self, path: str, size: int) -> None:
        self._free: "queue.LifoQueue[dbapi.Connection]" = queue.LifoQueue()
        for _ in range(size):
            self._free.put(dbapi.connect(Database=path, Timeout=30))
        self._size = size

    @contextmanager
    def connection(self) -> Iterator[dbapi.Connection]:
        connection = self._free.get()
        try:
            with connection:
                yield connection
        finally:
            self._free.put(connection)

    def close(self) -> None:
        for _ in range(self._size):
            self._free.get().close()


def deposit(pool: Pool, account: int) -> None:
    with pool.connection() as connection:
        connection.execute("UPDATE account SET balance = balance + 1 WHERE id = ?", (account,))


def main() -> None:
    path = sys.argv[1] if len(sys.argv) > 1 else os.path.join(tempfile.mkdtemp(), "accounts.db")
    pool = Pool(path, 3)
    with pool.connection() as connection:
        connection.execute("CREATE TABLE account (id INTEGER PRIMARY KEY, balance INTEGER)")
        connection.executemany("INSERT INTO account VALUES (?, 0)", ((n,) for n in range(5)))
    with ThreadPoolExecutor(max_workers=8) as threads:
        list(threads.map(lambda n: deposit(pool, n % 5), range(100)))
    with pool.connection() as connection:
        print(connection.execute("SELECT balance FROM account ORDER BY id").fetchall())
    pool.close()


if __name__ == "__main__":
    main()
